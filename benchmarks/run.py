#!/usr/bin/env python3
"""Runs road, peers, publish and micro in interleaved rounds, prints one Markdown table, draws the bars.

Each round runs every program once, so that a machine that speeds up or slows down does so for all of them; a ratio is
taken within a round, and the median of the rounds stands in the table.
"""
import argparse
import datetime
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys

UNAVAILABLE = 77  # exit code of a peer that the machine does not offer
TIMEOUT_S = 300
PEERS = ["ring", "seqpacket", "pipe", "mq", "zeromq", "iceoryx", "sdbus"]
WAKES = ["eventfd", "futex"]  # the floors of a latency: no wake-up is cheaper than the better of the two
OTHERS = PEERS[1:]  # of which road is compared with the best
SIZES = [362, 3960]
READERS = [1, 8, 64, 256]
DOCS_BEGIN = "<!-- run: begin -->\n"
DOCS_END = "<!-- run: end -->\n"

# Records per throughput run, by size: about half a second each.
COUNTS = {
    "road": {362: 2000000, 3960: 200000},
    "ring": {362: 4000000, 3960: 1000000},
    "seqpacket": {362: 400000, 3960: 200000},
    "pipe": {362: 600000, 3960: 300000},
    "mq": {362: 300000, 3960: 200000},
    "zeromq": {362: 600000, 3960: 200000},
    "iceoryx": {362: 500000, 3960: 200000},
    "sdbus": {362: 150000, 3960: 100000},
}
LATENCY_COUNT = 4000
MICRO_REPETITIONS = 9
MEMORY_FILES = 8
QUICK_COUNT = 3000
QUICK_LATENCY_COUNT = 200
QUICK_MEMORY_FILES = 2


class Series:
    """The values of every figure, one per round: None where a peer is not available."""

    def __init__(self):
        self.values = {}

    def add(self, prefix, figures):
        for name, value in figures.items():
            self.values.setdefault(f"{prefix} {name}", []).append(value)

    def get(self, name):
        return self.values.get(name, [])

    def known(self, name):
        return [value for value in self.get(name) if value is not None]

    def derive(self, name, function, *names):
        """A figure made of others of the same round."""
        rounds = zip(*(self.get(each) for each in names))
        self.values[name] = [function([v for v in values if v is not None]) for values in rounds]

    def ratios(self, above, below):
        pairs = zip(self.get(above), self.get(below))
        return [a / b for a, b in pairs if a is not None and b]


def run_json(program, arguments, unavailable_figures=()):
    """The figures a program prints; None for each when it says that this machine does not offer the transport."""
    environment = {k: v for k, v in os.environ.items() if k not in ("ROAD_RATE_HZ", "SLOG_LEVELS", "SLOG_EVENT_FILE")}
    command = [str(program), *map(str, arguments)]
    done = subprocess.run(command, stdout=subprocess.PIPE, env=environment, timeout=TIMEOUT_S, check=False)
    if done.returncode == UNAVAILABLE and unavailable_figures:
        return dict.fromkeys(unavailable_figures)
    if done.returncode != 0:
        sys.exit(f"failed with {done.returncode}: {' '.join(command)}")
    return json.loads(done.stdout)


def command_of(programs, name, *arguments):
    if name == "road":
        return programs / "road", list(arguments)
    return programs / "peers", [name, *arguments]


def run_rows(program, quick):
    """The figures of every row, from repetitions that are mixed: rows that are compared have seen the same machine."""
    options = ["--benchmark_format=json", f"--benchmark_min_time={0.01 if quick else 0.05}",
               f"--benchmark_repetitions={1 if quick else MICRO_REPETITIONS}",
               "--benchmark_enable_random_interleaving=true"]
    rows = {}
    for row in run_json(program, options)["benchmarks"]:
        if row.get("error_occurred"):
            sys.exit(f"{program.name}: {row['name']}: {row['error_message']}")
        if row["run_type"] == "iteration":
            name = row["run_name"].removesuffix("/manual_time").split("/iterations:")[0]
            figures = rows.setdefault(name, {"ns": [], "allocs": []})
            figures["ns"].append(row["real_time"])
            figures["allocs"].append(row["allocs"])
    return rows


def run_round(programs, series, quick):
    for size in SIZES:
        for name in ["road", *PEERS]:
            count = QUICK_COUNT if quick else COUNTS[name][size]
            figures = run_json(*command_of(programs, name, "throughput", size, count),
                               ["records_per_s", "cpu_s_per_million"])
            series.add(f"{name} {size}", figures)
    for name in ["road", *WAKES, *PEERS]:
        count = QUICK_LATENCY_COUNT if quick else LATENCY_COUNT
        figures = run_json(*command_of(programs, name, "latency", SIZES[0], count), ["p50_us", "p99_us"])
        series.add(name, figures)
    series.add("memory", run_json(programs / "road", ["memory", QUICK_MEMORY_FILES if quick else MEMORY_FILES]))
    for program in ("micro", "publish"):
        for name, figures in run_rows(programs / program, quick).items():
            series.add(name, {figure: statistics.median(values) for figure, values in figures.items()})


