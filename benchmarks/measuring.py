"""Runs the programs, each between two readings of the distance, and keeps their figures by class of distance."""
import json
import os
import statistics
import subprocess
import sys

UNAVAILABLE = 77  # exit code of a peer that the machine does not offer
TIMEOUT_S = 300

# How far apart the two processors are: nanoseconds for one cache line to the other and back, up to which a reading
# belongs to a class. Between the bounds lie processors that share a cache, those that share a package or a mesh, and
# those that share neither; a virtual machine is moved from one to another while it runs. Beyond all bounds lies no
# distance: other work had the processors.
CLASSES = {"near": 75, "middle": 250, "far": 1000}
ONE_PROCESSOR = "one processor"  # nothing travels
ALONE = "alone"  # figures of a single process, which no distance changes
AGREE = 1.5  # two readings agree when neither is more than so many times the other
ATTEMPTS = 4
PLACES_AGREE = 0.1  # and two shares of records received on the sender's processor, when they differ by no more
TICKS = os.sysconf("SC_CLK_TCK")


class Run:
    """One run of a program: where its figures go, and how they are read from what it prints."""

    def __init__(self, prefix, command, read=dict, alone=False):
        self.prefix, self.command, self.read, self.alone = prefix, [str(part) for part in command], read, alone


class Series:
    """The values of every figure: the class of distance and the value, by round."""

    def __init__(self):
        self.values = {}
        self.readings = {}  # by class
        self.unsteady = {}  # what was seen, by prefix
        self.others = Others()

    def add(self, number, kind, prefix, figures):
        for name, value in figures.items():
            self.values.setdefault(f"{prefix.strip()} {name}".strip(), {})[number] = (kind, value)

    def of(self, figure, kind):
        return {number: value for number, (seen, value) in self.values.get(figure, {}).items() if seen == kind}

    def ratios(self, above, below, kind):
        """Within a round, and within a class unless distance does not matter to what is below; a latency only beside
        one whose records were received on the sender's own processor about as often."""
        divisors = {**self.of(below, ALONE), **self.of(below, kind)}
        here, there = self.of(place_of(above), kind), self.of(place_of(below), kind)
        return [value / divisors[number] for number, value in self.of(above, kind).items()
                if divisors.get(number) and abs(here.get(number, 0) - there.get(number, 0)) <= PLACES_AGREE]

    def kinds(self):
        return [kind for kind in (*CLASSES, ONE_PROCESSOR) if kind in self.readings]


class Others:
    """What runs here beside the benchmarks, from the start until asked."""

    def __init__(self):
        self.start = self.read()

    @staticmethod
    def read():
        """Seconds of all processors, those of them that were idle, and those of our own programs."""
        with open("/proc/stat", encoding="utf-8") as file:
            ticks = [int(word) for word in file.readline().split()[1:9]]  # guests count as their users already
        own = os.times()
        return sum(ticks) / TICKS, (ticks[3] + ticks[4]) / TICKS, own.children_user + own.children_system

    def share(self):
        total, idle, own = (now - then for now, then in zip(self.read(), self.start))
        return max(0.0, total - idle - own) / max(total, 1 / TICKS)


def place_of(figure):
    return figure.rsplit(" ", 1)[0] + " same_processor"


def class_of(reading):
    return next(name for name, bound in CLASSES.items() if reading <= bound)


def call(command):
    """What a program prints; None when it says that this machine does not offer it."""
    environment = {k: v for k, v in os.environ.items() if k not in ("ROAD_RATE_HZ", "SLOG_LEVELS", "SLOG_EVENT_FILE")}
    done = subprocess.run(command, stdout=subprocess.PIPE, env=environment, timeout=TIMEOUT_S, check=False)
    if done.returncode == UNAVAILABLE:
        return None
    if done.returncode != 0:
        sys.exit(f"failed with {done.returncode}: {' '.join(command)}")
    return json.loads(done.stdout)


class Measuring:
    """Runs programs and adds what they print to a series."""

    def __init__(self, programs, series):
        # On two processors, so that the distance is that of the processors on which the programs run.
        two = sorted(os.sched_getaffinity(0))[:2]
        self.distance, self.series = [str(programs / "distance"), *map(str, two)], series
        os.sched_setaffinity(0, two)
        self.apart = len(two) == 2

    def run(self, number, run):
        if run.alone:
            self.series.add(number, ALONE, run.prefix, run.read(call(run.command)))
            return
        for _ in range(ATTEMPTS):
            before = self.read_distance()
            printed = call(run.command)
            after = self.read_distance()
            if printed is None:
                return
            if max(before, after) <= min(AGREE * min(before, after), max(CLASSES.values())):
                self.keep(number, run, before, after, printed)
                return
        seen = f"round {number}: {before:.0f} ns before, {after:.0f} ns after: {json.dumps(run.read(printed))}"
        self.series.unsteady.setdefault(run.prefix, []).append(seen)

    def read_distance(self):
        return call(self.distance)["ns"] if self.apart else 0

    def keep(self, number, run, before, after, printed):
        kind = class_of((before * after) ** 0.5) if self.apart else ONE_PROCESSOR
        self.series.readings.setdefault(kind, []).extend([before, after])
        self.series.add(number, kind, run.prefix, run.read(printed))
