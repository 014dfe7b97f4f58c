"""What report-event-publish does beyond the plain road: recordings, pauses in its input, the pace of its records."""
import fcntl
import json
import os
import random
import signal
import struct
import termios
import time

from programs import MONITOR, PM, PUBLISHER, SECURITY, ProgramsTest, happens

DEVICE = {"kind": "device", "resource": "x:/res/a", "arrival": "2024-05-06T08:00:00.000000Z", "eventId": 1,
          "eventName": "", "severity": 0, "assertion": 0, "nodeId": 0, "deviceId": 0, "osId": 0, "eventSerialNum": 0,
          "notifySerialNum": 0, "eventArisedTime": 0, "reserved": "00" * 46}
RAW_EVENT = struct.Struct("<8sIHsB2sBBii4sQ288sB31s")


def raw_event(chance, name):
    """A record of random bytes with this name, and what must be printed of it."""
    event = bytearray(chance.randbytes(RAW_EVENT.size))
    if chance.randrange(4) > 0:
        event[40:328] = name.ljust(288, b"\0")
    security = chance.randrange(2)
    (reserved0, identifier, device, reserved14, node, reserved16, severity, assertion, serial, notification, reserved28,
     arised, name, system, reserved329) = RAW_EVENT.unpack(event)
    printed = {"kind": "security" if security else "device", "resource": PM, "eventId": identifier,
               "severity": severity, "assertion": assertion, "nodeId": node, "deviceId": device, "osId": system,
               "eventSerialNum": serial, "notifySerialNum": notification, "eventArisedTime": arised,
               "reserved": (reserved0 + reserved14 + reserved16 + reserved28 + reserved329).hex()}
    name = name.rstrip(b"\0")
    text = name.decode(errors="replace")
    if text.encode() == name and "\0" not in text:
        printed["eventName"] = text
    else:
        printed["eventNameHex"] = name.hex()
    return (bytes([0x11 if security else 0x01, 0]) + event).hex(), printed


def mixed_event(chance):
    """A line of any kind, with a name of any sort: text, UTF-8, no UTF-8, one that fills its area."""
    parts = ["fan ", "\u00E9", "\u20AC", "\U0001F600", "\"\\\x1B"]
    name = "".join(chance.choices(parts, k=chance.randrange(32)))
    if chance.randrange(3) > 0:
        return raw_event(chance, name.encode() + chance.choice([b"", b"\xFF"]))
    dids = [{"did": chance.getrandbits(16), "data": chance.randbytes(chance.randrange(40)).hex()}
            for _ in range(chance.randrange(4))]
    fault = {"kind": "fault", "resource": PM, "eventId": chance.getrandbits(16), "eventName": name, "assertion": 1,
             "nodeId": chance.getrandbits(32), "deviceId": 7, "osId": chance.getrandbits(32), "udsId": 8, "dids": dids}
    return json.dumps(fault), fault


def without_arrival(line):
    """What is printed of an event, but for what a replay cannot repeat, and a name that is no text."""
    event = json.loads(line)
    del event["arrival"]
    if "eventNameHex" in event:
        del event["eventName"]
    return event


