"""report-event-forward and a real broker: what is taken arrives, whoever goes away on the way."""
import random
import signal
import socket
import time
import urllib.parse

from broker import BrokerTest, await_number, in_order, number_in
from programs import PATIENCE, PM, PUBLISHER, SECURITY, happens

WINDOW = 100  # events that the broker may have and not have acknowledged


class Forward(BrokerTest):
    def expect_serials(self, collector, count):
        """Every event is in its place, that of its number. Returns how many came again."""
        events, repeats = in_order(collector.output())
        self.assertEqual([event["eventSerialNum"] for event in events], list(range(1, count + 1)))
        return repeats

    def test_sends_the_object_of_the_monitor_with_host_outbox_and_number_and_its_status(self):
        self.start_broker()
        collector = self.collect()
        topics = self.subscriber("-v -t #")
        self.serve(SECURITY, "--kind security --name odd/+#name --arised-time 7")
        forwarder = self.forwarder("--security")
        host = socket.gethostname()
        below = f"report_event/{urllib.parse.quote(host, safe='')}"
        topics.await_output(f"{below}/status online")
        topics.await_output(f'{below}/dp%3A%2Fres%2Fiam%2Fsec_event/security {{"kind":"security",')

        [event], _ = in_order(collector.events(1))
        expected = {"host": host, "seq": 1, "resource": SECURITY, "eventName": "odd/+#name", "eventArisedTime": 7}
        self.assertEqual(event, {**event, **expected})
        self.assertEqual(len(event["outbox"]), 16)

        # Whichever way it goes, the broker says so.
        forwarder.expect_stop(signal.SIGTERM)
        topics.await_output(f"{below}/status offline", 1)
        again = self.forwarder("--security")
        topics.await_output(f"{below}/status online", 2)
        again.kill()
        topics.await_output(f"{below}/status offline", 2)

    def test_loses_nothing_when_the_broker_stops_in_a_stream(self):
        self.start_broker()
        collector = self.collect()
        forwarder = self.forwarder("--follow")
        self.serve(PM, "--kind device --count 2000 --interval 1")
        await_number(collector, 300)
        self.stop_broker()
        forwarder.await_error("; trying again")
        self.start_broker()
        await_number(collector, 2000)
        forwarder.expect_stop(signal.SIGTERM)
        self.assertLessEqual(self.expect_serials(collector, 2000), WINDOW)
        self.assertEqual(self.held(), 0)
        forwarder.await_error(f"connected to {self.address}", 2)

    def test_loses_nothing_that_was_taken_when_it_is_killed_twenty_times(self):
        self.start_broker()
        collector = self.collect()
        with self.serve(PM, "--kind device --quiet --interval 1 --count 1000000"):
            for _ in range(20):
                before = len(collector.output())
                forwarder = self.forwarder("")
                collector.await_output("", before + 1 + random.randrange(100))
                forwarder.kill()

        def the_rest_is_sent():  # nothing joins it any more
            forwarder = self.forwarder("--follow")
            forwarder.await_error("connected to")
            forwarder.expect_stop(signal.SIGTERM)
            return self.held() == 0
        self.assertTrue(happens(the_rest_is_sent))
        taken = number_in(self.outbox, "SELECT removed FROM state")
        await_number(collector, taken)
        events, repeats = in_order(collector.output())
        self.assertEqual(len(events), taken)
        self.assertLessEqual(repeats, 20 * WINDOW)
        serials = [event["eventSerialNum"] for event in events]
        self.assertEqual(serials, sorted(set(serials)))

    def test_takes_a_burst_while_the_broker_is_away(self):
        forwarder = self.forwarder("--fault x:/res/burst --follow")
        publisher = self.start(PUBLISHER, "--resource x:/res/burst --wait --quiet --kind device --count 50000")
        forwarder.await_error("; trying again")
        publisher.expect_end()
        self.start_broker()
        collector = self.collect()
        await_number(collector, 50000)
        self.assertEqual(self.expect_serials(collector, 50000), 0)

    def test_says_what_a_full_outbox_has_dropped(self):
        publisher = self.serve(PM, "--kind device --count 150")
        forwarder = self.forwarder("--outbox-limit 100")
        publisher.await_output("150/150 ")
        publisher.kill()
        forwarder.expect_end(1)  # nothing can arrive any more, and the last event was that
        forwarder.await_error("is full: the oldest events are dropped")
        self.assertEqual(self.held(), 100)

        self.start_broker()
        collector = self.collect()
        later = self.forwarder("--outbox-limit 100 --follow")
        await_number(collector, 152)
        later.await_error("51 events were dropped, numbers 1 to 51")
        events, _ = in_order(collector.output())
        self.assertEqual(len(events), 101)
        self.assertEqual(events[0]["eventSerialNum"], 52)
        self.assertEqual(events[99]["kind"], "pm-lost")
        notice = {"kind": "dropped", "count": 51, "first": 1, "last": 51}
        self.assertEqual(events[100], {**events[100], **notice})

    def test_ends_in_time_though_the_broker_is_frozen_and_keeps_what_it_has_not_acknowledged(self):
        self.start_broker()
        forwarder = self.forwarder("--follow")
        forwarder.await_error("connected to")
        self.broker.pause()
        self.start(PUBLISHER, "--resource dp:/res/pm/fm --wait --quiet --kind device --count 500").expect_end()
        forwarder.await_error("lost dp:/res/pm/fm")
        forwarder.expect_stop(signal.SIGTERM)
        self.assertEqual(self.held(), 500 + 1)  # and the loss of the process manager

    def test_tries_the_older_version_of_the_protocol_and_then_pauses_for_longer_and_longer(self):
        with socket.create_server(("127.0.0.1", self.port)) as listener:
            listener.settimeout(PATIENCE)

            def refused_version():
                """Which version the next client asks for. It is told that this one is not known."""
                client, _ = listener.accept()
                with client:
                    _, version = client.recv(1024).split(b"MQTT", 1)
                    client.sendall(b"\x20\x02\x00\x01")
                return version[0]

            forwarder = self.forwarder("--follow")
            self.assertEqual([refused_version(), refused_version()], [5, 4])
            start = time.monotonic()
            self.assertEqual([refused_version(), refused_version()], [4, 4])
            self.assertGreaterEqual(time.monotonic() - start, 1.5)
            forwarder.await_error("unacceptable protocol version")

    def test_drops_the_oldest_when_the_disk_is_full_and_goes_on(self):
        """A file that may not grow beyond two megabytes is a full disk."""
        forwarder = self.shell("ulimit -f 4096; exec FORWARDER --fault x:/res/much --follow "
                               f"--broker {self.address} --outbox {self.outbox}")
        served = "--resource x:/res/much --wait --quiet --kind device"
        self.start(PUBLISHER, f"{served} --count 3000").expect_end()
        forwarder.await_error("lost x:/res/much")
        self.assertNotIn("is full", forwarder.transcript())  # for the disk has room
        self.start(PUBLISHER, f"{served} --count 7000").expect_end()
        forwarder.await_error("is full: the oldest events are dropped")
        self.start_broker()
        collector = self.collect()
        collector.await_output('"kind":"dropped"')
        events, _ = in_order(collector.output())
        notice = next(event for event in events if event["kind"] == "dropped")
        self.assertEqual(notice, {**notice, "first": 1, "count": notice["last"], "seq": 10001})
        self.assertEqual(events[0]["seq"], notice["last"] + 1)
        forwarder.expect_stop(signal.SIGTERM)

    def test_leaves_the_client_of_an_observed_resource_all_of_its_events(self):
        self.start_broker()
        collector = self.collect()
        self.serve(PM, "--kind device --interval 1 --count 1000")
        forwarder = self.forwarder("--observe")
        forwarder.await_error("observing")
        monitor = self.monitor()
        monitor.expect_numbered(0, 1, 1000)
        await_number(collector, 1000)
        self.expect_serials(collector, 1000)
