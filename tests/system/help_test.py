"""The help of the programs, from which the man pages and the completion are made: what it names, the programs know."""
import re
import signal

from programs import MONITOR, PUBLISHER, ProgramsTest, happens


class Help(ProgramsTest):
    def test_names_no_option_that_is_unknown_and_shows_examples_that_are_understood(self):
        for program in (MONITOR, PUBLISHER):
            shown = self.start(program, "--help")
            shown.expect_end()
            options = [match[1] for match in map(re.compile(r"  (--\S+)").match, shown.output()) if match]
            examples = [match[1] for match in map(re.compile(r"  \$ report-event-\S+([^|>]*)").match, shown.output())
                        if match]
            self.assertGreaterEqual(len(examples), 6)
            for arguments in options + examples:
                process = self.start(program, arguments)
                self.assertTrue(happens(lambda: process.transcript() or process.has_ended()))
                process.child.send_signal(signal.SIGTERM)
                code = process.child.wait()
                self.assertNotIn("not expected", process.transcript())
                if arguments in examples:
                    self.assertNotEqual(code, 2, process.transcript())
