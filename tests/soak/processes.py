"""The processes of the soak as its runner sees them: what they answer, what their journals say, what they hold."""
import collections
import errno
import fcntl
import json
import os
import pathlib
import signal
import subprocess
import time

NEVER = 1 << 63
HANGS = 60  # seconds
RESOURCES = ORDINARY, PROCESS_MANAGER, _ = "x:/res/soak", "dp:/res/pm/fm", "dp:/res/iam/sec_event"
OK, NO_BLOCK = 0, 0xF10209


def file_in_memory():
    file = os.memfd_create("soak")
    fcntl.fcntl(file, fcntl.F_SETFL, os.O_APPEND)  # threads write side by side
    return open(file, "rb", buffering=0)


def content(file, start=0):
    return os.pread(file.fileno(), os.fstat(file.fileno()).st_size - start, start)


class Child:
    """A process of the soak. It writes a journal, in which its answers come in the order of the commands, and a log."""
    environment = {}

    def __init__(self, soak, *arguments):
        self.soak, self.name = soak, f"{type(self).__name__} {len(soak.children) + 1}"
        self.journal, self.log, self.known = file_in_memory(), file_in_memory(), 0
        command = [soak.options.programs.resolve() / f"soak_{self.program}", soak.sabotage, *arguments]
        self.process = subprocess.Popen(map(str, command), stdin=subprocess.PIPE, stdout=self.journal, stderr=self.log,
                                        text=True, bufsize=1, env=soak.environment | self.environment)
        self.pid, self.ending, self.died = self.process.pid, NEVER, NEVER
        self.proc, self.answers = pathlib.Path(f"/proc/{self.pid}"), collections.deque()
        soak.children.append(self)

    def look(self):
        """Takes in what the journal has got since the last look. A line that a kill has cut off does not count."""
        news = content(self.journal, self.known)
        lines = news[:news.rfind(b"\n") + 1]
        self.known += len(lines)
        for what, *values in json.loads(b"[%b]" % lines.strip().replace(b"\n", b",")):
            getattr(self, f"note_{what}")(*values)
        return self

    def note_answer(self, answer):
        self.answers.append(answer)

    def answer(self):
        deadline = time.monotonic() + HANGS
        while not self.look().answers:
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise ChildProcessError(f"{self.name} has ended by itself or hangs: code {self.process.returncode}")
            time.sleep(0.001)
        return self.answers.popleft()

    def send(self, command):
        self.process.stdin.write(f"{command}\n")

    def ask(self, command):
        self.send(command)
        return self.answer()

    def end(self, how):
        """SIGKILL, or in order with "quit"."""
        self.ending = time.monotonic_ns()
        self.send("quit") if how == "quit" else self.process.kill()
        code = self.process.wait(HANGS)
        self.soak.check(code == (0 if how == "quit" else -signal.SIGKILL), f"{self.name} ended with code {code}")
        self.died = time.monotonic_ns()

    def log_lines(self):
        return content(self.log).decode(errors="replace").splitlines()

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
    program = "publisher"

    def __init__(self, soak, resource):
        self.resource, self.begun = resource, time.monotonic_ns()
        first = 2 * len(soak.children)
        self.accepted = {first: [], first + 1: []}  # of each stream, when each call began and returned
        self.times, self.results = [], collections.Counter()  # of all calls
        super().__init__(soak, resource, first)

    def note_publish(self, stream, begun, returned, result):
        self.times.append(returned - begun)
        self.results[result] += 1
        if result == OK:
            self.accepted[stream].append((begun, returned))

    def count(self, result):
        """How many calls have had it."""
        return self.look().results[result]


class Connection:
    """An attempt to open a resource, and what came over the connection."""

    def __init__(self, owner, resource, begun, reopened):
        self.owner, self.observes = owner, isinstance(owner, Observer)
        self.resource, self.begun, self.reopened = resource, begun, reopened  # by the thread that lost the one before
        self.name = f"{owner.name}, open of {resource} at {begun}"
        self.ended, self.open_error = None, errno.EINPROGRESS
        self.came = collections.defaultdict(list)  # of each stream the numbers
        self.errors, self.failed = [], 0  # of reads, and when the last one failed


class Subscriber(Child):
    program = "subscriber"

    def __init__(self, soak):
        self.started, self.connections = False, []  # those that have not been settled
        self.opening, self.files, self.newest = {}, {}, {}  # by thread, by number, by resource
        self.losses = self.managers_ended = 0
        self.stalls = []  # from and to
        super().__init__(soak, ORDINARY, PROCESS_MANAGER)

    def note_open(self, thread, resource, begun):
        self.opening[thread] = Connection(self, resource, begun, reopened=thread != self.pid)
        self.connections.append(self.opening[thread])

    def note_opened(self, thread, file, error, ended):
        connection = self.opening.pop(thread)
        connection.open_error, connection.ended = error, ended
        if not error:
            self.files[file] = self.newest[connection.resource] = connection

    def note_came(self, file, stream, number):
        self.files[file].came[stream].append(number)

    def note_loss(self, losses):
        self.losses += losses

    def note_failed(self, file, error, when):
        self.files[file].errors.append(error)
        self.files[file].failed = when

    def received(self, resource):
        """How many records have come over the newest connection."""
        return sum(map(len, self.look().newest[resource].came.values()))

    def stop_reading(self):
        self.stalls.append([time.monotonic_ns(), NEVER])
        self.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)

    def read_on(self):
        self.stalls[-1][1] = time.monotonic_ns()
        self.process.send_signal(signal.SIGCONT)


class Reader(Subscriber):
    pass


class Observer(Subscriber):
    environment = {"IAM_OBSERVE": "1"}
