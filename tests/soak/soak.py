"""Real publishers and subscribers under faults at random moments.

Rounds: three publishers (one for each resource), three readers (each of all resources, so that the newest takes every
stream) and two observers run while faults hit them; then everything comes to rest, is settled and ends.
"""
import argparse
import collections
import os
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import time

from account import SECOND, Account
from faults import FAULTS, storm_of_sigpipe_at_read_threads
from processes import NEVER, NO_BLOCK, OK, RESOURCES, Observer, Publisher, Reader, Subscriber

RESULTS = {"start": {OK, 0xF10005}, "stop": {OK, 0xF10206}}  # some cannot be opened; none was subscribed to
PUBLISH_RESULTS = {OK, NO_BLOCK, 0xF1020B}  # the reader is leaving
STOP_BOUND, PUBLISH_BOUND, SLOW_PUBLISH = SECOND, SECOND, SECOND // 20
SUBSCRIBERS = [Reader, Reader, Reader, Observer, Observer]
POOL = 1000  # blocks
PATIENCE, DOUBT = 20, 2  # seconds for what must come, and once something is amiss or was put in on purpose
VIOLATIONS_TOLD = 12


class Round:
    """All processes of a round, those that have ended included, and what has come of it."""

    def __init__(self, options, chosen, figures, sabotage="none"):
        self.options, self.random, self.figures, self.sabotage = options, chosen, figures, sabotage
        self.directory = tempfile.TemporaryDirectory(prefix="soak-")
        # Memory that allocation and threads would keep would count as mappings that did not go away.
        self.environment = os.environ | {"IAM_RUNTIME_DIR": self.directory.name, "SLOG_LEVELS": "2,3,16",
                                         "MALLOC_ARENA_MAX": "1", "GLIBC_TUNABLES": "glibc.pthread.stack_cache_size=0"}
        self.children, self.story, self.violations = [], [], []

    def all_of(self, kind):
        return [child for child in self.children if isinstance(child, kind)]

    def alive(self, kind):
        return [child for child in self.all_of(kind) if child.died == NEVER]

    # --- What must hold

    def check(self, holds, text):
        if not holds:
            self.violations.append(text)

    def check_time(self, what, who, nanoseconds, bound):
        bound *= 2 if self.options.sanitizer else 1  # which makes everything slower; the promise is the product's
        longest = f"longest {what} in ms"
        self.figures[longest] = max(self.figures[longest], round(nanoseconds / 1e6, 2))
        self.check(nanoseconds <= bound, f"{who}: {what} took {nanoseconds / 1e6:.0f} ms")

    def wait_until(self, condition, text):
        deadline = time.monotonic() + (DOUBT if self.violations or self.sabotage != "none" else PATIENCE)
        while not condition():
            if time.monotonic() > deadline:
                return self.violations.append(text() if callable(text) else text)
            time.sleep(0.005)

    def until_pools_are_empty(self):
        for publisher in self.alive(Publisher):
            before = publisher.count(NO_BLOCK)
            self.wait_until(lambda: publisher.count(NO_BLOCK) > before, f"{publisher.name} never finds its pool empty")

    def until_stream_goes_on(self, publisher, reader):
        enough = reader.received(publisher.resource) + 2 * POOL
        self.wait_until(lambda: reader.received(publisher.resource) > enough,
                        f"{reader.name}, the newest reader of {publisher.name}, gets nothing any more")

    def until_observer_knows(self, observer, publisher, given):
        """Each record that readers were given has come, or it is told that it has lost it."""
        def known():
            return observer.received(publisher.resource), observer.ask(f"lost {publisher.resource}")
        self.wait_until(lambda: sum(known()) == given,
                        lambda: f"{observer.name}: came, lost: {known()} of {given} of {publisher.name}")
        self.figures["records that observers lost"] += known()[1]

    # --- What processes are made to do

    def serve(self, resource):
        publisher = Publisher(self, resource)
        result = publisher.answer()
        self.check(result == OK, f"{publisher.name} does not serve: {result:#x}")
        return publisher

    def tell(self, subscriber, command):
        subscriber.send(command)
        return self.finish(subscriber, command)

    def finish(self, subscriber, command, what="stop", bound=STOP_BOUND):
        """Whether the start or stop has come off for all files."""
        subscriber.started = command == "start"
        calls = subscriber.answer()
        for result, begun, ended in calls:
            self.check(result in RESULTS[command], f"{subscriber.name}: a {command} returned {result:#x}")
            if command == "stop":
                self.check_time(what, subscriber.name, ended - begun, bound)
        return all(result == OK for result, _, _ in calls)

    def start_again(self, subscriber):
        def started():
            self.tell(subscriber, "stop")
            return self.tell(subscriber, "start")
        self.wait_until(started, f"{subscriber.name} cannot open its files")

    def pause(self, longest=0.15):
        time.sleep(self.random.uniform(0, longest))

    # --- The round

    def start_up(self):
        publishers = [self.serve(resource) for resource in RESOURCES]
        subscribers = [kind(self) for kind in SUBSCRIBERS]
        # What the first start makes for good, such as the fault-reporting thread, counts as held from the outset.
        self.tell(subscribers[0], "start")
        self.tell(subscribers[0], "stop")
        self.held_at_first = {"publisher": publishers[0].held(), "subscriber": subscribers[0].held()}
        for child in self.random.sample(publishers + subscribers, len(publishers + subscribers)):
            child.ask("go") if isinstance(child, Publisher) else self.tell(child, "start")

    def settle(self):
        """When publishers are at rest, all that is owed comes; then everything must hold. Everybody leaves."""
        self.wait_until(lambda: not Account(self).missing(), lambda: Account(self).missing())
        Account(self).settle()
        for subscriber in self.alive(Subscriber):
            self.tell(subscriber, "stop")
        for publisher in self.alive(Publisher):
            self.wait_until(lambda: publisher.ask("readers") == 0, f"{publisher.name} still knows readers that have left")

    def check_pools(self):
        """A pool that has lost no block takes as many records as it has blocks for a reader that reads nothing. An
        observer that reads nothing holds none of them."""
        couple = reader, observer = self.random.choice(self.alive(Reader)), self.random.choice(self.alive(Observer))
        for subscriber in couple:
            self.start_again(subscriber)
            subscriber.stop_reading()
        before = {publisher: publisher.count(OK) for publisher in self.alive(Publisher)}
        for publisher in before:
            publisher.ask("go")
        self.until_pools_are_empty()
        for publisher in before:
            publisher.ask("pause")
            free = publisher.count(OK) - before[publisher]
            self.check(free == POOL, f"{publisher.name}: {free} of {POOL} blocks of the pool were free")
        for subscriber in couple:
            subscriber.read_on()
        for publisher in before:
            self.until_observer_knows(observer, publisher, POOL)

    def settle_publisher(self, publisher):
        unknown = publisher.look().results.keys() - PUBLISH_RESULTS
        self.check(not unknown, f"{publisher.name}: publishes returned {unknown}")
        self.check_time("publish", publisher.name, max(publisher.times, default=0), PUBLISH_BOUND)
        self.figures["publishes"] += len(publisher.times)
        self.figures["publishes above 50 ms"] += sum(time > SLOW_PUBLISH for time in publisher.times)
        self.figures["publishes refused: no block is free"] += publisher.results[NO_BLOCK]

    def come_to_rest(self):
        for publisher in self.alive(Publisher):
            publisher.ask("pause")
        self.settle()
        self.check_pools()
        self.settle()
        for child in self.alive(object):
            before = self.held_at_first[child.program]
            self.wait_until(lambda: child.held() == before, lambda: f"{child.name} does not give back what it held: "
                                                                    f"at first {before}, now {child.held()}")
        for child in self.alive(Subscriber) + self.alive(Publisher):
            child.end("quit")
        for publisher in self.all_of(Publisher):
            self.settle_publisher(publisher)
        self.figures["losses of the process manager reported"] += sum(each.losses for each in self.all_of(Subscriber))
        left = os.listdir(self.directory.name)
        self.check(not left, f"the runtime directory still holds {left}")

    def run(self, faults):
        """The violations."""
        try:
            self.start_up()
            for fault in faults:
                self.pause()
                self.story.append(fault.__name__.replace("_", " "))
                fault(self, self.random.choice(self.alive(Publisher)), self.random.choice(self.alive(Subscriber)))
            self.pause()
            self.come_to_rest()
        except (OSError, subprocess.TimeoutExpired) as violation:  # a process is gone or hangs
            self.violations.append(str(violation))
        finally:
            for child in self.children:
                child.process.kill()
                child.process.wait()
            self.directory.cleanup()
        self.figures.update(self.story + ["rounds"])
        return self.violations

    def tell_evidence(self):
        for violation in self.violations[:VIOLATIONS_TOLD]:
            print(f"VIOLATION: {violation}")
        print(f"{len(self.violations)} in all; faults of the round: {'; '.join(self.story) or 'none'}")
        for child in self.children:
            print(f"--- {child.name} (pid {child.pid}), last lines of its log:", *child.log_lines()[-30:], sep="\n")


