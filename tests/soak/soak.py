"""Real publishers and subscribers under faults at random moments.

Rounds: three publishers (one for each resource), three readers (each of all resources, so that the newest takes every
stream) and two observers run while faults hit them; then everything comes to rest and is settled.
"""
import argparse
import collections
import os
import pathlib
import random
import shutil
import signal
import sys
import tempfile
import time

from account import SECOND, Account
from faults import FAULTS, storm_of_sigpipe_at_read_threads
from processes import RESOURCES, Gone, Publisher, Subscriber, hangs

OPEN_FAILED, BAD_NAME = 0xF10005, 0xF10206
STOP_BOUND, RECONNECTING_STOP_BOUND = SECOND, 0.3 * SECOND
READERS, OBSERVERS = 3, 2
PATIENCE, SELF_CHECK_PATIENCE = 20, 2  # seconds for what must come, for what is kept back on purpose
VIOLATIONS_TOLD = 12


def named(fault):
    return fault.__name__.replace("_", " ")


class Soak:
    def __init__(self, options, sabotage="none", expected=()):
        self.options, self.programs = options, options.programs.resolve()
        self.sabotage, self.expected = sabotage, expected
        self.patience = PATIENCE if sabotage == "none" else SELF_CHECK_PATIENCE
        self.random = random.Random(options.seed)
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="soak-"))
        self.directory = self.work / "iam"
        self.directory.mkdir(mode=0o700)
        # Memory that allocation and threads would keep would count as mappings that did not go away.
        self.environment = dict(os.environ, IAM_RUNTIME_DIR=str(self.directory), SLOG_LEVELS="2,3,16",
                                MALLOC_ARENA_MAX="1", GLIBC_TUNABLES="glibc.pthread.stack_cache_size=0")
        self.processes, self.children, self.retired, self.subscribers = 0, [], [], []
        self.publishers, self.reference = [None] * len(RESOURCES), {}
        self.rounds, self.story, self.violations = 0, [], []
        self.figures, self.slowest = collections.Counter({named(fault): 0 for fault in FAULTS}), collections.Counter()

    # --- What must hold

    def check(self, holds, text):
        if not holds:
            self.violations.append(text)

    def wait_until(self, condition, text):
        deadline = time.monotonic() + self.patience
        while not condition():
            if time.monotonic() > deadline:
                return self.violations.append(text() if callable(text) else text)
            time.sleep(0.005)

    def until_pool_is_empty(self, publisher):
        before = publisher.board.noBlock
        self.wait_until(lambda: publisher.board.noBlock > before, f"{publisher.name} never finds its pool empty")

    def until_stream_goes_on(self, publisher, reader):
        enough = reader.received(publisher.resource) + 2 * publisher.board.poolBlocks
        self.wait_until(lambda: reader.received(publisher.resource) > enough,
                        f"{reader.name}, the newest reader of {publisher.name}, gets nothing any more")

    def until_observer_knows(self, observer, publisher, given):
        """Each record that readers were given has come, or it is told that it has lost it."""
        def known():
            return observer.received(publisher.resource), observer.ask("lost")[publisher.resource]
        self.wait_until(lambda: sum(known()) == given,
                        lambda: f"{observer.name}: came, lost: {known()} of {given} of {publisher.name}")
        self.figures["records that observers lost"] += known()[1]

    def check_time(self, what, who, nanoseconds, bound):
        bound *= 2 if self.options.sanitizer else 1  # which makes everything slower; the promise is the product's
        self.slowest[what] = max(self.slowest[what], nanoseconds)
        self.check(nanoseconds <= bound, f"{who}: {what} took {nanoseconds / 1e6:.0f} ms")

    # --- Processes

    def of_round(self, kind):
        return [child for child in self.retired + self.publishers + self.subscribers if isinstance(child, kind)]

    def readers(self):
        return [subscriber for subscriber in self.subscribers if not subscriber.observes]

    def observers(self):
        return [subscriber for subscriber in self.subscribers if subscriber.observes]

    def serve(self, number):
        publisher = self.publishers[number] = Publisher(self, number)
        result = publisher.answer()
        self.check(result == 0, f"{publisher.name} does not serve: {result:#x}")
        return publisher

    def retire(self, child, how):
        """Ends a process. What it has done this round is compared with the rest of the round."""
        child.end(how)
        self.retired.append(child)

    def restart(self, number, how):
        self.retire(self.publishers[number], how)
        self.pause_between()
        self.serve(number).ask("go")

    def replace(self, subscriber, how):
        self.retire(subscriber, how)
        newer = self.subscribers[self.subscribers.index(subscriber)] = Subscriber(self, subscriber.observes)
        return newer

    def start(self, subscriber):
        subscriber.send("start")
        return self.finish_start(subscriber)

    def finish_start(self, subscriber):
        """Whether both families are subscribed."""
        subscriber.started = True
        results = {result for result, _, _ in subscriber.answer()}
        self.check(results <= {0, OPEN_FAILED}, f"{subscriber.name}: a start returned {results}")
        return results == {0}

    def finish_stop(self, subscriber, reconnecting=False):
        what, bound = ("stop while reconnecting", RECONNECTING_STOP_BOUND) if reconnecting else ("stop", STOP_BOUND)
        for result, begun, ended in subscriber.answer():
            self.check(result in (0, BAD_NAME), f"{subscriber.name}: a stop returned {result:#x}")
            self.check_time(what, subscriber.name, ended - begun, bound)
        subscriber.started = False

    def stop(self, subscriber, **how):
        subscriber.send("stop")
        self.finish_stop(subscriber, **how)

    def start_again(self, subscriber):
        self.stop(subscriber)
        self.wait_until(lambda: self.start(subscriber) or self.stop(subscriber),
                        f"{subscriber.name} cannot open its files")

    def chance(self, share):
        return self.random.random() < share

    def pause_between(self):
        time.sleep(self.random.uniform(0, 0.15))

    def a_moment(self):
        time.sleep(self.random.uniform(0, 0.002))

    # --- A round

    def settle(self):
        self.wait_until(lambda: not Account(self).missing(), lambda: Account(self).missing())
        Account(self).settle()

    def check_held(self, child):
        before = self.reference[child.kind]
        self.wait_until(lambda: child.held() == before,
                        lambda: f"{child.name} does not give back what it held: at first {before}, now {child.held()}")

    def check_pools(self):
        """A pool that has lost no block takes as many records as it has blocks for a reader that reads nothing. An
        observer that reads nothing holds none of them."""
        couple = self.random.choice(self.observers()), self.random.choice(self.readers())
        for subscriber in couple:
            self.start_again(subscriber)
            subscriber.stall(asleep=True)
        for publisher in self.publishers:
            readers, free, blocks = publisher.ask("readers"), publisher.ask("fill"), publisher.board.poolBlocks
            self.check(readers == 1, f"{publisher.name}: {readers} readers, not 1 beside an observer")
            self.check(free == blocks, f"{publisher.name}: {free} of {blocks} blocks of the pool were free")
        for subscriber in couple:
            subscriber.go_on()
        for publisher in self.publishers:
            self.until_observer_knows(couple[0], publisher, publisher.board.poolBlocks)
        self.settle()
        for subscriber in couple:
            self.stop(subscriber)

    def come_to_rest(self):
        for publisher in self.publishers:
            publisher.ask("pause")
        self.settle()
        for subscriber in self.subscribers:
            self.stop(subscriber)
        for publisher in self.publishers:
            self.wait_until(lambda: publisher.ask("readers") == 0, f"{publisher.name} still knows readers that have left")
            self.check_held(publisher)
        self.check_pools()
        for subscriber in self.subscribers:
            self.check_held(subscriber)
        if not self.violations:
            self.discard_retired()

    def discard_retired(self):
        for child in self.retired:
            if isinstance(child, Publisher):
                for text, name in (("publishes", "calls"), ("publishes above 50 ms", "slowCalls"),
                                   ("publishes refused: no block is free", "noBlock")):
                    self.figures[text] += getattr(child.board, name)
            self.children.remove(child)
        self.retired = []

    def one_round(self, faults):
        self.rounds, self.story = self.rounds + 1, []
        for child in self.children:
            os.truncate(child.log, 0)
        everyone = self.publishers + self.subscribers
        for child in self.random.sample(everyone, len(everyone)):
            child.ask("go") if isinstance(child, Publisher) else self.start(child)
        for fault in faults:
            self.pause_between()
            self.story.append(named(fault))
            self.figures[named(fault)] += 1
            fault(self, self.random.choice(self.publishers), self.random.choice(self.subscribers))
        self.pause_between()
        self.come_to_rest()

    # --- The run

    def start_up(self):
        for number in range(len(self.publishers)):
            self.serve(number)
        self.reference["publisher"] = self.publishers[0].held()
        # What the first start makes for good, such as the fault-reporting thread, counts as held from the outset.
        self.subscribers = [Subscriber(self, observes=number >= READERS) for number in range(READERS + OBSERVERS)]
        for subscriber in self.subscribers:
            self.start_again(subscriber)
            self.stop(subscriber)
        self.reference["subscriber"] = self.subscribers[0].held()

    def found_expected(self):
        return self.violations and all(any(text in found for found in self.violations) for text in self.expected)

    def run(self, seconds):
        deadline = time.monotonic() + seconds
        faults = FAULTS if self.sabotage == "none" else []
        if self.options.sanitizer == "thread":  # it would run the signal's handler in the middle of its own code
            faults = [fault for fault in faults if fault is not storm_of_sigpipe_at_read_threads]
        self.start_up()
        while time.monotonic() < deadline and not self.found_expected():
            self.one_round(self.random.sample(faults, len(faults)))
        if not self.violations:
            for child in self.subscribers + self.publishers:
                self.retire(child, "quit")
            self.discard_retired()
            left = os.listdir(self.directory)
            self.check(not left, f"the runtime directory still holds {left}")
            slow, calls = self.figures["publishes above 50 ms"], self.figures["publishes"]
            self.check(slow * 1000 <= calls, f"{slow} of {calls} publishes took more than 50 ms")

    def go(self, seconds):
        """The evidence of violations, or None."""
        try:
            self.run(seconds)
        except (Gone, OSError) as violation:  # a process that is gone is one
            self.violations.append(str(violation))
        finally:
            signal.alarm(0)
            evidence = self.evidence() if self.violations else None
            self.clean_up()
        return evidence

    def report(self):
        print(f"| seed {self.options.seed} | {self.rounds} rounds |\n|---|---:|")
        for text, figure in self.figures.items():
            print(f"| {text} | {figure:,} |")
        for text, nanoseconds in self.slowest.items():
            print(f"| longest {text} | {nanoseconds / 1e6:.2f} ms |")

    def evidence(self):
        told = self.violations[:VIOLATIONS_TOLD]
        lines = [f"VIOLATION: {violation}" for violation in told]
        lines += [f"and {len(self.violations) - len(told)} more; seed {self.options.seed}, round {self.rounds}, "
                  f"faults of the round: {'; '.join(self.story) or 'none'}"]
        for child in self.children:
            log = child.log.read_text(errors="replace").splitlines()
            lines += [f"--- {child.name} (pid {child.pid}), last lines of its log:"] + log[-30:]
        return "\n".join(lines)

    def clean_up(self):
        for child in self.children:
            if child.process.poll() is None:
                child.process.kill()
                child.process.wait()
        shutil.rmtree(self.work, ignore_errors=True)


