"""Output that takes nothing for a while, or ever: stopped terminals, full pipes, sockets, shared files."""
import fcntl
import os
import pathlib
import pty
import select
import signal
import socket
import termios

from programs import MONITOR, PM, PUBLISHER, ProgramsTest, happens


def stopped_terminal():
    """Its ends to read from and to write into; stopped as by Ctrl-S."""
    reading, writing = pty.openpty()
    termios.tcflow(writing, termios.TCOOFF)
    return reading, writing


def socket_ends():
    return tuple(end.detach() for end in socket.socketpair())


def what_is_there(descriptor):
    ready, _, _ = select.select([descriptor], [], [], 0)
    return os.read(descriptor, 65536) if ready else b""


class Output(ProgramsTest):
    def expect_that_signals_end_both_programs(self, writing):
        """With the code of a program that a signal ended in order, whatever it wanted to write."""
        publisher = self.start(PUBLISHER, "--resource dp:/res/pm/fm --count 100000", stdout=writing, stderr=writing)
        self.assertTrue(happens(lambda: any(path.is_socket() for path in pathlib.Path(self.directory).iterdir())))
        publisher.expect_stop(signal.SIGINT, 130)

        source = self.serve(PM, "--quiet --count 100000 --name " + 128 * "n")
        monitor = self.start(MONITOR, stdout=writing)
        source.await_error("0xF10209")  # the monitor takes nothing any more
        monitor.expect_stop(signal.SIGTERM)
        source.expect_stop(signal.SIGTERM)  # in order: nothing looks served afterwards

    def test_a_stop_signal_ends_a_program_that_waits_for_its_output(self):
        self.expect_that_signals_end_both_programs(stopped_terminal()[1])
        for flags in (0, os.O_NONBLOCK):
            _, pipe = os.pipe()
            fcntl.fcntl(pipe, fcntl.F_SETFL, flags)
            self.expect_that_signals_end_both_programs(pipe)
            # Others have the description, too: it stays as it was.
            self.assertEqual(fcntl.fcntl(pipe, fcntl.F_GETFL) & os.O_NONBLOCK, flags)
        self.expect_that_signals_end_both_programs(socket_ends()[1])

    def test_every_line_arrives_whole_however_slowly_it_is_read(self):
        for reading, writing in (os.pipe(), socket_ends(), stopped_terminal()):
            program = self.start(PUBLISHER, "--print --count 3000 --name " + 100 * "n", stdout=writing)
            if os.isatty(writing):
                termios.tcflow(writing, termios.TCOON)
            pieces = []

            def all_has_come():
                pieces.append(what_is_there(reading))
                return sum(piece.count(b"\n") for piece in pieces) == 3000
            self.assertTrue(happens(all_has_come), len(pieces))
            program.expect_end()
            self.assertEqual(len(set(b"".join(pieces).splitlines())), 1)

    def test_a_file_that_others_write_to_as_well_is_continued(self):
        script = self.shell("cd $IAM_RUNTIME_DIR; { echo before; PUBLISHER --print; echo after; } > file; cat file")
        script.expect_end()
        first, _, last = script.output()
        self.assertEqual((first, last), ("before", "after"))
