"""Real publishers and subscribers under faults at random moments. Usage: soak.py PROGRAMS [--seconds N] [--seed S]
[--no-memory-limits] [--self-check]; PROGRAMS is the directory of soak_publisher and soak_subscriber.

Rounds: three publishers (one for each resource) and three subscribers (each of all resources, so that the newest takes
every stream) run while faults hit them; then everything comes to rest and is compared. What must reach a reader is told
by time alone: all that was accepted by a call that began after the reader's open had returned and ended before another
open of the resource began, in order, once, unaltered; less only what waits unread when the reader leaves or is cut off.
"""
import argparse
import bisect
import collections
import ctypes
import itertools
import math
import mmap
import os
import pathlib
import random
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time

# As in Board.h.
RESOURCES = ["x:/res/soak", "dp:/res/pm/fm", "dp:/res/iam/sec_event"]
LANES = 2
ACCEPTED, NO_BLOCK, NOT_ENQUEUED, OTHER_CODE, SLOWEST, HISTOGRAM, BUCKETS = 0, 2, 3, 4, 5, 16, 240
TIMES, TIMES_KEPT = 256, 1 << 18
OPENS, LOSSES, ALTERED, ENTRIES, ENTRY_WORDS, ENTRIES_KEPT = 0, 1, 2, 16, 16, 1 << 15
Entry = collections.namedtuple("Entry", "resource begun ended fd reopened run lanes gaps expected seen error waited "
                                        "owner number")

POOL_BLOCKS = 1000
SECOND = 10**9
STOP_BOUND, RECONNECTING_STOP_BOUND, OPEN_BOUND = SECOND, 0.3 * SECOND, SECOND
PUBLISH_BOUND, PUBLISH_P999_BOUND = SECOND, 0.05 * SECOND
PATIENCE = 20  # seconds; what takes longer hangs
SUBSCRIBERS = 3
NEVER = 1 << 63
libc = ctypes.CDLL(None, use_errno=True)


class Violation(Exception):
    pass


def check(holds, text):
    if not holds:
        raise Violation(text)


def hangs(*_):
    raise Violation(f"a process neither answers nor ends within {PATIENCE} s")


def patiently(call):
    signal.alarm(PATIENCE)
    result = call()
    signal.alarm(0)
    return result


def wait_until(condition, text):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        check(time.monotonic() < deadline, text() if callable(text) else text)
        time.sleep(0.005)


def named(fault):
    return fault.__name__.replace("_", " ")