# What each fault put in on purpose must be reported as: a platform that swallows records, publishers that alter them, are
# slow and keep descriptors, a platform that says that a living publisher has ended.
SABOTAGES = {"swallow": ["out of sequence", "never delivered", "blocks of the pool were free"],
             "careless": ["altered", "publish took", "does not give back"],
             "betray": ["lost its publisher, which lives", "losses of the process manager reported"]}


def self_check(options, chosen):
    """Whether all that was put in was found."""
    missed = []
    for sabotage, expected in SABOTAGES.items():
        found, deadline = {}, time.monotonic() + 30
        while len(found) < len(expected) and time.monotonic() < deadline:
            for violation in Round(options, chosen, collections.Counter(), sabotage).run([]):
                found |= {text: violation for text in expected if text in violation}
        for text in expected:
            print(f"{sabotage}: {found.get(text, 'NOT FOUND: ' + text)}")
        missed += expected - found.keys()
    return not missed


def soak(options, chosen):
    """Whether nothing was found."""
    # The signal would run its handler in the middle of the thread sanitizer's own code.
    faults = [fault for fault in FAULTS if (options.sanitizer, fault) != ("thread", storm_of_sigpipe_at_read_threads)]
    figures, violations = collections.Counter(), []
    deadline = time.monotonic() + options.seconds
    while time.monotonic() < deadline and not violations:
        last = Round(options, chosen, figures)
        violations = last.run(chosen.sample(faults, len(faults)))
    print(f"| seed {options.seed} | |\n|---|---:|")
    for text, figure in figures.items():
        print(f"| {text} | {figure:,} |")
    last.check(figures["publishes above 50 ms"] * 1000 <= figures["publishes"], "too many publishes above 50 ms")
    last.tell_evidence() if violations else print("no violation")
    return not violations


def main():
    parser = argparse.ArgumentParser(prog="soak", description="Faults at random moments between real processes.")
    parser.add_argument("programs", type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("--seconds", type=int, default=60, help="the last round is finished")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 32))
    parser.add_argument("--sanitizer", choices=["address", "thread"], help="with which the programs are built")
    parser.add_argument("--self-check", action="store_true", help="puts faults in on purpose; each must be found")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    print(f"seed {options.seed}", flush=True)
    run = self_check if options.self_check else soak
    sys.exit(0 if run(options, random.Random(options.seed)) else 1)


if __name__ == "__main__":
    main()
