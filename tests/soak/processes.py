"""The processes of the soak as its runner sees them: what they answer, what stands on their boards, what they hold."""
import bisect
import ctypes
import json
import mmap
import os
import pathlib
import signal
import subprocess
import time

NEVER = 1 << 63
HANGS = 60  # seconds
RESOURCES = ORDINARY, PROCESS_MANAGER, _ = range(3)

# The boards, laid out as in Board.h.
Word, TIMES_KEPT = ctypes.c_uint64, 1 << 18
Lanes, TIMES = Word * 2, Word * TIMES_KEPT * 2


class Gone(Exception):
    """A process has ended by itself or hangs: the run cannot go on."""


def hangs(*_):
    raise Gone("a process neither answers nor ends in time")


class PublisherBoard(ctypes.Structure):
    _fields_ = [("poolBlocks", Word), ("accepted", Lanes), ("calls", Word), ("slowCalls", Word), ("slowest", Lanes),
                ("noBlock", Word), ("otherCode", Word), ("begun", TIMES), ("returned", TIMES)]


class Connection(ctypes.Structure):
    _fields_ = [("resource", Word), ("begun", Word), ("ended", Word), ("openError", Word), ("reopened", Word),
                ("run", Word), ("first", Lanes), ("next", Lanes), ("missed", Word), ("disorder", Word),
                ("failures", Word), ("error", Word), ("failed", Word)]


class SubscriberBoard(ctypes.Structure):
    _fields_ = [("opens", Word), ("losses", Word), ("altered", Word), ("connections", Connection * (1 << 17))]


class Child:
    """A process of the soak, its board and its log. Answers come in the order of the commands."""

    def __init__(self, soak, *arguments):
        soak.processes += 1
        self.soak, self.log = soak, soak.work / f"{soak.processes}.log"
        self.name = f"{self.kind} {soak.processes}"
        board, size = os.memfd_create("board"), ctypes.sizeof(self.layout)
        os.truncate(board, size)
        self.board = self.layout.from_buffer(mmap.mmap(board, size))
        command = [soak.programs / f"soak_{self.kind}", board, *arguments, soak.sabotage]
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
    kind, layout = "publisher", PublisherBoard

    def __init__(self, soak, number):
        self.run, self.resource, self.begun = soak.processes + 1, number, time.monotonic_ns()
        super().__init__(soak, number, self.run)
        self.seen = [0] * len(self.board.accepted)  # in earlier rounds

    def accepted(self, lane, after=0, before=NEVER, begun_too=False):
        """The records of this round accepted by calls that returned between two times, or that also began there."""
        numbers = range(self.seen[lane], self.board.accepted[lane])
        self.soak.check(len(numbers) < TIMES_KEPT, "too many records in one round for the runner to follow")
        begun, returned = (lambda number, times=times[lane]: times[number % TIMES_KEPT]
                           for times in (self.board.begun, self.board.returned))
        first = bisect.bisect_right(numbers, after, key=begun if begun_too else returned)
        return numbers[first:bisect.bisect_left(numbers, before, key=returned)]


class Subscriber(Child):
    kind, layout = "subscriber", SubscriberBoard

    def __init__(self, soak, observes):
        self.observes, self.started = observes, False
        self.seen = self.losses = self.managers_ended = 0  # in earlier rounds
        self.stalls = []  # of this round, from and to
        super().__init__(soak, "observe" if observes else "read")

    def connections(self):
        """Those of this round as they are now."""
        for number in range(self.seen, self.board.opens):
            connection = Connection.from_buffer_copy(self.board.connections[number])
            connection.owner, connection.number = self, number
            yield connection

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
            self.ask("hold")

    def go_on(self):
        self.process.send_signal(signal.SIGCONT)
        self.ask("release")
        self.stalls[-1][1] = time.monotonic_ns()
