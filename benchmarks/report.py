"""Turns the figures of a run into tables by class of distance, and into a picture."""
import datetime
import os
import pathlib
import platform
import statistics
import subprocess
import sys

from measuring import ALONE, ONE_PROCESSOR

PEERS = ["ring", "seqpacket", "pipe", "mq", "zeromq", "iceoryx", "sdbus"]
OTHERS = PEERS[1:]  # what a user would pick instead; road is compared with the best of them
WAKES = ["eventfd", "futex"]  # the floor of a latency is the better of the two
SIZES = [362, 3960]
READERS = [1, 8, 64, 256]
COPY = "Floor/lock_and_copy/362 ns"
CALL = "Floor/zero_copy_call/360 ns"
BUSY = "ReportEvent/host/busy_reader/readers:"
OBSERVED = "ReportEvent/host/busy_reader/observers:1"
FAST, PACED = f"road throughput {SIZES[0]} records_per_s", "road latency p50_us"
QUARTERS = ["1st quarter", "median", "3rd quarter"]
DOCS_BEGIN = "<!-- run: begin -->\n"
DOCS_END = "<!-- run: end -->\n"


class Figure:
    """What must reach a target: the values by round, of which the median is judged."""

    def __init__(self, label, values, at_least=None, at_most=None):
        self.label, self.values, self.at_least, self.at_most = label, list(values), at_least, at_most

    def cells(self, judge):
        if not self.values:
            return [self.label, "0", "", "", "", self.target(None)] if "not available" in self.label else None
        values = self.values if len(self.values) > 1 else self.values * 2
        quarters = statistics.quantiles(values, n=4, method="inclusive")
        return [self.label, str(len(self.values)), *(f"{value:.2f}" for value in quarters),
                self.target(quarters[1] if judge else None)]

    def target(self, median):
        bound = self.at_most if self.at_least is None else self.at_least
        if bound is None:
            return ""
        met = median is not None and (median <= bound if self.at_least is None else median >= bound)
        verdict = "" if median is None else " met" if met else " MISSED"
        return f"{'≤' if self.at_least is None else '≥'} {bound:g}{verdict}"


def spread(values, scale=1.0, digits=2):
    """The median, and the lowest and the highest in brackets."""
    values = [value * scale for value in values]
    if not values:
        return ""
    lowest, median, highest = (f"{value:,.{digits}f}" for value in (min(values), statistics.median(values), max(values)))
    return median if lowest == highest else f"{median} ({lowest}–{highest})"


class Kind:
    """The figures of one class of distance."""

    def __init__(self, series, kind):
        self.series, self.kind = series, kind

    def values(self, figure, scale=1.0, digits=2):
        return spread(self.series.of(figure, self.kind).values(), scale, digits)

    def ratios(self, above, below):
        return self.series.ratios(above, below, self.kind)

    def ratio(self, above, below):
        ratios = [] if above == below else self.ratios(above, below)
        return f"{statistics.median(ratios):.2f}" if ratios else ""

    def worst(self, label, figure, others, **target):
        """road beside the one of several others that it compares worst with: the best of them."""
        ratios = {name: self.ratios(figure("road"), figure(name)) for name in others
                  if figure(name) in self.series.values}
        known = {name: statistics.median(values) for name, values in ratios.items() if values}
        # Nothing is said when one that is available was never seen in this class: it may be the best.
        if not known or len(known) < len(ratios):
            return Figure(f"{label} {', '.join(others)}", [], **target)
        best = (min if "at_least" in target else max)(known, key=known.get)
        return Figure(f"{label} {', '.join(others)}: {best}", ratios[best], **target)


def transports(kind, names, columns):
    """A row for each transport; columns are the figure, scale, digits, and whether road is compared with it."""
    rows = []
    for name in names:
        cells = []
        for figure, scale, digits, compared in columns:
            cells.append(kind.values(f"{name} {figure}", scale, digits))
            if compared:
                cells.append(kind.ratio(f"road {figure}", f"{name} {figure}"))
        first = f"{name} {columns[0][0]}"
        if first not in kind.series.values:
            steady = not any(first.startswith(prefix) for prefix in kind.series.unsteady)
            cells[0] = "not available here" if steady else "never steady"
        if any(cells):
            rows.append([name, str(len(kind.series.of(first, kind.kind))), *cells])
    return rows


def throughput_table(kind):
    columns = [(f"throughput {SIZES[0]} records_per_s", 1e-6, 2, True),
               (f"throughput {SIZES[0]} cpu_s_per_million", 1, 3, True),
               (f"throughput {SIZES[1]} records_per_s", 1e-6, 2, True)]
    head = ["at full speed", "runs", "362 B: million/s", "road ÷", "CPU µs", "road ÷", "3960 B: million/s", "road ÷"]
    return table(head, transports(kind, ["road", *PEERS], columns))


def latency_table(kind):
    columns = [("latency p50_us", 1, 2, True), ("latency p99_us", 1, 2, False),
               ("latency cpu_s_per_million", 1, 2, True), ("latency same_processor", 100, 0, False)]
    head = ["at 2 kHz, 362 B", "runs", "p50 µs", "road ÷", "p99 µs", "CPU µs", "road ÷", "same processor %"]
    return table(head, transports(kind, ["road", *WAKES, *PEERS], columns))