class Child:
    """A process of the soak, its board and its log. Answers come in the order of the commands."""

    numbers = 0

    def __init__(self, soak, words, program, *arguments):
        Child.numbers += 1
        self.name, self.log = f"{program} {Child.numbers}", soak.work / f"{Child.numbers}.log"
        board = os.memfd_create("board")
        os.truncate(board, 8 * words)
        self.words = memoryview(mmap.mmap(board, 0)).cast("Q")
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(
                [soak.programs / f"soak_{program}", str(board), *map(str, arguments)], stdin=subprocess.PIPE,
                stdout=subprocess.PIPE, stderr=log, text=True, env=soak.environment, pass_fds=[board])
        os.close(board)
        self.pid, self.died = self.process.pid, None
        self.proc = pathlib.Path(f"/proc/{self.pid}")
        soak.children.append(self)

    def answer(self):
        line = patiently(self.process.stdout.readline)
        check(line, f"{self.name} has ended by itself")
        return line.strip()

    def send(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()

    def ask(self, command):
        self.send(command)
        return self.answer()

    def end(self, how):
        """SIGKILL, or in order with "quit"."""
        self.send("quit") if how == "quit" else self.process.kill()
        code = patiently(self.process.wait)
        check(code == (0 if how == "quit" else -signal.SIGKILL), f"{self.name} ended with code {code}")
        self.died = time.monotonic_ns()

    def stopped(self):
        return all((task / "stat").read_text().rsplit(")", 1)[1].split()[0] == "T"
                   for task in (self.proc / "task").iterdir())

    def stop(self):
        self.process.send_signal(signal.SIGSTOP)
        wait_until(self.stopped, f"{self.name} is not stopped")

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)

    def limit(self, kind, value):
        """Lowers a soft limit; None takes it back."""
        hard = resource.prlimit(self.pid, kind)[1]
        resource.prlimit(self.pid, kind, (hard if value is None else value, hard))

    def limit_descriptors(self, more):
        used = {int(number) for number in os.listdir(self.proc / "fd")}
        self.limit(resource.RLIMIT_NOFILE, more + next(number for number in itertools.count() if number not in used))

    def held(self):
        """What the process holds. Anonymous memory by its size: neighbouring pieces may or may not be one mapping."""
        mappings = [line.split(maxsplit=5) for line in (self.proc / "maps").read_text().splitlines()]
        anonymous = [[int(end, 16) for end in line[0].split("-")] for line in mappings if len(line) < 6]
        return {"descriptors": len(os.listdir(self.proc / "fd")), "threads": len(os.listdir(self.proc / "task")),
                "mappings": len(mappings) - len(anonymous),
                "anonymous KiB": sum(end - begin for begin, end in anonymous) // 1024}


class Publisher(Child):
    def __init__(self, soak, number, mode=None):
        soak.runs += 1
        self.run, self.resource, self.begun = soak.runs, number, time.monotonic_ns()
        self.seen = [0] * LANES  # accepted in earlier rounds
        super().__init__(soak, TIMES + LANES * 2 * TIMES_KEPT, "publisher", number, self.run, mode or soak.sabotage)

    def accepted(self, lane):
        return self.words[ACCEPTED + lane]

    def when(self, lane, sequence, ended):
        """When the call that published a record began or, at last, ended."""
        return self.words[TIMES + (lane * 2 + ended) * TIMES_KEPT + sequence % TIMES_KEPT]

    def owed(self, lane, after, before):
        """The first and last record of a lane whose call began after and ended before the given times, or None."""
        sequences = range(self.seen[lane], self.accepted(lane))
        check(len(sequences) < TIMES_KEPT, "too many records in one round for the runner to follow")
        first = bisect.bisect_right(sequences, after, key=lambda s: self.when(lane, s, False))
        end = bisect.bisect_left(sequences, before, key=lambda s: self.when(lane, s, True))
        return (sequences[first], sequences[end - 1]) if first < end else None


class Subscriber(Child):
    def __init__(self, soak):
        super().__init__(soak, ENTRIES + ENTRIES_KEPT * ENTRY_WORDS, "subscriber")
        self.started, self.seen, self.losses = False, 0, 0

    def entries(self):
        for number in range(self.seen, self.words[OPENS]):
            at = ENTRIES + number * ENTRY_WORDS
            words = self.words[at:at + ENTRY_WORDS]
            lanes = [(words[6 + lane], words[8 + lane]) for lane in range(LANES)]  # first, one past the last
            yield Entry(*words[:6], lanes, *words[10:15], self, number)

    def read_threads(self):
        for task in (self.proc / "task").iterdir():
            if (task / "comm").read_text().startswith("Rd_"):
                yield int(task.name)


class Soak:
    def __init__(self, options, sabotage):
        self.options, self.sabotage, self.random = options, sabotage, random.Random(options.seed)
        self.programs = pathlib.Path(options.programs).resolve()
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="soak-"))
        self.directory = self.work / "iam"
        self.directory.mkdir(mode=0o700)
        self.mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16k,nr_inodes=12,mode=0700", "soak",
                                       self.directory], stderr=subprocess.DEVNULL).returncode == 0
        # Memory that allocation and threads would keep would count as mappings that did not go away.
        self.environment = dict(os.environ, IAM_RUNTIME_DIR=str(self.directory), SLOG_LEVELS="2,3,16",
                                MALLOC_ARENA_MAX="1", GLIBC_TUNABLES="glibc.pthread.stack_cache_size=0")
        self.children, self.publishers, self.subscribers = [], [None] * len(RESOURCES), []
        self.runs, self.rounds, self.retired, self.story = 0, 0, [], []
        self.faults, self.figures, self.histogram = collections.Counter(), collections.Counter(), [0] * BUCKETS
        self.reference, self.owed = {}, 0

    # --- Processes

    def serve(self, number, mode=None):
        publisher = Publisher(self, number, mode)
        answer = publisher.answer()
        check(answer == "serving", f"{publisher.name} does not serve {RESOURCES[number]}: {answer}")
        self.publishers[number] = publisher
        return publisher

    def retire(self, child, how):
        """Ends a process. What it has done this round is compared with the rest of the round."""
        child.end(how)
        self.retired.append(child)

    def restart(self, number, how="quit"):
        self.retire(self.publishers[number], how)
        self.pause_between()
        self.serve(number).ask("go")

    def replace(self, subscriber, how):
        self.retire(subscriber, how)
        newer = self.subscribers[self.subscribers.index(subscriber)] = Subscriber(self)
        return newer

    def start(self, subscriber, meanwhile=lambda: None, may_throw=False):
        """Whether both families are subscribed."""
        subscriber.send("start")
        subscriber.started = True
        meanwhile()
        word, *answer = subscriber.answer().split()
        sound = word == "started" and {answer[0], answer[3]} <= {"0", str(0xF10005)}
        check(sound or (may_throw and word == "threw"), f"{subscriber.name}: a start {word} {answer}")
        return word == "started" and answer[0] == answer[3] == "0"

    def finish_stop(self, subscriber, reconnecting=False):
        word, *answer = subscriber.answer().split()
        check(word == "stopped", f"{subscriber.name}: a stop {word} {answer}")
        for files, words in (((0, 1), answer[:3]), ((2,), answer[3:])):
            result, begun, ended = map(int, words)
            check(result in (0, 0xF10206), f"{subscriber.name}: a stop returned {result:#x}")
            took, opening = ended - begun, sum(max(0, min(e.ended, ended) - max(e.begun, begun))
                                               for e in subscriber.entries() if e.resource in files)
            self.longest("stop", took)
            check(took <= STOP_BOUND or opening > 0, f"{subscriber.name}: a stop took {took / 1e6:.0f} ms")
            if reconnecting or opening > 0:
                self.longest("stop while reconnecting, without an open in progress", took - opening)
                check(took - opening <= RECONNECTING_STOP_BOUND, f"{subscriber.name}: a stop while reconnecting took "
                      f"{took / 1e6:.0f} ms, an open in progress {opening / 1e6:.0f} ms of it")
        subscriber.started = False

    def stop(self, subscriber, **how):
        subscriber.send("stop")
        self.finish_stop(subscriber, **how)

    def start_again(self, subscriber):
        self.stop(subscriber)
        wait_until(lambda: self.start(subscriber) or self.stop(subscriber), f"{subscriber.name} cannot open its files")

    def longest(self, what, nanoseconds):
        self.figures[what] = max(self.figures[what], nanoseconds)

    def pause_between(self):
        time.sleep(self.random.uniform(0, 0.15))

    def a_moment(self):
        time.sleep(self.random.uniform(0, 0.002))

    # --- Faults, each at a publisher or a subscriber of any kind. Each leaves all processes alive and nobody stopped.

    def kill_publisher(self, publisher, subscriber):
        if self.random.random() < 0.5:
            return self.restart(publisher.resource, "kill")
        self.stop(subscriber)  # and connects just now
        self.start(subscriber, lambda: (self.a_moment(), self.restart(publisher.resource, "kill")))

    def restart_publisher(self, publisher, _):
        self.restart(publisher.resource)

    def kill_subscriber(self, _, subscriber):
        if self.random.random() < 0.5:
            self.stop(subscriber)
            subscriber.send("start")  # and dies while it connects
            self.a_moment()
        self.start(self.replace(subscriber, "kill"))

    def subscriber_leaves_and_returns(self, _, subscriber):
        self.stop(subscriber)
        self.pause_between()
        self.start(subscriber)

    def subscriber_stopped_for_a_while(self, _, subscriber):
        subscriber.stop()
        time.sleep(self.random.uniform(0, 0.6))
        subscriber.go_on()

    def refused(self, number, why):
        second = Publisher(self, number)
        answer = second.answer()
        check(answer == "refused 0xf10207" and second.process.wait() == 3, f"{why} was not refused: {answer}")
        self.children.remove(second)

    def second_service_of_a_name(self, publisher, _):
        self.refused(publisher.resource, "a second service of the same name")

    def storm_of_sigpipe_at_read_threads(self, _, subscriber):
        threads, leaving = list(subscriber.read_threads()), self.random.random() < 0.3
        if leaving:
            subscriber.send("stop")
        for thread in threads * self.random.randint(20, 300):
            libc.tgkill(subscriber.pid, thread, signal.SIGPIPE)  # the thread may be gone by now
            self.figures["signals"] += 1
        if leaving:
            self.finish_stop(subscriber)
            self.start(subscriber)

    def full_pool(self, publisher, reader):
        self.start_again(reader)  # so that somebody is the current reader
        before = publisher.words[NO_BLOCK]
        for subscriber in self.subscribers:
            subscriber.stop()
        wait_until(lambda: publisher.words[NO_BLOCK] > before, f"{publisher.name} never finds its pool empty")
        if self.random.random() < 0.5:  # the one that holds the blocks is superseded, and must not stand in the way
            newer = self.random.choice([subscriber for subscriber in self.subscribers if subscriber is not reader])
            newer.go_on()
            self.start_again(newer)
            accepted = publisher.accepted(0)
            wait_until(lambda: publisher.accepted(0) > accepted, f"{publisher.name} stays without blocks")
        for subscriber in self.subscribers:
            subscriber.go_on()

    def full_disk_of_the_runtime_directory(self, publisher, _):
        self.retire(publisher, "quit")
        fillers, full = [], False
        while not full:
            path = self.directory / f"filler{len(fillers)}"
            try:
                path.touch()
                fillers.append(path)
                path.write_bytes(bytes(65536))
            except OSError:
                full = not path.exists()  # no file can be made; before that, no byte could be written
        if self.random.random() < 0.5:
            fillers.pop().unlink()  # room for the lock file, not for the socket
        self.refused(publisher.resource, "a service in a full runtime directory")
        for path in fillers:
            path.unlink()
        self.serve(publisher.resource).ask("go")

    def no_descriptors_for_a_subscriber(self, _, subscriber):
        self.stop(subscriber)
        subscriber.limit_descriptors(self.random.randint(0, 8))
        self.start(subscriber)
        if self.random.random() < 0.5:  # a reconnection under the limit
            self.restart(0, "kill")
        subscriber.limit(resource.RLIMIT_NOFILE, None)
        self.start_again(subscriber)

    def no_descriptors_for_a_publisher(self, publisher, subscriber):
        publisher.limit_descriptors(self.random.randint(0, 3))
        self.stop(subscriber)
        self.start(subscriber)
        publisher.limit(resource.RLIMIT_NOFILE, None)
        self.start_again(subscriber)

    def no_memory_for_threads_of_a_subscriber(self, _, subscriber):
        self.stop(subscriber)
        size = int((subscriber.proc / "statm").read_text().split()[0]) * resource.getpagesize()
        # Too little for a pool, for a thread, for a second or a third thread.
        subscriber.limit(resource.RLIMIT_AS, size + self.random.randrange(1 << 16, 40 << 20))
        self.figures["starts without memory that failed"] += not self.start(subscriber, may_throw=True)
        subscriber.limit(resource.RLIMIT_AS, None)
        self.start_again(subscriber)

    def stop_during_a_reconnection(self, _, subscriber):
        self.retire(self.publishers[0], "kill")
        self.pause_between()
        self.stop(subscriber, reconnecting=True)
        self.serve(0).ask("go")
        self.start(subscriber)

    def service_that_never_answers(self, _, subscriber):
        """Accepts connections and never answers: an open takes its whole time, alone or in a reconnection."""
        self.retire(self.publishers[0], "kill")
        wedged = Publisher(self, 0, "wedged")
        wait_until(wedged.stopped, "the wedged service does not come up")
        time.sleep(self.random.uniform(0, 1.3))
        self.stop(subscriber, reconnecting=True)
        self.start(subscriber)
        wedged.go_on()
        check(wedged.answer() == "serving", "the wedged service does not serve afterwards")
        self.publishers[0] = wedged
        wedged.ask("go")

    # Each is told by the name of its function.
    FAULTS = [kill_publisher, restart_publisher, kill_subscriber, subscriber_leaves_and_returns,
              subscriber_stopped_for_a_while, second_service_of_a_name, storm_of_sigpipe_at_read_threads, full_pool,
              full_disk_of_the_runtime_directory, no_descriptors_for_a_subscriber, no_descriptors_for_a_publisher,
              no_memory_for_threads_of_a_subscriber, stop_during_a_reconnection, service_that_never_answers]

    # --- What must hold

    def of_round(self, kind):
        return [child for child in self.retired + self.publishers + self.subscribers if isinstance(child, kind)]

    def connections(self):
        """Every connection of this round: its entry and name, the publisher it led to (None if that is not certain),
        the time until which it was surely the current one, and whether it stayed to read everything."""
        publishers, everyone = {publisher.run: publisher for publisher in self.of_round(Publisher)}, []
        for subscriber in self.of_round(Subscriber):
            alive, later = subscriber.died is None, {}
            for entry in reversed(list(subscriber.entries())):
                if not entry.ended:
                    entry = entry._replace(ended=NEVER if alive else subscriber.died + SECOND, fd=NEVER)
                next_one = later.get(entry.resource)
                stayed = next_one.reopened if next_one else alive and subscriber.started
                later[entry.resource] = entry
                everyone.append((entry, bool(stayed)))
        for entry, stayed in everyone:
            if entry.fd >= NEVER:  # a negative result
                continue
            run = entry.run
            if run == 0:
                served = [p.run for p in publishers.values() if p.resource == entry.resource and
                          p.begun <= entry.ended and (p.died is None or p.died >= entry.begun)]
                run = served[0] if len(served) == 1 else 0
            superseded = min((e.begun for e, _ in everyone if e.resource == entry.resource and e.ended > entry.begun and
                              (e.owner, e.number) != (entry.owner, entry.number)), default=NEVER)
            who = f"{entry.owner.name}, open {entry.number} of {RESOURCES[entry.resource]}"
            yield entry, who, publishers.get(run), superseded, stayed

    def missing(self):
        """What accepted records have not reached a reader that they must reach: a text, or None."""
        for subscriber in self.of_round(Subscriber):
            altered = subscriber.words[ALTERED]
            check(not altered, f"{subscriber.name}: {altered} records came altered")
        self.figures["records owed to a reader that stayed"] = self.owed
        for entry, who, publisher, superseded, stayed in self.connections():
            check(not entry.gaps, f"{who}: expected sequence {entry.expected}, got {entry.seen} (run {entry.run})")
            stayed = stayed and not (superseded != NEVER and entry.error)  # else it may have been cut off
            for lane, (first, after) in enumerate(entry.lanes if publisher else []):
                owed = publisher.owed(lane, entry.ended, superseded)
                where = f"{who}, lane {lane}: accepted {owed}, delivered {(first, after - 1) if after else None}"
                if owed and after and first > owed[0]:
                    return f"never delivered, at the start: {where}"
                if owed and stayed and after <= owed[1]:
                    return f"never delivered, at the end: {where}"
                self.figures["records owed to a reader that stayed"] += owed[1] - owed[0] + 1 if owed and stayed else 0
        return None

    def compare(self):
        """Compares what was accepted with what was delivered, once everything owed has arrived."""
        wait_until(lambda: self.missing() is None, self.missing)
        self.owed = self.figures["records owed to a reader that stayed"]
        self.compare_deliveries()
        for subscriber in self.of_round(Subscriber):
            entries = [e for e in subscriber.entries() if e.ended]
            for entry in entries:
                took = entry.ended - entry.begun
                self.longest("open", took)
                check(took <= OPEN_BOUND, f"{subscriber.name}: an open took {took / 1e6:.0f} ms, "
                      f"{entry.waited / 1e6:.0f} ms of it without a processor")
            lost = subscriber.words[LOSSES] - subscriber.losses
            check(lost <= sum(e.resource == 1 for e in entries), f"{subscriber.name}: {lost} losses were reported")
            self.figures["losses of the process manager reported"] += lost
            subscriber.losses, subscriber.seen = subscriber.words[LOSSES], subscriber.words[OPENS]
        for publisher in self.of_round(Publisher):
            slowest, other = publisher.words[SLOWEST], publisher.words[OTHER_CODE]
            check(other == 0, f"{publisher.name}: a publish returned {other:#x}")
            self.longest("publish", slowest)
            check(slowest <= PUBLISH_BOUND, f"{publisher.name}: a publish took {slowest / 1e6:.0f} ms")
            publisher.seen = [publisher.accepted(lane) for lane in range(LANES)]

    def compare_deliveries(self):
        delivered = collections.defaultdict(list)
        for entry, who, publisher, superseded, _ in self.connections():
            check(entry.error in (0, 9, 32), f"{who}: reading failed with errno {entry.error}")
            self.figures["connections"] += 1
            lost_alive = entry.error == 32 and publisher is not None and publisher.died is None
            self.figures["superseded readers cut off"] += lost_alive
            check(not lost_alive or superseded != NEVER, f"{who}: the current reader was cut off")
            for lane, (first, after) in enumerate(entry.lanes):
                if not after:
                    continue
                check(publisher is not None, f"{who}: records of run {entry.run}, which is none of this round")
                limit = publisher.accepted(lane) + (publisher.died is not None)  # killed between acceptance and note
                check(after <= limit, f"{who}: record {after - 1} of lane {lane} was never accepted")
                check(first >= publisher.accepted(lane) or publisher.when(lane, first, ended=True) >= entry.begun,
                      f"{who}: record {first} of lane {lane} is older than the connection")
                delivered[(entry.run, lane)].append((first, after, who))
                self.figures["records checked"] += after - first
        for lane, ranges in delivered.items():
            ranges.sort()
            for (_, after, who), (first, _, other) in zip(ranges, ranges[1:]):
                check(first >= after, f"run and lane {lane}: record {first} was delivered twice: {who}; {other}")

    def discard_retired(self):
        for child in self.retired:
            if isinstance(child, Publisher):
                self.figures["records accepted"] += sum(map(child.accepted, range(LANES)))
                self.figures["refused: no block is free"] += child.words[NO_BLOCK]
                self.figures["refused: the reader was leaving"] += child.words[NOT_ENQUEUED]
                calls = child.words[HISTOGRAM:HISTOGRAM + BUCKETS]
                self.histogram = [a + b for a, b in zip(self.histogram, calls)]
            self.children.remove(child)
            child.process.stdin.close()
            child.process.stdout.close()
            child.log.unlink()
        self.retired = []

    def check_held(self, child):
        reference = self.reference[type(child)]
        kinds = list(reference)[:2 if self.options.no_memory_limits else 4]
        wait_until(lambda: all(child.held()[kind] == reference[kind] for kind in kinds),
                   lambda: f"{child.name} does not give back what it held: at first {reference}, now {child.held()}")

    def come_to_rest(self):
        for publisher in self.publishers:
            publisher.ask("pause")
        self.compare()
        for subscriber in self.subscribers:
            self.stop(subscriber)
        for publisher in self.publishers:
            wait_until(lambda: publisher.ask("readers") == "0", f"{publisher.name} still knows readers that have left")
            self.check_held(publisher)
        # One reader that reads nothing: a pool that has lost no block takes exactly as many records as it has blocks.
        reader = self.random.choice(self.subscribers)
        self.start_again(reader)
        reader.stop()
        for publisher in self.publishers:
            count = int(publisher.ask("fill"))
            check(count == POOL_BLOCKS, f"{publisher.name}: {count} blocks of the pool were free, not {POOL_BLOCKS}")
        reader.go_on()
        self.compare()
        self.stop(reader)
        for subscriber in self.subscribers:
            self.check_held(subscriber)
        self.discard_retired()

    # --- The run

    def start_up(self):
        for number in range(len(RESOURCES)):
            self.serve(number)
        self.subscribers = [Subscriber(self) for _ in range(SUBSCRIBERS)]
        self.reference[Publisher] = self.publishers[0].held()
        # What the first start makes for good, such as the fault-reporting thread, counts as held from the outset.
        for subscriber in self.subscribers:
            self.start_again(subscriber)
            self.stop(subscriber)
        self.reference[Subscriber] = self.subscribers[0].held()

    def one_round(self, faults):
        self.rounds, self.story = self.rounds + 1, []
        for child in self.children:
            os.truncate(child.log, 0)
        for subscriber in list(self.subscribers):
            if subscriber.words[OPENS] > ENTRIES_KEPT // 2:
                self.replace(subscriber, "quit")
        for child in self.random.sample(self.publishers + self.subscribers, len(RESOURCES) + SUBSCRIBERS):
            child.ask("go") if isinstance(child, Publisher) else self.start(child)
        for fault in faults:
            self.pause_between()
            self.story.append(named(fault))
            fault(self, self.random.choice(self.publishers), self.random.choice(self.subscribers))
            self.faults[fault] += 1
        self.pause_between()
        self.come_to_rest()

    def run(self, seconds):
        left_out = {not self.mounted and Soak.full_disk_of_the_runtime_directory,
                    self.options.no_memory_limits and Soak.no_memory_for_threads_of_a_subscriber}
        faults = [fault for fault in self.FAULTS if fault not in left_out]
        deadline = time.monotonic() + seconds
        self.start_up()
        while time.monotonic() < deadline:
            self.one_round(self.random.choices(faults, k=self.random.randint(4, 9)) if self.sabotage == "none" else [])
        for child in self.subscribers + self.publishers:
            self.retire(child, "quit")
        self.discard_retired()
        left = os.listdir(self.directory)
        check(not left, f"the runtime directory still holds {left}")
        slow = sum(self.histogram[int(math.log2(PUBLISH_P999_BOUND) * 4):])
        check(slow * 1000 <= sum(self.histogram), f"{slow} of {sum(self.histogram)} publishes took more than 50 ms")

    # --- The report

    def percentile(self, share):
        calls = list(itertools.accumulate(self.histogram))
        return 2 ** ((bisect.bisect_left(calls, calls[-1] * share) + 1) / 4)

    def table(self):
        for fault in self.FAULTS:
            yield named(fault), f"{self.faults[fault]:,}"
        for text in ("signals", "starts without memory that failed", "losses of the process manager reported",
                     "superseded readers cut off", "connections", "records accepted", "records checked",
                     "records owed to a reader that stayed",
                     "refused: no block is free", "refused: the reader was leaving"):
            yield text, f"{self.figures[text]:,}"
        for text in ("stop", "stop while reconnecting, without an open in progress", "open", "publish"):
            yield f"longest {text}", f"{self.figures[text] / 1e6:.2f} ms"
        for share in (0.5, 0.99, 0.999):
            yield f"publish, {share * 100:g} % of the calls below", f"{self.percentile(share) / 1e3:.1f} us"

    def report(self):
        if not self.mounted:
            print("skipped: full disk of the runtime directory (a tmpfs cannot be mounted here)")
        if self.options.no_memory_limits:
            print("skipped: no memory for threads of a subscriber; mappings are not counted")
        print(f"seed {self.options.seed}: {self.rounds} rounds")
        for text, figure in self.table():
            print(f"  {text:<62}{figure:>14}")

    def evidence(self, violation):
        lines = [f"VIOLATION: {violation}", f"seed {self.options.seed}, round {self.rounds}, faults of the round: "
                 f"{'; '.join(self.story) or 'none'}"]
        for child in self.children:
            log = child.log.read_text(errors="replace").splitlines()
            lines += [f"--- {child.name} (pid {child.pid}), last lines of its log:"] + log[-12:]
        return "\n".join(lines)

    def clean_up(self):
        for child in self.children:
            if child.process.poll() is None:
                child.process.kill()
                child.process.wait()
        if self.mounted:
            subprocess.run(["umount", self.directory], check=False)
        shutil.rmtree(self.work, ignore_errors=True)