class Line:
    """One line of the table: a figure, what it is compared with, what that ratio must reach."""

    def __init__(self, label, figure, ratio=None, at_least=None, at_most=None, scale=1.0, digits=2):
        self.label, self.figure, self.ratio = label, figure, ratio
        self.at_least, self.at_most = at_least, at_most
        self.scale, self.digits = scale, digits

    def cells(self, series, judge):
        values = [value * self.scale for value in series.known(self.figure)]
        if not values:
            return [self.label, "not available here", "", "", "", ""]
        spread = [min(values), statistics.median(values), max(values)]
        text, verdict = self.comparison(series, spread[1])
        return [self.label, *(f"{value:,.{self.digits}f}" for value in spread), text, verdict if judge else ""]

    def comparison(self, series, median):
        ratio = None
        if self.ratio is not None:
            ratios = series.ratios(*self.ratio)
            ratio = statistics.median(ratios) if ratios else None
        judged = median if self.ratio is None else ratio
        text = "" if ratio is None else f"{ratio:.2f}"
        if judged is None or (self.at_least is None and self.at_most is None):
            return [text, ""]
        if self.at_least is not None:
            return [text, f"≥ {self.at_least:g} {'met' if judged >= self.at_least else 'MISSED'}"]
        return [text, f"≤ {self.at_most:g} {'met' if judged <= self.at_most else 'MISSED'}"]


def throughput_lines(size, targets):
    figure = f"{size} records_per_s"
    lines = [Line(f"throughput {size} B: road, million/s", f"road {figure}", scale=1e-6)]
    for name in PEERS:
        lines.append(Line(f"throughput {size} B: {name}, million/s; road ÷ it", f"{name} {figure}",
                          (f"road {figure}", f"{name} {figure}"), targets.get(name), scale=1e-6))
    lines.append(Line(f"throughput {size} B: best of {', '.join(OTHERS)}, million/s; road ÷ it", f"best {figure}",
                      (f"road {figure}", f"best {figure}"), targets.get("best"), scale=1e-6))
    return lines


def cpu_lines():
    figure = f"{SIZES[0]} cpu_s_per_million"
    lines = [Line(f"CPU {SIZES[0]} B: road, s per million", f"road {figure}", digits=3)]
    for name in PEERS:
        lines.append(Line(f"CPU {SIZES[0]} B: {name}, s per million; road ÷ it", f"{name} {figure}",
                          (f"road {figure}", f"{name} {figure}"),
                          at_most=0.25 if name == "seqpacket" else None, digits=3))
    return lines


def latency_lines():
    targets = {"seqpacket": 1.0}
    lines = [Line("latency at 2 kHz: road p50, µs", "road p50_us")]
    for name in [*WAKES, *PEERS]:
        lines.append(Line(f"latency at 2 kHz: {name} p50, µs; road ÷ it", f"{name} p50_us",
                          ("road p50_us", f"{name} p50_us"), at_most=targets.get(name)))
    return lines + [Line(f"latency at 2 kHz: {name} p99, µs", f"{name} p99_us") for name in ["road", *WAKES, *PEERS]]


def micro_lines(series):
    copy = "Floor/lock_and_copy/362 ns"
    call = "Floor/zero_copy_call/360 ns"
    targets = {"ReportEvent/host/busy_reader/readers:1": 6, "DeSerializeDataAndCallback/raw_fault/filtered": 3}
    lines = [Line("floor: lock and copy of 362 B, ns", copy), Line("floor: zero, copy, call of 360 B, ns", call)]
    for name in sorted(key.removesuffix(" ns") for key in series.values if key.endswith(" ns")):
        if name.startswith("Floor/") or "readers:" in name and not name.endswith("readers:1"):
            continue
        floor = call if name.startswith("DeSerialize") else copy
        allocations = statistics.median(series.known(f"{name} allocs"))
        lines.append(Line(f"{name}, ns ({allocations:g} allocations); ÷ its floor", f"{name} ns",
                          (f"{name} ns", floor), at_most=targets.get(name)))
    for name in ("raw_fault/filtered", "fault/dids:0/filtered"):
        lines.append(Line(f"heap allocations of DeSerializeDataAndCallback/{name}",
                          f"DeSerializeDataAndCallback/{name} allocs", at_most=0))
    row = "ReportEvent/host/busy_reader/readers:"
    for readers in READERS:
        lines.append(Line(f"publish with {readers} readers connected, ns; ÷ with one", f"{row}{readers} ns",
                          (f"{row}{readers} ns", f"{row}{READERS[0]} ns"), at_most=1.1 if readers > 1 else None))
    return lines