def rows_table(kind):
    """The rows of publish and micro. What a floor is for a row, it is in every class."""
    rows = []
    for key in sorted(key for key in kind.series.values if key.endswith(" ns")):
        name = key.removesuffix(" ns")
        if kind.series.of(key, kind.kind) and not name.startswith("many "):
            floor = key if name.startswith("Floor") else CALL if name.startswith("DeSerialize") else COPY
            rows.append([name, kind.values(key), kind.ratio(key, floor), kind.values(f"{name} allocs", digits=0)])
    return table(["row", "ns", "÷ floor", "allocations"], rows)


def class_figures(kind):
    def throughput(name):
        return f"{name} throughput {SIZES[0]} records_per_s"

    def latency(name):
        return f"{name} latency p50_us"

    cpu = f"throughput {SIZES[0]} cpu_s_per_million"
    seen = kind.values(f"{OBSERVED} observed", 100, 0)
    observed = f"it saw {seen} % of the records" if seen else "not available here"
    figures = [
        Figure("throughput 362 B, road ÷ ring", kind.ratios(throughput("road"), throughput("ring")), at_least=0.5),
        kind.worst("throughput 362 B, road ÷ best of", throughput, OTHERS, at_least=4),
        Figure("throughput 362 B, road ÷ seqpacket", kind.ratios(throughput("road"), throughput("seqpacket")),
               at_least=5),
        Figure("CPU at full speed, road ÷ seqpacket", kind.ratios(f"road {cpu}", f"seqpacket {cpu}"), at_most=0.25),
        kind.worst("latency p50, road ÷ wake, the better of", latency, WAKES, at_most=1.5),
        Figure("latency p50, road ÷ seqpacket", kind.ratios(latency("road"), latency("seqpacket")), at_most=1),
        Figure("publish, busy reader ÷ lock and copy", kind.ratios(f"{BUSY}1 ns", COPY), at_most=6),
        Figure(f"publish, one observer ÷ without ({observed})", kind.ratios(f"{OBSERVED} ns", f"{BUSY}1 ns"), at_most=1.5),
        Figure("allocations per publish", kind.series.of(f"{BUSY}1 allocs", kind.kind).values(), at_most=0)]
    return figures + [
        Figure(f"publish, {readers} readers ÷ one",
               kind.ratios(f"many {BUSY}{readers} ns", f"many {BUSY}1 ns"), at_most=1.1) for readers in READERS[1:]]


def alone_figures(kind):
    raw = "DeSerializeDataAndCallback/raw_fault/filtered"
    fault = "DeSerializeDataAndCallback/fault/dids:0/filtered"

    def values(figure):
        return kind.series.of(figure, kind.kind).values()

    return [Figure("decoding a raw record ÷ zero, copy, call", kind.ratios(f"{raw} ns", CALL), at_most=3),
            Figure("allocations per raw record", values(f"{raw} allocs"), at_most=0),
            Figure("allocations per fault record without data", values(f"{fault} allocs"), at_most=0),
            Figure("Private_Dirty per subscribed file, KiB", values("memory private_dirty_kib_per_file"), at_most=64),
            Figure("the publisher's pool (3960 asked for), KiB", values("memory pool_kib"), at_most=3960)]


def machine():
    """The kind of machine, for whoever reads the figures elsewhere."""
    model = platform.machine()
    for line in pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8").splitlines():
        if line.startswith("model name"):
            model = line.split(":", 1)[1].strip()
            break
    return f"{os.cpu_count()} × {model}, Linux {platform.release().split('-')[0]}"


def table(columns, rows):
    """Nothing when there is no row."""
    lines = [f"| {' | '.join(row)} |\n" for row in rows if row is not None]
    head = f"| {' | '.join(columns)} |\n|---|{'--:|' * (len(columns) - 1)}\n"
    return head + "".join(lines) + "\n" if lines else ""


def figures_table(figures, judge):
    return table(["figure", "rounds", *QUARTERS, "target"], [figure.cells(judge) for figure in figures])


def heading(series, kind):
    if kind == ALONE:
        return "**alone**: one process, or nothing that a distance changes\n\n"
    readings = series.readings[kind]
    if kind == ONE_PROCESSOR:
        return f"**{kind}** for both sides ({len(readings) // 2} runs)\n\n"
    return (f"**{kind}**: a cache line goes to and fro in {min(readings):.0f} to {max(readings):.0f} ns "
            f"({len(readings) // 2} runs)\n\n")


def unsteady(series):
    lines = [f"- {prefix}, {seen}\n" for prefix, all_seen in series.unsteady.items() for seen in all_seen]
    return "**Never steady**, so in no table:\n\n" + "".join(lines) if lines else ""


def first_line(series, rounds):
    today = datetime.date.today().isoformat()
    return (f"{today}, {machine()}, RelWithDebInfo, {rounds} interleaved round{'s' if rounds > 1 else ''}; other work "
            f"took {series.others.share():.0%} of the processors meanwhile.\n\n")


