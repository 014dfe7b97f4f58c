"""Many machines and one real broker: nothing is lost or out of order, and how long that takes.

Usage: fleet_test.py OUTBOXES EVENTS_PER_SECOND SECONDS RECONNECTIONS
"""
import os
import pathlib
import sys
import time
import unittest

from broker import BrokerTest, in_order
from programs import BUILD, happens


def memory_of(pid):
    [line] = [line for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines() if line.startswith("VmRSS")]
    return " ".join(line.split()[1:])


def processor_seconds_of(pid):
    words = pathlib.Path(f"/proc/{pid}/stat").read_text().split()
    return (int(words[13]) + int(words[14])) / os.sysconf("SC_CLK_TCK")


class Fleet(BrokerTest):
    plan = 20, 10, 3, 10

    def test_every_event_of_every_machine_arrives_in_order(self):
        outboxes, rate, seconds, _ = self.plan
        total = outboxes * rate * seconds
        self.start_broker()
        collector = self.collect()
        idle = memory_of(self.broker.pid)
        arguments = " ".join(map(str, [self.path(""), self.port, *self.plan]))
        machines = self.start(f"{BUILD}/tests/system/fleet", arguments)
        while not machines.has_ended():
            connected = memory_of(self.broker.pid)
            time.sleep(0.1)
        machines.expect_end()
        self.assertTrue(happens(lambda: len(in_order(collector.output())[0]) >= total))
        events, repeats = in_order(collector.output())
        times = sorted(event["received"] * 1e3 - event["sent"] / 1e6 for event in events)
        print(f"{len(times)} of {total} events received in order, {repeats} repeats")
        print(f"from outbox to collector: p50 {times[total // 2]:.2f} ms, p99 {times[total * 99 // 100]:.2f} ms, "
              f"longest {times[-1]:.2f} ms")
        print(f"broker: memory {idle} idle, {connected} with {outboxes} connections; "
              f"{processor_seconds_of(self.broker.pid)} s of processor time in {seconds} s")
        self.assertEqual(len(events), total)


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    Fleet.plan = tuple(map(int, sys.argv[1:]))
    unittest.main(argv=sys.argv[:1])
