"""A real broker for one test, forwarders to it, and what collectors receive from it."""
import contextlib
import json
import os
import pathlib
import signal
import socket
import sqlite3

from programs import FORWARDER, ProgramsTest


def free_port():
    """A port of the loopback that nobody listens on."""
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def number_in(path, query):
    """The one number that this query of the outbox returns."""
    with contextlib.closing(sqlite3.connect(path)) as database:
        return database.execute(query).fetchone()[0]


def in_order(lines):
    """The events in the order of their first receipt, which is that of each outbox, without a gap; and the repeats."""
    events, repeats, last = [], 0, {}
    for line in lines:
        brace = line.index("{")
        event = json.loads(line[brace:])
        event["received"] = float(line[:brace])  # in seconds
        ahead = event["seq"] - last.get(event["outbox"], event["seq"] - 1)
        if ahead <= 0:
            repeats += 1
            continue
        assert ahead == 1, f"a gap before {event}"
        last[event["outbox"]] = event["seq"]
        events.append(event)
    return events, repeats


def await_number(collector, number):
    """The event with this number has come."""
    collector.await_output(f'"seq":{number}}}')


class BrokerTest(ProgramsTest):
    """The broker listens on a loopback port and keeps what its clients have not received when it is stopped."""

    def setUp(self):
        super().setUp()
        os.mkdir(self.path(""))
        self.port, self.broker = free_port(), None
        self.address, self.outbox = f"mqtt://127.0.0.1:{self.port}", self.path("outbox")

    def path(self, name):
        """Of a file of this test's own."""
        return f"{self.directory}/private/{name}"

    def write(self, name, text):
        pathlib.Path(self.path(name)).write_text(text)

    def start_broker(self, settings="allow_anonymous true\n"):
        # As another user than root it could not enter its directory.
        self.write("mosquitto.conf", f"listener {self.port} 127.0.0.1\nuser root\npersistence true\n"
                   f"persistence_location {self.path('')}\nmax_queued_messages 0\nlog_dest stderr\n{settings}")
        self.broker = self.start("/usr/sbin/mosquitto", f"-c {self.path('mosquitto.conf')}")
        self.broker.await_error(" running")

    def stop_broker(self):
        self.broker.expect_stop(signal.SIGTERM)

    def subscriber(self, arguments):
        return self.start("stdbuf", f"-oL mosquitto_sub -h 127.0.0.1 -p {self.port} {arguments}")

    def collect(self):
        """A collector that has subscribed to all events; each line of it begins with the time of receipt."""
        collector = "-i collector -c -q 1 -t report_event/+/+/+"
        self.subscriber(f"{collector} -E").expect_end()
        return self.subscriber(f"{collector} -F %U%p")

    def forwarder(self, arguments):
        return self.start(FORWARDER, f"--broker {self.address} --outbox {self.outbox} {arguments}")

    def held(self):
        """How many events the outbox holds."""
        return number_in(self.outbox, "SELECT count(*) FROM outbox")