class Publish(ProgramsTest):
    def test_a_recording_of_ten_thousand_mixed_events_replays_identically(self):
        chance = random.Random(1)
        recording, expected = map(list, zip(*(mixed_event(chance) for _ in range(10000))))
        self.serve(SECURITY, "--quiet --count 0")
        for _ in ("the events", "their recording"):
            with self.serve(PM, "--quiet --from -", "\n".join(recording)):
                monitor = self.start(MONITOR, "--json --security --fault dp:/res/pm/fm")
                recording = monitor.events(len(expected))
                monitor.expect_stop(signal.SIGINT)
            for line, event in zip(recording, expected):
                self.assertEqual(without_arrival(line), event)

    def test_only_the_events_of_one_resource_are_replayed_and_no_loss(self):
        anywhere = {key: value for key, value in DEVICE.items() if key not in ("resource", "arrival")}
        events = [{**DEVICE, "eventName": "of a"}, {**DEVICE, "resource": "x:/res/b", "eventName": "of b"},
                  {**anywhere, "eventName": "of any"}, {**DEVICE, "kind": "pm-lost", "resource": "x:/res/b"}]
        recording = "".join(json.dumps(event) + "\n" for event in events)
        for option, names in (("", ["of a", "of any"]), ("--only x:/res/b", ["of b", "of any"]),
                              ("--only x:/res/c", ["of any"])):
            publisher = self.serve("x:/res/a", f"--from - {option}", recording)
            monitor = self.monitor(f"--fault x:/res/a --count {len(names)}")
            monitor.expect_end()
            self.assertEqual([json.loads(line)["eventName"] for line in monitor.output()], names)
            publisher.expect_stop(signal.SIGTERM)
            publisher.await_output(f"{4 - len(names)} events of other resources passed over")

    def test_records_follow_each_other_at_the_pace_that_was_asked_for(self):
        # The clock was set back between the second and the third.
        times = ["08:00:00.000000", "08:00:00.100000", "07:00:00.000000", "07:00:00.700000"]
        recording = "".join(json.dumps({**DEVICE, "arrival": f"2024-05-06T{time}Z"}) + "\n00\n" for time in times)
        for options, at_least in (("--timing --from -", 0.8), ("--timing 0.5 --from -", 1.6),
                                  ("--interval 50 --from -", 0.35), ("--interval 50 --count 8", 0.35)):
            start = time.monotonic()
            publisher = self.start(PUBLISHER, f"--resource x:/res/a {options}", recording)
            publisher.expect_end()
            self.assertGreaterEqual(time.monotonic() - start, at_least, options)
            publisher.await_output("8 records with result 0")

        # The time of an event is that at which it is made, and numbers go on from the largest one.
        self.serve(PM, "--kind device --count 2 --interval 300 --serial 2147483647")
        monitor = self.monitor("--count 2")
        monitor.expect_end()
        first, second = map(json.loads, monitor.output())
        self.assertGreaterEqual(second["eventArisedTime"] - first["eventArisedTime"], 300_000_000)
        self.assertEqual(second["eventSerialNum"], 0)

    def test_input_may_pause_anywhere_and_holds_comments_and_line_ends_of_every_sort(self):
        path = f"{self.directory}/input"
        os.mkfifo(path, 0o600)
        publisher = self.start(PUBLISHER, f"--resource x:/res/a --from {path}")
        publisher.await_output("serving")
        fifo = open(path, "wb", buffering=0)

        def write(text):
            fifo.write(text.encode())
            left = bytearray(4)  # read, and nothing more is there
            self.assertTrue(happens(lambda: fcntl.ioctl(fifo, termios.FIONREAD, left) == 0 and not any(left)))

        write("# a comment\n \t# another\n\n \r\n0001")
        write("02\r\n  00 01\t02 03 \r\n{\"kind\":")
        publisher.await_output("line 6: record, 4 bytes: result 0")
        # A stop signal while it waits for the rest of a line, or for one more.
        for serve, code in (("", 130), ("--serve", 0)):
            stopped = self.start(PUBLISHER, f"--resource x:/res/b --from {path} {serve}")
            stopped.await_output("serving")
            stopped.expect_stop(signal.SIGTERM, code)
        write("\"fault\",\"eventId\":0,\"eventName\":\"\",\"assertion\":0,\"nodeId\":0,\"deviceId\":0,\"osId\":0,"
              "\"udsId\":0,\"dids\":[]}\r\n00")
        fifo.close()  # in the middle of a line, which counts
        publisher.expect_end()
        self.assertEqual(publisher.output(), [
            "serving x:/res/a", f"{path}, line 5: record, 3 bytes: result 0",
            f"{path}, line 6: record, 4 bytes: result 0", f"{path}, line 7: record, 26 bytes: result 0",
            f"{path}, line 8: record, 1 bytes: result 0",
            "x:/res/a: 4 records with result 0, 0 failed; 0 tries met a full pool"])

    def test_whether_there_is_a_reader_is_said_only_when_it_matters(self):
        alone = self.start(PUBLISHER, "--resource x:/res/a --count 2 --name \x1B")
        alone.expect_end()
        alone.await_output(r'2/2 fault event 0x1001 "\u001b", 27 bytes: result 0')
        alone.await_error("2 of them found no reader of x:/res/a")

        patient = self.start(PUBLISHER, "--resource x:/res/a --wait --count 3 --interval 300")
        monitor = self.start(MONITOR, "--fault x:/res/a --follow --count 1")
        patient.expect_end()
        monitor.expect_end()
        self.assertNotIn("reader", patient.transcript())

        hasty = self.start(PUBLISHER, "--resource x:/res/a --wait --serve --timeout 1")
        hasty.expect_end(1)
        hasty.await_error("nobody has opened x:/res/a within 1 s")
