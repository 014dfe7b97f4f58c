"""The faults of the soak. Each hits a publisher and a subscriber of any kind, and leaves all of them alive and reading.

A fault is told by the name of its function.
"""
import contextlib
import ctypes
import signal

from processes import ORDINARY

libc = ctypes.CDLL(None, use_errno=True)


def publisher_killed_or_restarted(soak, publisher, subscriber):
    how = soak.random.choice(["kill", "quit"])
    if soak.chance(0.5):
        return soak.restart(publisher.resource, how)
    soak.stop(subscriber)
    subscriber.send("start")  # and connects just now
    soak.a_moment()
    soak.restart(publisher.resource, how)
    soak.finish_start(subscriber)


def subscriber_killed(soak, _, subscriber):
    if soak.chance(0.5):
        soak.stop(subscriber)
        subscriber.send("start")  # and dies while it connects
        soak.a_moment()
    soak.start(soak.replace(subscriber, "kill"))


def subscriber_leaves_and_returns(soak, _, subscriber):
    soak.stop(subscriber)
    soak.pause_between()
    soak.start(subscriber)


def storm_of_sigpipe_at_read_threads(soak, _, subscriber):
    threads, leaving = list(subscriber.read_threads()), soak.chance(0.3)
    if leaving:
        subscriber.send("stop")
    for thread in threads * soak.random.randint(20, 300):
        libc.tgkill(subscriber.pid, thread, signal.SIGPIPE)  # the thread may be gone by now
    if leaving:
        soak.finish_stop(subscriber)
        soak.start(subscriber)


@contextlib.contextmanager
def one_reader(soak):
    """It, and one of those that are stopped meanwhile: none may reconnect just now and take the stream."""
    reader, *others = soak.random.sample(soak.readers(), len(soak.readers()))
    for other in others:
        soak.stop(other)
    soak.start_again(reader)
    yield reader, others[0]
    for other in others:
        if not other.started:
            soak.start(other)


def superseded_reader_that_stalls(soak, *_):
    """It is cut off when it holds the blocks of an empty pool, and must not take the stream from the newest reader."""
    with one_reader(soak) as (older, newer):
        older.stall(asleep=soak.chance(0.5))
        for publisher in soak.publishers:
            soak.until_pool_is_empty(publisher)
        soak.start_again(newer)
        for publisher in soak.publishers:
            soak.until_stream_goes_on(publisher, newer)
        older.go_on()
        for publisher in soak.publishers:
            soak.until_stream_goes_on(publisher, newer)


def observer_beside_a_reader(soak, publisher, _):
    """It reads, then it does not for a while, and is told how many records that has cost it."""
    observer = soak.random.choice(soak.observers())
    with one_reader(soak) as (reader, _):
        publisher.ask("pause")
        before = sum(publisher.board.accepted)
        soak.start_again(observer)
        publisher.ask("go")
        soak.until_stream_goes_on(publisher, reader)
        observer.stall(asleep=soak.chance(0.5))
        soak.until_stream_goes_on(publisher, reader)
        observer.go_on()
        publisher.ask("pause")
        soak.until_observer_knows(observer, publisher, sum(publisher.board.accepted) - before)
        publisher.ask("go")


def stop_during_a_reconnection(soak, _, subscriber):
    soak.retire(soak.publishers[ORDINARY], "kill")
    soak.pause_between()
    soak.stop(subscriber, reconnecting=True)
    soak.serve(ORDINARY).ask("go")
    soak.start(subscriber)


FAULTS = [publisher_killed_or_restarted, subscriber_killed, subscriber_leaves_and_returns,
          storm_of_sigpipe_at_read_threads, superseded_reader_that_stalls, observer_beside_a_reader,
          stop_during_a_reconnection]
