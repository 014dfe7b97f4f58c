"""report-event-forward beside `mosquitto_pub -l` with the same payloads, in pairs: prints a Markdown table.

Both send to one broker with quality of service 1, and one subscriber receives. The forwarder takes its events from a
publisher and commits each to its outbox; mosquitto_pub reads lines and keeps nothing.
"""
import atexit
import json
import os
import pathlib
import resource
import socket
import statistics
import subprocess
import sys
import tempfile
import time

TOOLS = pathlib.Path(sys.argv[1])
QUICK = "--quick" in sys.argv
COUNT, ROUNDS = (2000, 1) if QUICK else (30000, 5)
PACED = 50  # mosquitto_pub holds back what comes after its first 50 KB of lines until its input ends
PAUSE_S = 0.01
RESOURCE = "x:/res/bench"


class Broker:
    def __init__(self, directory):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = str(free.getsockname()[1])
        path = directory / "mosquitto.conf"
        path.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\nuser root\n")
        self.process = subprocess.Popen(["/usr/sbin/mosquitto", "-c", path], stderr=subprocess.PIPE, text=True)
        atexit.register(self.process.kill)
        for line in self.process.stderr:
            if " running" in line:
                break

    def subscribe(self, count):
        """A process that prints time and payload of so many messages, already subscribed."""
        command = ["mosquitto_sub", "-d", "-p", self.port, "-q", "1", "-t", "+/+/+/+", "-C", str(count),
                   "-F", "=%U %p"]
        process = subprocess.Popen(["stdbuf", "-oL", *command], stdout=subprocess.PIPE, text=True)
        for line in process.stdout:
            if line.startswith("Subscribed"):
                return process


def received(subscriber):
    """Time and event of each message, once the subscriber has all."""
    lines = [line[1:].split(" ", 1) for line in subscriber.communicate()[0].splitlines() if line.startswith("=")]
    return [(float(at), json.loads(payload)) for at, payload in lines]


def forward(broker, directory, count, interval):
    """What arrived, the seconds of processor time of the forwarder, and when it was told to start."""
    outbox = directory / "outbox"
    for old in directory.glob("outbox*"):
        old.unlink()
    publisher = subprocess.Popen(
        [TOOLS / "report-event-publish", "--resource", RESOURCE, "--kind", "device", "--wait", "--serve", "--quiet",
         "--count", str(count), "--interval", str(interval)], stdout=subprocess.PIPE, text=True)
    publisher.stdout.readline()
    subscriber = broker.subscribe(count)
    start = time.time()
    forwarder = subprocess.Popen([TOOLS / "report-event-forward", "--broker", f"mqtt://127.0.0.1:{broker.port}",
                                  "--fault", RESOURCE, "--outbox", outbox], stderr=subprocess.DEVNULL)
    events = received(subscriber)
    forwarder.terminate()
    usage = os.wait4(forwarder.pid, 0)[2]
    publisher.terminate()
    publisher.wait()
    return events, usage.ru_utime + usage.ru_stime, start


def mosquitto_pub(broker, payloads, pause):
    subscriber = broker.subscribe(len(payloads))
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.time()
    sender = subprocess.Popen(["mosquitto_pub", "-p", broker.port, "-q", "1", "-t", "bench/host/resource/kind", "-l"],
                              stdin=subprocess.PIPE, text=True)
    for payload in payloads:
        if pause:
            payload = dict(payload, eventArisedTime=time.time_ns())
        sender.stdin.write(json.dumps(payload, separators=(",", ":")) + "\n")
        if pause:
            sender.stdin.flush()
            time.sleep(pause)
    sender.stdin.close()
    sender.wait()
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return received(subscriber), cpu, start


def delay_ms(events):
    return statistics.median(at * 1e3 - event["eventArisedTime"] / 1e6 for at, event in events)


def main():
    rows = {"events/s, forward ÷ mosquitto_pub (at least 0.5)": [], "processor time, ÷ (at most 2)": [],
            "p50 at 100/s above mosquitto_pub, ms (at most 3)": []}
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        os.environ["IAM_RUNTIME_DIR"] = name + "/iam"
        pathlib.Path(name, "iam").mkdir(mode=0o700)
        broker = Broker(directory)
        for number in range(ROUNDS):
            events, cpu, start = forward(broker, directory, COUNT, 0)
            payloads = [event for _, event in events]
            others, other_cpu, other_start = mosquitto_pub(broker, payloads, 0)
            rate, other_rate = COUNT / (events[-1][0] - start), COUNT / (others[-1][0] - other_start)
            paced = delay_ms(forward(broker, directory, PACED, 10)[0])
            other_paced = delay_ms(mosquitto_pub(broker, payloads[:PACED], PAUSE_S)[0])
            values = rate / other_rate, cpu / other_cpu, paced - other_paced
            for row, value in zip(rows.values(), values):
                row.append(value)
            print(f"round {number + 1}: {rate:.0f} and {other_rate:.0f} events/s, {cpu / COUNT * 1e6:.1f} and "
                  f"{other_cpu / COUNT * 1e6:.1f} µs of processor time, p50 {paced:.2f} and {other_paced:.2f} ms",
                  file=sys.stderr)
    print("| figure | lowest | median | highest |\n|---|---|---|---|")
    for label, values in rows.items():
        print(f"| {label} | {min(values):.2f} | {statistics.median(values):.2f} | {max(values):.2f} |")


main()