# What each fault put in on purpose must be reported as: a platform that swallows records, publishers that alter them, are
# slow and keep descriptors, a platform that says that a living publisher has ended.
SABOTAGES = {"swallow": ["out of sequence", "never delivered", "blocks of the pool were free"],
             "careless": ["came altered", "publish took", "does not give back"],
             "betray": ["lost its publisher, which lives", "losses of the process manager reported"]}


def self_check(options):
    for sabotage, expected in SABOTAGES.items():
        soak = Soak(options, sabotage, expected)
        evidence = soak.go(30)
        for text in expected:
            print(f"{sabotage}: {next((found for found in soak.violations if text in found), 'NOT FOUND: ' + text)}")
        if not soak.found_expected():
            return evidence or "nothing was found"
    return None


def main():
    parser = argparse.ArgumentParser(prog="soak", description="Faults at random moments between real processes.")
    parser.add_argument("programs", type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("--seconds", type=int, default=60, help="the last round is finished")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(1 << 32))
    parser.add_argument("--sanitizer", choices=["address", "thread"], help="with which the programs are built")
    parser.add_argument("--self-check", action="store_true", help="puts faults in on purpose; each must be found")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    signal.signal(signal.SIGALRM, hangs)
    print(f"seed {options.seed}", flush=True)
    if options.self_check:
        evidence = self_check(options)
    else:
        soak = Soak(options)
        evidence = soak.go(options.seconds)
        soak.report()
    print(evidence or "no violation")
    sys.exit(1 if evidence else 0)


if __name__ == "__main__":
    main()