def soak(options, seconds, sabotage="none"):
    """Returns the evidence of a violation, or None."""
    run, evidence = Soak(options, sabotage), None
    try:
        run.run(seconds)
    except (Violation, OSError) as violation:  # a process that is gone is one
        evidence = run.evidence(violation)
    finally:
        run.clean_up()
    if sabotage == "none":
        run.report()
    return evidence


# What each fault that a publisher puts in on purpose must be reported as.
SABOTAGES = {"lose": "expected sequence", "duplicate": "expected sequence", "swap": "expected sequence",
             "alter": "came altered", "mute": "never delivered", "stall": "a publish took",
             "leak": "does not give back", "hoard": "blocks of the pool were free"}


def self_check(options):
    global PATIENCE
    PATIENCE = 5  # of what is lost on purpose
    for sabotage, expected in SABOTAGES.items():
        evidence = soak(options, 30, sabotage) or "NOT FOUND"
        print(f"{sabotage}: {evidence.splitlines()[0]}", flush=True)
        if expected not in evidence.splitlines()[0]:
            return evidence
    return None


def main():
    parser = argparse.ArgumentParser(prog="soak", description="Faults at random moments between real processes.")
    parser.add_argument("programs", help=argparse.SUPPRESS)
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 32))
    parser.add_argument("--no-memory-limits", action="store_true", help="for programs built with a sanitizer")
    parser.add_argument("--self-check", action="store_true", help="puts faults in on purpose; each must be found")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    signal.signal(signal.SIGALRM, hangs)
    print(f"seed {options.seed}", flush=True)
    evidence = self_check(options) if options.self_check else soak(options, options.seconds)
    print(evidence or "no violation")
    sys.exit(1 if evidence else 0)


if __name__ == "__main__":
    main()