def memory_lines():
    return [
        Line("memory: Private_Dirty per subscribed file, KiB", "memory private_dirty_kib_per_file", at_most=64),
        Line("memory: the publisher's pool (3960 asked for), KiB", "memory pool_kib", at_most=3960, digits=0),
    ]


def all_lines(series):
    for size in SIZES:
        figure = f"{size} records_per_s"
        series.derive(f"best {figure}", lambda values: max(values, default=None),
                      *(f"{name} {figure}" for name in OTHERS))
    return (throughput_lines(SIZES[0], {"ring": 0.5, "seqpacket": 5, "best": 4}) + cpu_lines() + latency_lines() +
            throughput_lines(SIZES[1], {}) + micro_lines(series) + memory_lines())


def machine():
    """The kind of machine, for whoever reads the figures elsewhere."""
    model = platform.machine()
    for line in pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
        if line.startswith("model name"):
            model = line.split(":", 1)[1].strip()
            break
    return f"{os.cpu_count()} × {model}, Linux {platform.release().split('-')[0]}"


def table(series, rounds, judge):
    rows = [line.cells(series, judge) for line in all_lines(series)]
    today = datetime.date.today().isoformat()
    head = f"{today}, {machine()}, RelWithDebInfo, {rounds} interleaved round{'s' if rounds > 1 else ''}.\n\n"
    head += "| measure | min | median | max | ratio | target |\n|---|--:|--:|--:|--:|---|\n"
    return head + "".join(f"| {' | '.join(row)} |\n" for row in rows)


def draw(series, path):
    """Bars for throughput, p50 and p99 for latency: medians over the rounds."""

    def block(names, figures, scale):
        lines = []
        for name in names:
            values = [series.known(figure.format(name)) for figure in figures]
            if all(values):
                lines.append(" ".join([name, *(f"{statistics.median(each) * scale:.4f}" for each in values)]))
        return "\n".join(lines)

    throughput = block(["road", *PEERS], ["{} 362 records_per_s"], 1e-6)
    latency = block(["road", *WAKES, *PEERS], ["{} p50_us", "{} p99_us"], 1)
    script = f"""
set terminal svg size 1000,380 font 'sans,12' background '#ffffff'
set output '{path}'
$throughput << EOD
{throughput}
EOD
$latency << EOD
{latency}
EOD
set multiplot layout 1,2
set style fill solid 0.85 border
set boxwidth 0.7
set grid ytics
set title 'Throughput, 362-byte records'
set ylabel 'million records per second'
set yrange [0:*]
plot $throughput using 2:xtic(1) with boxes lc rgb '#3465a4' notitle
set title 'One-way latency at 2 kHz'
set ylabel 'microseconds'
set logscale y
set yrange [1:*]
set style data histograms
set style histogram clustered gap 1
plot $latency using 2:xtic(1) lc rgb '#3465a4' title 'p50', '' using 3 lc rgb '#c4a000' title 'p99'
unset multiplot
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def write_into_docs(text, path):
    """Puts the table between the two marks of the page."""
    page = path.read_text(encoding="utf-8")
    before, rest = page.split(DOCS_BEGIN, 1)
    after = rest.split(DOCS_END, 1)[1]
    path.write_text(before + DOCS_BEGIN + text + DOCS_END + after, encoding="utf-8")


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    parser.add_argument("programs", type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("--quick", action="store_true", help="run everything once and briefly; figures mean nothing")
    parser.add_argument("--rounds", type=int, default=5, help="how many rounds (default: 5)")
    parser.add_argument("--update-docs", action="store_true", help="put the table into docs/performance.md")
    options = parser.parse_args()
    if options.rounds < 1 or options.quick and options.update_docs:
        parser.error("at least one round is needed, and a quick run does not belong in the documentation")

    rounds = 1 if options.quick else options.rounds
    series = Series()
    for number in range(1, rounds + 1):
        print(f"round {number} of {rounds}", file=sys.stderr, flush=True)
        run_round(options.programs, series, options.quick)
    text = table(series, rounds, judge=not options.quick)
    print(text)
    docs = pathlib.Path(__file__).resolve().parent.parent / "docs"
    draw(series, options.programs / "performance.svg" if options.quick else docs / "performance.svg")
    if options.update_docs:
        write_into_docs(text, docs / "performance.md")


if __name__ == "__main__":
    main()
