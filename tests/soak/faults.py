"""The faults of the soak. Each hits a publisher and a subscriber of any kind, and leaves all of them alive and reading.

A fault is told by the name of its function.
"""
import contextlib
import ctypes
import signal

from processes import OK, ORDINARY, Observer, Publisher, Reader

RECONNECTING_STOP_BOUND = 300_000_000
libc = ctypes.CDLL(None, use_errno=True)


def connect(soak, subscriber):
    """It connects at whatever happens next."""
    soak.tell(subscriber, "stop")
    subscriber.send("start")
    soak.pause(0.002)


def publisher_killed_or_restarted(soak, publisher, subscriber):
    connecting = soak.random.choice([True, False])
    if connecting:
        connect(soak, subscriber)
    publisher.end(soak.random.choice(["kill", "quit"]))
    soak.pause()
    soak.serve(publisher.resource).ask("go")
    if connecting:
        soak.finish(subscriber, "start")


def subscriber_killed(soak, _, subscriber):
    if soak.random.choice([True, False]):
        connect(soak, subscriber)
    subscriber.end("kill")
    soak.tell(type(subscriber)(soak), "start")


def subscriber_leaves_and_returns(soak, _, subscriber):
    soak.tell(subscriber, "stop")
    soak.pause()
    soak.tell(subscriber, "start")


def storm_of_sigpipe_at_read_threads(soak, _, subscriber):
    threads = [int(task.name) for task in (subscriber.proc / "task").iterdir()
               if (task / "comm").read_text().startswith("Rd_")]
    leaving = soak.random.random() < 0.3
    if leaving:
        subscriber.send("stop")
    for thread in threads * soak.random.randint(20, 300):
        libc.tgkill(subscriber.pid, thread, signal.SIGPIPE)  # the thread may be gone by now
    if leaving:
        soak.finish(subscriber, "stop")
        soak.tell(subscriber, "start")


@contextlib.contextmanager
def one_reader(soak):
    """It, and one of those that are stopped meanwhile: none may reconnect just now and take the stream."""
    reader, *others = soak.random.sample(soak.alive(Reader), len(soak.alive(Reader)))
    for other in others:
        soak.tell(other, "stop")
    soak.start_again(reader)
    yield reader, others[0]
    for other in others:
        if not other.started:
            soak.tell(other, "start")


def superseded_reader_that_stalls(soak, *_):
    """It is cut off when it holds the blocks of an empty pool, and must not take the stream from the newest reader."""
    with one_reader(soak) as (older, newer):
        older.stop_reading()
        soak.until_pools_are_empty()
        soak.start_again(newer)
        for publisher in soak.alive(Publisher):
            soak.until_stream_goes_on(publisher, newer)
        older.read_on()
        for publisher in soak.alive(Publisher):
            soak.until_stream_goes_on(publisher, newer)


def observer_beside_a_reader(soak, publisher, _):
    """It reads, then it does not for a while, and is told how many records that has cost it."""
    observer = soak.random.choice(soak.alive(Observer))
    with one_reader(soak) as (reader, _):
        publisher.ask("pause")
        soak.start_again(observer)
        before = publisher.count(OK)
        publisher.ask("go")
        soak.until_stream_goes_on(publisher, reader)
        observer.stop_reading()
        soak.until_stream_goes_on(publisher, reader)
        observer.read_on()
        publisher.ask("pause")
        soak.until_observer_knows(observer, publisher, publisher.count(OK) - before)
        publisher.ask("go")


def stop_during_a_reconnection(soak, _, subscriber):
    [ordinary] = [publisher for publisher in soak.alive(Publisher) if publisher.resource == ORDINARY]
    ordinary.end("kill")
    soak.pause()
    subscriber.send("stop")
    soak.finish(subscriber, "stop", "stop while reconnecting", RECONNECTING_STOP_BOUND)
    soak.serve(ORDINARY).ask("go")
    soak.tell(subscriber, "start")


FAULTS = [publisher_killed_or_restarted, subscriber_killed, subscriber_leaves_and_returns,
          storm_of_sigpipe_at_read_threads, superseded_reader_that_stalls, observer_beside_a_reader,
          stop_during_a_reconnection]
