"""The programs under test: started in the ways that the tests need, waited for by condition, ended with the test.

BUILD names the build directory, EMULATOR the words that start a program of it; build/host and none by default.
"""
import os
import pathlib
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import unittest
import unittest.mock

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = (ROOT / os.environ.get("BUILD", "build/host")).resolve()
EMULATOR = os.environ.get("EMULATOR", "")
MONITOR, PUBLISHER, FORWARDER = (f"{BUILD}/tools/report-event-{tool}" for tool in ("monitor", "publish", "forward"))

PATIENCE = 30  # seconds, far above anything that is expected to happen
PM, SECURITY = "dp:/res/pm/fm", "dp:/res/iam/sec_event"  # a monitor reads PM if it is not told otherwise


def happens(condition):
    """Whether the condition has come to hold in time."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.002)
    return True


class Stream:
    """What a process writes: a file, so that nobody has to empty it."""

    def __init__(self):
        self.file, self.known, self.whole = tempfile.TemporaryFile(), 0, []

    def lines(self):
        """The whole lines so far."""
        size = os.fstat(self.file.fileno()).st_size
        news = os.pread(self.file.fileno(), size - self.known, self.known)
        news = news[:news.rfind(b"\n") + 1]
        self.known += len(news)
        self.whole += news.decode(errors="surrogateescape").split("\n")[:-1]
        return self.whole


class Process:
    """A program under test. Its output and error output go elsewhere when a descriptor is given."""

    def __init__(self, command, text="", stdout=None, stderr=None):
        self.out, self.err = Stream(), Stream()
        with tempfile.TemporaryFile() as source:
            source.write(text.encode(errors="surrogateescape"))
            source.seek(0)
            self.child = subprocess.Popen(command, stdin=source, stdout=self.out.file if stdout is None else stdout,
                                          stderr=self.err.file if stderr is None else stderr)
        self.pid = self.child.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.child.kill()
        self.child.wait()

    def close(self):
        self.__exit__()
        self.out.file.close()
        self.err.file.close()

    def output(self):
        return self.out.lines()

    def errors(self):
        return self.err.lines()

    def transcript(self):
        """Both, also for a failing test's message."""
        return "\n".join([*(f"out: {line}" for line in self.output()), *(f"err: {line}" for line in self.errors())])

    def has_ended(self):
        return self.child.poll() is not None

    def awaits(self, stream, text, count):
        def came():
            return sum(text in line for line in stream.lines()) >= count
        happens(lambda: came() or self.has_ended())
        assert came(), f"waited in vain for {text!r}:\n{self.transcript()}"

    def await_output(self, text, count=1):
        """So many lines hold the text."""
        self.awaits(self.out, text, count)

    def await_error(self, text, count=1):
        self.awaits(self.err, text, count)

    def events(self, count):
        """The lines of a monitor, once there are so many."""
        self.await_output("", count)
        return self.output()

    def expect_numbered(self, start, first, count):
        """The events from `start` on are numbered from `first` on."""
        events = self.events(start + count)[start:start + count]
        for number, event in enumerate(events, first):
            assert f'Num":{number},"not' in event, event

    def expect_end(self, code=0):
        """The exit code, or 128 plus the signal that ended it."""
        assert happens(self.has_ended), f"does not end:\n{self.transcript()}"
        ended = self.child.returncode
        ended = ended if ended >= 0 else 128 - ended
        assert ended == code, f"ended with {ended}, not {code}:\n{self.transcript()}"

    def expect_stop(self, signal_number, code=0):
        self.child.send_signal(signal_number)
        self.expect_end(code)

    def kill(self):
        self.expect_stop(signal.SIGKILL, 128 + signal.SIGKILL)

    def pause(self):
        """No thread of it runs any more, until SIGCONT."""
        self.child.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)

    def go_on(self):
        self.child.send_signal(signal.SIGCONT)


def numbered_records(header, first, count):
    """Lines for a publisher: raw records whose events are numbered. Every other byte tells its own place."""
    event = bytearray(place % 256 for place in range(360))
    event[40:328] = b"n" * 288  # the name, without a terminator
    lines = []
    for number in range(first, first + count):
        struct.pack_into("<i", event, 20, number)
        lines.append((bytes([header, 1]) + event).hex() + "\n")
    return "".join(lines)


class ProgramsTest(unittest.TestCase):
    """Each test has a runtime directory of its own. Arguments are separated by blanks."""
    maxDiff = None

    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="report-event-")
        self.addCleanup(shutil.rmtree, self.directory, ignore_errors=True)
        # A sanitizer's exit code must not pass for one of a program's own.
        settings = {"IAM_RUNTIME_DIR": self.directory, "SLOG_LEVELS": "2,3,16", "ASAN_OPTIONS": "exitcode=99",
                    "TSAN_OPTIONS": "exitcode=99"}
        self.enterContext(unittest.mock.patch.dict(os.environ, settings))

    def run_command(self, command, text="", **streams):
        process = Process(command, text, **streams)
        self.addCleanup(process.close)
        return process

    def start(self, program, arguments="", text="", **streams):
        starter = EMULATOR.split() if program.startswith(str(BUILD)) else []
        return self.run_command([*starter, program, *arguments.split()], text, **streams)

    def shell(self, script, text=""):
        """MONITOR, PUBLISHER and FORWARDER stand for the programs, with what starts them."""
        for name, program in {"MONITOR": MONITOR, "PUBLISHER": PUBLISHER, "FORWARDER": FORWARDER}.items():
            script = script.replace(name, f"{EMULATOR} '{program}'")
        return self.run_command(["sh", "-c", script], text)

    def serve(self, resource, arguments="", text=""):
        """A publisher that serves the resource already, publishes once a reader is there, and stays up."""
        publisher = self.start(PUBLISHER, f"--resource {resource} --wait --serve {arguments}", text)
        publisher.await_output(f"serving {resource}")
        return publisher

    def serve_numbered(self, resource, first, count):
        return self.serve(resource, "--from -", numbered_records(0x11 if resource == SECURITY else 0x01, first, count))

    def monitor(self, arguments="", files=1):
        """A monitor that has opened so many files, and is registered in full: from then on a loss is delivered, too."""
        monitor = self.start(MONITOR, f"--json {arguments}")
        monitor.await_error("Open file success", files)
        if files > 0:
            monitor.await_error("receiving ")
        return monitor