def most_seen(series, figure):
    """The class in which most runs of this figure were; None when none was steady."""
    return max(series.kinds(), key=lambda kind: len(series.of(figure, kind)), default=None)


def class_report(series, each, judge):
    kind = Kind(series, each)
    text = heading(series, each) + figures_table(class_figures(kind), judge)
    return text + throughput_table(kind) + latency_table(kind)


def alone_report(series, judge):
    return heading(series, ALONE) + figures_table(alone_figures(Kind(series, ALONE)), judge)


def full_report(series, rounds, judge):
    text = first_line(series, rounds)
    for each in series.kinds():
        text += class_report(series, each, judge) + rows_table(Kind(series, each))
    return text + alone_report(series, judge) + rows_table(Kind(series, ALONE)) + unsteady(series)


def page_report(series, rounds):
    """What the page keeps of the full report: the class of most runs, without the rows of single programs."""
    kind = most_seen(series, FAST)
    tables = class_report(series, kind, judge=True) if kind else ""
    return first_line(series, rounds) + tables + alone_report(series, judge=True)


def against_table(kind, judge):
    """New ÷ old of the same round: what must become better, and what is shown beside it."""
    cases = [("throughput 362 B, million/s", "road throughput 362 records_per_s", 1e-6, {"at_least": 1.12}),
             ("throughput 3960 B, million/s", "road throughput 3960 records_per_s", 1e-6, {}),
             ("latency p50 at 2 kHz, µs", "road latency p50_us", 1, {"at_most": 0.8}),
             ("latency p99 at 2 kHz, µs", "road latency p99_us", 1, {}),
             ("CPU at 2 kHz, µs per record", "road latency cpu_s_per_million", 1, {"at_most": 0.9}),
             ("CPU at full speed 362 B, µs", "road throughput 362 cpu_s_per_million", 1, {}),
             ("CPU at full speed 3960 B, µs", "road throughput 3960 cpu_s_per_million", 1, {}),
             ("publish, busy reader, no observer, ns", f"{BUSY}1 ns", 1, {"at_most": 0.95}),
             ("publish, waiting reader, ns", "ReportEvent/host/waiting_reader ns", 1, {}),
             ("publish, no reader, ns", "ReportEvent/host/no_reader ns", 1, {})]
    rows = []
    for label, figure, scale, target in cases:
        cells = Figure(label, kind.ratios(figure, f"old {figure}"), **target).cells(judge)
        if cells is not None:
            rows.append([*cells, kind.values(figure, scale), kind.values(f"old {figure}", scale)])
    return table(["new ÷ old", "rounds", *QUARTERS, "target", "new", "old"], rows)


def against_report(series, rounds, commit, judge):
    text = first_line(series, rounds) + f"new: this tree; old: {commit}; new ÷ old of the same round.\n\n"
    for each in [*series.kinds(), ALONE]:
        kind = Kind(series, each)
        text += heading(series, each) + against_table(kind, judge)
    return text + unsteady(series)


def picture(path, throughput, latency, kinds):
    """What gnuplot draws from two blocks of names and figures."""
    return f"""
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
set xtics rotate by -30
set title 'Throughput, 362-byte records, {kinds[0]}'
set ylabel 'million records per second'
set yrange [0:*]
plot $throughput using 2:xtic(1) with boxes lc rgb '#3465a4' notitle
set title 'One-way latency at 2 kHz, {kinds[1]}'
set ylabel 'microseconds'
set logscale y
set yrange [1:*]
set style data histograms
set style histogram clustered gap 1
plot $latency using 2:xtic(1) lc rgb '#3465a4' title 'p50', '' using 3 lc rgb '#c4a000' title 'p99'
unset multiplot
"""


def draw(series, path):
    """Bars for throughput, p50 and p99 for latency: medians of the class that has seen most of road's runs."""

    def block(kind, names, figures, scale):
        lines = []
        for name in names:
            values = [series.of(figure.format(name), kind).values() for figure in figures]
            if all(values):
                lines.append(" ".join([name, *(f"{statistics.median(each) * scale:.4f}" for each in values)]))
        return "\n".join(lines)

    fast, paced = most_seen(series, FAST), most_seen(series, PACED)
    throughput = block(fast, ["road", *PEERS], [f"{{}} throughput {SIZES[0]} records_per_s"], 1e-6)
    latency = block(paced, ["road", *WAKES, *PEERS], ["{} latency p50_us", "{} latency p99_us"], 1)
    if not throughput or not latency:
        print("no picture: too few runs were steady", file=sys.stderr)
        return
    script = picture(path, throughput, latency, (fast, paced))
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def write_into_docs(text, path):
    """Puts the table between the two marks of the page."""
    page = path.read_text(encoding="utf-8")
    before, rest = page.split(DOCS_BEGIN, 1)
    after = rest.split(DOCS_END, 1)[1]
    path.write_text(before + DOCS_BEGIN + text + DOCS_END + after, encoding="utf-8")
