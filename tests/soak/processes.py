"""The processes of the soak as its runner sees them: what they answer, what stands on their boards, what they hold."""
import bisect
import json
import mmap
import os
import pathlib
import resource
import signal
import subprocess
import time
import types

NEVER = 1 << 63
HANGS = 60  # seconds


class Gone(Exception):
    """A process has ended by itself or hangs: the run cannot go on."""


def hangs(*_):
    raise Gone("a process neither answers nor ends in time")


class Board:
    """Words that a process writes and the runner reads, by the names of their fields."""

    def __init__(self, words, fields):
        self.words, self.fields = words, fields

    def __getattr__(self, name):
        first, count = self.fields[name]
        return self.words[first] if count == 1 else self.words[first:first + count]


class Child:
    """A process of the soak, its board and its log. Answers come in the order of the commands."""

    def __init__(self, soak, program, *arguments):
        soak.processes += 1
        self.soak, self.facts = soak, soak.facts
        self.name, self.log = f"{program} {soak.processes}", soak.work / f"{soak.processes}.log"
        fields = self.facts[program]
        board, size = os.memfd_create("board"), 8 * max(map(sum, fields.values()))
        os.truncate(board, size)
        self.board = Board(memoryview(mmap.mmap(board, size)).cast("Q"), fields)
        command = [soak.programs / f"soak_{program}", board, *arguments, soak.sabotage]
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(map(str, command), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                            stderr=log, text=True, env=soak.environment, pass_fds=[board])
        os.close(board)
        self.pid, self.ending, self.died = self.process.pid, NEVER, NEVER
        self.proc = pathlib.Path(f"/proc/{self.pid}")
        soak.children.append(self)

    def answer(self):
        line = self.process.stdout.readline()
        if not line:
            raise Gone(f"{self.name} has ended by itself, with code {self.process.wait()}")
        return json.loads(line)

    def send(self, command):
        signal.alarm(HANGS)
        self.process.stdin.write(f"{command}\n")
        self.process.stdin.flush()

    def ask(self, command):
        self.send(command)
        return self.answer()

    def end(self, how):
        """SIGKILL, or in order with "quit"."""
        self.ending = time.monotonic_ns()
        self.send("quit") if how == "quit" else self.process.kill()
        code = self.process.wait()
        self.soak.check(code == (0 if how == "quit" else -signal.SIGKILL), f"{self.name} ended with code {code}")
        self.died = time.monotonic_ns()

    def stopped(self):
        return all((task / "stat").read_text().rsplit(")", 1)[1].split()[0] == "T"
                   for task in (self.proc / "task").iterdir())

    def limit(self, kind, value):
        """Lowers a soft limit; None takes it back."""
        hard = resource.prlimit(self.pid, kind)[1]
        resource.prlimit(self.pid, kind, (hard if value is None else value, hard))

    def limit_descriptors(self, more):
        self.limit(resource.RLIMIT_NOFILE, len(os.listdir(self.proc / "fd")) + more)

    def held(self):
        """What the process holds. Anonymous memory by its size: neighbouring pieces may or may not be one mapping."""
        mappings = [line.split(maxsplit=5) for line in (self.proc / "maps").read_text().splitlines()]
        anonymous = [[int(end, 16) for end in line[0].split("-")] for line in mappings if len(line) < 6]
        held = {"descriptors": len(os.listdir(self.proc / "fd")), "threads": len(os.listdir(self.proc / "task"))}
        if not self.soak.options.sanitizer:
            held["mappings"] = len(mappings) - len(anonymous)
            held["anonymous KiB"] = sum(end - begin for begin, end in anonymous) // 1024
        return held


class Publisher(Child):
    kind = "publisher"

    def __init__(self, soak, number, mode="serve"):
        self.run, self.resource, self.begun = soak.processes + 1, number, time.monotonic_ns()
        super().__init__(soak, "publisher", number, self.run, mode)
        self.seen = [0] * len(self.board.accepted)  # in earlier rounds

    def accepted(self, lane, after=0, before=NEVER, begun_too=False):
        """The records of this round accepted by calls that returned between two times, or that also began there."""
        numbers, kept = range(self.seen[lane], self.board.accepted[lane]), len(self.board.begun) // len(self.seen)
        self.soak.check(len(numbers) < kept, "too many records in one round for the runner to follow")
        begun, returned = (lambda number, words=words: words[lane * kept + number % kept]
                           for words in (self.board.begun, self.board.returned))
        first = bisect.bisect_right(numbers, after, key=begun if begun_too else returned)
        return numbers[first:bisect.bisect_left(numbers, before, key=returned)]


class Subscriber(Child):
    kind = "subscriber"

    def __init__(self, soak, observes):
        self.observes, self.started = observes, False
        self.seen = self.losses = self.managers_ended = 0  # in earlier rounds
        self.stalls = []  # of this round, from and to
        super().__init__(soak, "subscriber", "observe" if observes else "read")

    def connections(self):
        """Those of this round as they are now."""
        fields = self.facts["connection"]
        size = max(map(sum, fields.values()))
        for number in range(self.seen, self.board.opens):
            board = Board(self.board.connections[number * size:(number + 1) * size].tolist(), fields)
            yield types.SimpleNamespace(owner=self, number=number, **{name: getattr(board, name) for name in fields})

    def newest(self, resource_number):
        """The newest connection to the resource that it has made in this round."""
        return [c for c in self.connections() if c.resource == resource_number and c.ended and not c.openError][-1]

    def received(self, resource_number):
        connection = self.newest(resource_number)
        return sum(connection.next) - sum(connection.first) - connection.missed

    def read_threads(self):
        return [int(task.name) for task in (self.proc / "task").iterdir()
                if (task / "comm").read_text().startswith("Rd_")]

    def stall(self, asleep):
        """Until it goes on, it reads nothing: the whole process is stopped, or its callbacks do not return."""
        self.stalls.append([time.monotonic_ns(), NEVER])
        if asleep:
            self.process.send_signal(signal.SIGSTOP)
            self.soak.wait_until(self.stopped, f"{self.name} is not stopped")
        else:
            self.ask(-1)

    def go_on(self, microseconds=0):
        """Reads again, and spends so long in each callback."""
        self.process.send_signal(signal.SIGCONT)
        self.ask(microseconds)
        self.stalls[-1][1] = min(self.stalls[-1][1], time.monotonic_ns())
