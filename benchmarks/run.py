#!/usr/bin/env python3
"""Runs road, peers, publish and micro in interleaved rounds, prints Markdown tables by class of distance, draws the bars.

Each round runs every program once, so that a machine that speeds up or slows down does so for all of them; a ratio is
taken within a round, and the median of the rounds stands in the table.
"""
import argparse
import pathlib
import statistics
import subprocess
import sys

import measuring
import report
from measuring import Run

# Records per throughput run, by size: about half a second each.
COUNTS = {
    "road": {362: 2000000, 3960: 200000},
    "ring": {362: 4000000, 3960: 1000000},
    "seqpacket": {362: 400000, 3960: 200000},
    "pipe": {362: 600000, 3960: 300000},
    "mq": {362: 300000, 3960: 200000},
    "zeromq": {362: 600000, 3960: 200000},
    "iceoryx": {362: 500000, 3960: 300000},
    "sdbus": {362: 150000, 3960: 100000},
}
LATENCY_COUNT = 4000
MEMORY_FILES = 8
REPETITIONS = 3
ROW_SECONDS = 0.05
QUICK_COUNT = 3000
QUICK_LATENCY_COUNT = 200
QUICK_MEMORY_FILES = 2
QUICK_ROW_SECONDS = 0.01


ROOT = pathlib.Path(__file__).resolve().parent.parent


class Plan:
    """The runs of a round, of the programs of one tree."""

    def __init__(self, programs, quick, prefix=""):
        self.programs, self.quick, self.prefix = programs, quick, prefix

    def throughput(self, name, size):
        count = QUICK_COUNT if self.quick else COUNTS[name][size]
        return Run(f"{self.prefix}{name} throughput {size}", [*self.program(name), "throughput", size, count])

    def latency(self, name):
        count = QUICK_LATENCY_COUNT if self.quick else LATENCY_COUNT
        return Run(f"{self.prefix}{name} latency", [*self.program(name), "latency", report.SIZES[0], count])

    def program(self, name):
        return [self.programs / "road"] if name == "road" else [self.programs / "peers", name]

    def memory(self):
        files = QUICK_MEMORY_FILES if self.quick else MEMORY_FILES
        return Run("memory", [self.programs / "road", "memory", files], alone=True)

    def rows(self, program, pattern=".", prefix="", alone=False):
        """Rows of repetitions that are mixed: rows that are compared have seen the same machine."""
        seconds, repetitions = (QUICK_ROW_SECONDS, 1) if self.quick else (ROW_SECONDS, REPETITIONS)
        return Run(self.prefix + prefix, [self.programs / program, "--benchmark_format=json", f"--benchmark_filter={pattern}",
                            f"--benchmark_min_time={seconds}", f"--benchmark_repetitions={repetitions}",
                            "--benchmark_enable_random_interleaving=true"], read_rows, alone)

    def all_runs(self):
        runs = [self.throughput(name, size) for size in report.SIZES for name in ["road", *report.PEERS]]
        runs += [self.latency(name) for name in ["road", *report.WAKES, *report.PEERS]]
        return runs + [
            self.rows("publish", "readers:1/|observers:|waiting_reader"),
            self.rows("publish", "readers:", prefix="many"),
            self.rows("publish", "Floor|no_reader|IAMFastRead", alone=True),
            self.rows("micro", alone=True),
            self.memory(),
        ]

    def compared_runs(self):
        return [
            *(self.throughput("road", size) for size in report.SIZES),
            self.latency("road"),
            self.rows("publish", "busy_reader/readers:1/|waiting_reader"),
            self.rows("publish", "no_reader", alone=True),
        ]


def all_rounds(measure, programs, rounds, quick):
    for number in started(rounds):
        for run in Plan(programs, quick).all_runs():
            measure.run(number, run)


def compared_rounds(measure, new, old, rounds, quick):
    """Each run of one tree right beside the same of the other; which of them goes first changes with the round."""
    for number in started(rounds):
        for pair in zip(Plan(new, quick).compared_runs(), Plan(old, quick, "old ").compared_runs()):
            for run in pair if number % 2 else reversed(pair):
                measure.run(number, run)


def started(rounds):
    for number in range(1, rounds + 1):
        print(f"round {number} of {rounds}", file=sys.stderr, flush=True)
        yield number


def read_rows(printed):
    """The median of each row's repetitions, for each of its figures."""
    values = {}
    for row in printed["benchmarks"]:
        if row.get("error_occurred"):
            sys.exit(f"{row['name']}: {row['error_message']}")
        if row["run_type"] == "iteration":
            name = row["run_name"].removesuffix("/manual_time").split("/iterations:")[0]
            for figure, key in {"ns": "real_time", "allocs": "allocs", "observed": "observed"}.items():
                if key in row:
                    values.setdefault(f"{name} {figure}", []).append(row[key])
    return {figure: statistics.median(seen) for figure, seen in values.items()}


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__, allow_abbrev=False)
    parser.add_argument("--quick", action="store_true", help="run everything once and briefly; figures mean nothing")
    parser.add_argument("--rounds", type=int, help="how many rounds (default: 5, or 15 against another commit)")
    parser.add_argument("--against", metavar="COMMIT", help="build that commit of the project too, with this tree's "
                        "benchmarks, and measure road and publish of both trees alone: prints new ÷ old")
    parser.add_argument("--update-docs", action="store_true", help="put the tables and the picture into docs/")
    options = parser.parse_args()
    if options.rounds is None:
        options.rounds = 15 if options.against else 5
    if options.rounds < 1:
        parser.error("at least one round is needed")
    if options.update_docs and (options.quick or options.against):
        parser.error("neither a quick run nor one against another commit belongs into the documentation")
    if options.against:
        commit = subprocess.run(["git", "rev-parse", "--verify", "--quiet", options.against + "^{commit}"], cwd=ROOT,
                                stdout=subprocess.PIPE, text=True, check=False)
        if commit.returncode != 0:
            parser.error(f"there is no commit '{options.against}' here")
        options.against = commit.stdout.strip()[:12]
    options.rounds = 1 if options.quick else options.rounds
    return options


def build(commit=None):
    """Builds this tree, or with a commit that one's, and returns where its programs are."""
    if subprocess.run(["scripts/bench", "--build", *([commit] if commit else [])], cwd=ROOT, check=False).returncode:
        sys.exit("scripts/bench: the build failed")
    return ROOT / (f"build/against/{commit}/build" if commit else "build/bench") / "benchmarks"


def main():
    options = parse_options()
    programs = build()
    old_programs = build(options.against) if options.against else None
    series = measuring.Series()
    measure = measuring.Measuring(programs, series)
    if options.against:
        compared_rounds(measure, programs, old_programs, options.rounds, options.quick)
        print(report.against_report(series, options.rounds, options.against, judge=not options.quick))
        return
    all_rounds(measure, programs, options.rounds, options.quick)
    print(report.full_report(series, options.rounds, judge=not options.quick))
    report.draw(series, (ROOT / "docs" if options.update_docs else programs) / "performance.svg")
    if options.update_docs:
        report.write_into_docs(report.page_report(series, options.rounds), ROOT / "docs" / "performance.md")


if __name__ == "__main__":
    main()
