"""What report-event-monitor does beyond the plain road: when it ends, and what it says on the way."""
import json
import os
import pty
import signal

from programs import MONITOR, PM, SECURITY, ProgramsTest, numbered_records


class Monitor(ProgramsTest):
    def test_ends_once_nothing_can_arrive_any_more_and_no_sooner(self):
        self.serve_numbered("x:/res/other", 0, 1)
        self.serve_numbered(SECURITY, 0, 1)
        pm = self.serve_numbered(PM, 0, 1)
        # A loss is no event to count.
        both = self.monitor("--fault dp:/res/pm/fm --fault x:/res/other --count 4", files=2)
        both.events(2)
        families = self.monitor("--fault dp:/res/pm/fm --security", files=2)
        alone = self.monitor("--count 1")
        pm.kill()
        alone.expect_end(1)
        self.assertIn("pm-lost", alone.events(1)[0])
        alone.await_error("lost dp:/res/pm/fm")
        alone.await_error("report-event-monitor: nothing can arrive any more")

        both.await_error("lost dp:/res/pm/fm")
        self.assertIn("pm-lost", both.events(3)[2])
        both.expect_stop(signal.SIGTERM)
        families.expect_stop(signal.SIGTERM)

    def test_ends_when_no_event_has_come_for_a_while(self):
        waiting = self.start(MONITOR, "--fault x:/res/nobody --follow --timeout 2")
        waiting.expect_end(1)
        waiting.await_error("report-event-monitor: no event for 2 s")

        # Together longer than the time, but with no pause that is.
        self.serve(PM, "--kind device --interval 450 --count 6")
        receiving = self.monitor("--timeout 2")
        receiving.expect_end(1)
        self.assertEqual(len(receiving.output()), 6)

    def test_tells_changes_of_state_and_what_the_library_says_only_on_request(self):
        del os.environ["SLOG_LEVELS"]
        with self.serve(PM, "--from -", "000041\n" + numbered_records(0x01, 0, 1)) as pm:
            quiet = self.start(MONITOR, "--json")
            quiet.events(1)
        quiet.expect_end(1)
        # Records arrive while the monitor is registering: the order of the first two is open.
        self.assertEqual(sorted(quiet.errors()),
                         ["dp:/res/pm/fm: a record that cannot be decoded", "lost dp:/res/pm/fm",
                          "receiving dp:/res/pm/fm", "report-event-monitor: nothing can arrive any more"])
        self.assertEqual(pm.errors(), [])

        talkative = self.serve(PM, "--verbose --from -", "000041\n")
        talkative.await_error("IAMRegisterRTService success")
        verbose = self.start(MONITOR, "--verbose")
        verbose.await_error("level=3 module=54: ")
        verbose.await_error("FTEDeSerialize err ret=")

    def test_prints_counts_and_sums_up_only_what_passes_the_filter(self):
        self.serve_numbered(PM, 0, 3)
        self.serve_numbered(SECURITY, 7, 50)
        monitor = self.monitor("--security --fault dp:/res/pm/fm --kind security --count 2 --stats", files=2)
        monitor.expect_numbered(0, 7, 2)
        monitor.expect_end()
        self.assertEqual(len(monitor.output()), 2)
        monitor.await_error("2 events in ")
        monitor.await_error("  2 security from dp:/res/iam/sec_event")
        self.assertNotIn("device from", monitor.transcript())

        # On a terminal it is Ctrl-C that asks for the summary, and nothing else.
        for stop in (signal.SIGINT, signal.SIGTERM):
            _, terminal = pty.openpty()
            watching = self.start(MONITOR, "--fault x:/res/nobody --follow", stdout=terminal)
            watching.await_error("waiting for x:/res/nobody")
            watching.expect_stop(stop)
            self.assertEqual("0 events in " in watching.transcript(), stop == signal.SIGINT)

    def test_touches_no_running_stream_for_a_resource_that_nobody_serves(self):
        monitor = self.start(MONITOR, "--json --follow --fault x:/res/there --fault x:/res/absent")
        monitor.await_error("waiting for x:/res/absent: nobody serves it in ")
        self.serve("x:/res/there", "--quiet --kind device --interval 1 --count 1500")
        monitor.expect_numbered(0, 1, 1500)

        self.serve_numbered("x:/res/absent", 7, 1)
        monitor.expect_numbered(1500, 7, 1)
        self.assertIn('"resource":"x:/res/absent"', monitor.output()[-1])
        monitor.await_error("receiving x:/res/absent, x:/res/there")
        monitor.expect_stop(signal.SIGTERM)

    def test_says_whose_stream_it_takes_and_does_not_take_back_what_is_taken_from_it(self):
        """On a process manager's file and on another one: nothing is reported or reopened, the stream stays."""
        count = 3000  # more than the pool holds
        for resource, kind, option in ((PM, "device", "--fault dp:/res/pm/fm"), (SECURITY, "security", "--security")):
            publisher = self.serve(resource, f"--quiet --kind {kind} --count {count}")
            older = self.start(MONITOR, f"--json --follow {option}")
            older.events(1)
            older.pause()
            publisher.await_error("0xF10209")

            newer = self.start(MONITOR, f"--json {option}")
            newer.await_error(f"taking the stream of {resource} from process {older.pid}")
            newer.await_output(f'Num":{count},"not')
            arrived = len(newer.output())
            newer.expect_numbered(0, count + 1 - arrived, arrived)

            older.go_on()
            older.await_error(f"another reader has taken {resource} (process {newer.pid}); it is not taken back")
            older.expect_end(1)
            self.assertEqual(older.transcript().count("another reader has taken"), 1)
            for unwanted in ("FTEReport", "Reconnect"):
                self.assertNotIn(unwanted, older.transcript())
            newer.expect_stop(signal.SIGTERM)
            publisher.expect_stop(signal.SIGTERM)
            self.assertEqual(publisher.transcript().count("0xF10209"), 1)

    def test_observes_without_taking_anything_and_says_what_it_lost(self):
        count = 50000
        publisher = self.serve(PM, f"--quiet --kind device --count {count}")
        observer = self.start(MONITOR, "--json --observe")
        observer.await_error("observing dp:/res/pm/fm")
        observer.pause()
        client = self.start(MONITOR, f"--json --count {count}")
        client.expect_end()
        self.assertNotIn("taking", "".join(client.errors()))
        client.expect_numbered(0, 1, count)

        observer.go_on()
        observer.await_error("dp:/res/pm/fm: too slow for ")
        observer.expect_stop(signal.SIGTERM)
        arrived = len(observer.output())
        self.assertGreater(arrived, 0)
        observer.await_error(f" {count - arrived} records, which are lost")
        self.assertEqual(publisher.errors(), [])

    def test_lists_who_serves_what_and_who_reads_it(self):
        nobody = self.start(MONITOR, "--list")
        nobody.expect_end()
        self.assertEqual(nobody.output(), [])
        nobody.await_error(f"no resource is served in {self.directory}")

        pm = self.serve(PM, "--count 0")
        other = self.serve("x:/res/other", "--count 0")
        older = self.monitor()
        newer = self.monitor()
        observer = self.start(MONITOR, "--observe")
        observer.await_error("observing ")
        self.assertNotIn("taking ", observer.transcript())
        listing = self.start(MONITOR, "--list --json")
        listing.expect_end()
        self.assertEqual([json.loads(line) for line in listing.output()], [
            {"resource": PM, "pid": pm.pid, "answers": True, "observers": [{"pid": observer.pid}],
             "readers": [{"pid": older.pid, "current": False}, {"pid": newer.pid, "current": True}]},
            {"resource": "x:/res/other", "pid": other.pid, "answers": True, "observers": [], "readers": []}])

        other.pause()
        rows = self.start(MONITOR, "--list")
        rows.expect_end()
        for part in (f"dp:/res/pm/fm          {pm.pid}(", ")*", f" {observer.pid}(", "(does not answer)"):
            rows.await_output(part)
        refused = self.start(MONITOR, "--fault x:/res/other")
        refused.expect_end(1)
        refused.await_error(f"x:/res/other: process {other.pid} serves it and does not answer")

        os.chmod(self.directory, 0o777)
        exposed = self.start(MONITOR, "--list")
        exposed.expect_end(1)
        exposed.await_error(f"report-event-monitor: {self.directory}: Permission denied")
