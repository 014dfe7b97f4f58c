"""Whole roads: real publishers and monitors in processes of their own, over the host platform."""
import contextlib
import json
import os
import pathlib
import signal
import struct
import time

from programs import MONITOR, PM, PUBLISHER, SECURITY, ProgramsTest, happens, numbered_records

FAULT_RECORD = struct.Struct("<BB4sBBHIIBBHHH")  # up to the name


def fault_record(name, dids):
    """A serialized fault event, which is forced into the event log."""
    length = 24 + len(name) + sum(4 + len(data) for _, data in dids)
    head = FAULT_RECORD.pack(0, 1, b"FTER", 1, 1, 258, 50595078, 134810123, 7, len(name), 3085, len(dids), length)
    return (head + name + b"".join(struct.pack("<HH", did, len(data)) + data for did, data in dids)).hex()


class EndToEnd(ProgramsTest):
    def test_records_of_every_kind_and_size_arrive_with_all_their_fields(self):
        name = b"f" * 128
        filling = b"\xAB" * (3960 - 26 - 128 - 4 - 2 - 4)  # the largest record there is
        fault = fault_record(name, [(1, b"\x01\xFF"), (0xF1A1, filling)])
        self.assertEqual(len(fault), 2 * 3960)
        pm = self.serve(PM, "--from -", f"000041\n\n# a comment\n{fault}\n{numbered_records(0x01, -5, 1)}")
        security = self.serve(SECURITY, "--kind security --event-id 0x12345678 --severity 2 --assertion 0 --node-id 3 "
                              "--device-id 4 --os-id 5 --serial 6 --notify-serial 7 --arised-time 8 --name \u00E9")
        monitor = self.monitor("--fault dp:/res/pm/fm --security --count 3", files=2)
        monitor.expect_end()

        # The smallest record is no fault event: read, refused with its cause, and the next one is read.
        monitor.await_error("FTEDeSerialize err ret=")
        monitor.await_error("fault deserialize/callback failed, data read from dp:/res/pm/fm")
        lines = sorted(line[:line.index("arrival") + 10] + line[line.index("Z\"") + 1:] for line in monitor.output())
        self.assertEqual(lines, [
            '{"kind":"device","resource":"dp:/res/pm/fm","arrival":"","eventId":185207048,"eventName":"' + 288 * "n" +
            '","severity":18,"assertion":19,"nodeId":15,"deviceId":3340,"osId":72,"eventSerialNum":-5,'
            '"notifySerialNum":454695192,"eventArisedTime":2820983053732684064,"reserved":"00010203040506070e1011'
            '1c1d1e1f494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f6061626364656667"}',
            '{"kind":"fault","resource":"dp:/res/pm/fm","arrival":"","eventId":258,"eventName":"' + name.decode() +
            '","assertion":1,"nodeId":50595078,"deviceId":7,"osId":134810123,"udsId":3085,"dids":['
            '{"did":1,"data":"01ff"},{"did":61857,"data":"' + filling.hex() + '"}]}',
            '{"kind":"security","resource":"dp:/res/iam/sec_event","arrival":"","eventId":305419896,'
            '"eventName":"\u00E9","severity":2,"assertion":0,"nodeId":3,"deviceId":4,"osId":5,'
            '"eventSerialNum":6,"notifySerialNum":7,"eventArisedTime":8,"reserved":"' + 92 * "0" + '"}'])
        pm.expect_stop(signal.SIGINT)
        security.expect_stop(signal.SIGTERM)
        pm.await_output("dp:/res/pm/fm: 3 records with result 0")
        security.await_output('1/1 security event 0x12345678 "\u00E9", 362 bytes: result 0')

    def test_a_killed_process_manager_is_reported_and_another_service_is_reopened(self):
        pm = self.serve(PM, "--uds-id 7 --did 0xF190=0a0b")
        security = self.serve_numbered(SECURITY, 0, 2)
        monitor = self.monitor("--fault dp:/res/pm/fm --security", files=2)
        monitor.await_output('"udsId":7,"dids":[{"did":61840,"data":"0a0b"}]')
        monitor.events(3)

        pm.kill()
        lost = json.loads(monitor.events(4)[3])
        expected = {"kind": "pm-lost", "resource": "fault-reporting", "eventId": 0x8C03A000, "severity": 2,
                    "eventName": "process-manager", "assertion": 1, "deviceId": 65535}
        self.assertEqual(lost, {**lost, **expected})
        security.kill()
        self.serve_numbered(SECURITY, 2, 2)
        monitor.expect_numbered(4, 2, 2)
        monitor.await_error("Reconnect success. (file=dp:/res/iam/sec_event,fd=")
        monitor.expect_stop(signal.SIGTERM)

    def test_a_monitor_that_follows_survives_every_restart_and_first_gets_what_was_accepted_before(self):
        monitor = self.monitor("--follow", files=0)
        for restart in range(3):
            pm = self.serve_numbered(PM, restart, 1)
            monitor.expect_numbered(2 * restart, restart, 1)
            monitor.await_error("receiving ", restart + 1)
            pm.kill()
            self.assertIn("pm-lost", monitor.events(2 * restart + 2)[-1])
        # Through a pipe, which is slower than the publisher and holds less than everything.
        last = self.shell("cat | PUBLISHER --resource dp:/res/pm/fm --wait --from -", numbered_records(0x01, 1, 200))
        last.expect_end()
        monitor.expect_numbered(6, 1, 200)
        # The publisher may be gone before the monitor is registered in full: the fourth loss need not be delivered.
        monitor.await_error("FTEReport begin, eventId=0x8C03A000", 4)
        monitor.expect_stop(signal.SIGTERM)

    def test_on_a_terminal_events_stand_in_columns_under_a_header(self):
        """In local time, and in colour unless the user wants none."""
        os.environ["TZ"] = "XYZ-5"
        today = time.strftime("%Y-%m-%d", time.gmtime(time.time() + 5 * 3600))
        for no_colour in ("", "1"):
            os.environ["NO_COLOR"] = no_colour
            with self.serve(PM, "--kind device --severity 2 --count 2 --arised-time 9"):
                terminal = self.shell("script -qec \"MONITOR --count 2 2>&3\" /dev/null 3>&2")
                header, *rows = terminal.events(3)
                terminal.expect_end()
            self.assertIn(f"{today}      ARISED       KIND  ", header)
            for number, row in enumerate(rows, 1):
                self.assertIn(f' 9            device   0x1001       2   1     0/0/0      {number} dp:/res/pm/fm '
                              '"test event"', row)
                self.assertEqual(row.startswith("\x1B[31m"), no_colour == "")

    def test_wrong_use_ends_with_one_line_that_names_the_cause(self):
        self.serve(PM)
        timeless = ('{"kind":"fault","arrival":"now","eventId":1,"eventName":"","assertion":1,"nodeId":0,"deviceId":0,'
                    '"osId":0,"udsId":0,"dids":[]}')
        cases = [
            (MONITOR, "--fault dp:/res/nobody", 1, "dp:/res/nobody"),
            (MONITOR, "--fault no-colon", 2, "no-colon"),
            (MONITOR, "--fault a:/res/b --fault a:/res/b", 2, "'a:/res/b' is given twice"),
            (MONITOR, "--count 1x", 2, "count"),
            (MONITOR, "--count 0", 2, "count"),
            (PUBLISHER, "--resource dp:/res/pm/fm", 1, PM),  # served by another live process
            (PUBLISHER, "--resource x:/res/y --serve --from -", 1, "line 2: not a byte", "01\n01zz\n"),
            (PUBLISHER, "--resource x:/res/y --from -", 1, "3961 bytes", 7922 * "0"),
            (PUBLISHER, "--resource x:/res/y --from -", 1, "line 1: line too long", 1000000 * " "),
            (PUBLISHER, "--resource x:/res/y --from -", 1, "arrival: not a time", timeless),
            (PUBLISHER, "--resource x:/res/y --from /no/file", 1, "/no/file: No such file"),
            (PUBLISHER, "--print --from -", 2, "--from excludes --print"),
            (PUBLISHER, "--print --event-id 65536", 2, "eventId: 65536 is not a whole number from 0 to 65535"),
            (PUBLISHER, "--print --severity 1", 2, "a fault event: severity: there is no such field"),
            (PUBLISHER, "--print --kind device --did 1=00", 2, "a device event: dids: there is no such field"),
            (PUBLISHER, "--resource x:/res/y --from - --timing 0", 2, "'0' is not a number from 0.001 to 1000000"),
            (PUBLISHER, "--resource x:/res/y --wait --timeout 1000000001", 2, "not a number from 1 to 1000000000"),
            (PUBLISHER, "--resource x:/res/y --from /", 1, "/: Is a directory"),
            (PUBLISHER, "--resource x:/res/" + 300 * "n", 1, "nnn"),
            (PUBLISHER, "", 2, "resource"),
        ]
        for path, arguments, code, cause, *text in cases:
            program = self.start(path, arguments, *text)
            program.expect_end(code)
            own = [line for line in program.errors() if line.startswith(f"{pathlib.Path(path).name}: ")]
            self.assertEqual(len(own), 1, program.transcript())
            self.assertIn(cause, own[0])

    def test_a_program_whose_output_fails_ends_with_the_right_code(self):
        # Through a pipe that is closed while the monitor waits for room in it, or while nothing arrives.
        for count in (100000, 3):
            publisher = self.serve(PM, "--kind device --severity 2 --node-id 3 --device-id 4 --os-id 5 --name \x1B "
                                   f"--quiet --count {count}")
            piped = self.shell("MONITOR | sh -c 'echo $$; kill -STOP $$; head -n 3'; echo done")
            reader = int(piped.events(1)[0])
            if count > 3:
                publisher.await_error("0xF10209")

            def goes_on():
                with contextlib.suppress(ProcessLookupError):
                    os.kill(reader, signal.SIGCONT)
                return piped.output()[-1] == "done"
            self.assertTrue(happens(goes_on))
            piped.expect_end()
            piped.await_output(" device   0x1001       2   1     3/4/5 ", 3)
            for unwanted in ("report-event-monitor: ", "\x1B"):
                self.assertNotIn(unwanted, piped.transcript())
            publisher.expect_stop(signal.SIGINT)
            self.assertEqual(len(publisher.output()), 2)  # quiet but for the first and the last
        self.serve(PM)
        for command in ("MONITOR --json", "PUBLISHER --print"):
            full = self.shell(f"exec {command} > /dev/full")
            full.expect_end(1)
            full.await_error("No space left on device")
        closed = self.shell("PUBLISHER --print >&-")
        closed.expect_end(1)
        closed.await_error("standard output is closed")
        head = self.shell("{ PUBLISHER --print --count 9999; echo $? >&2; } | head -n 1")
        head.expect_end()
        self.assertEqual(head.errors(), ["0"])
