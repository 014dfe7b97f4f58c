"""The faults of the soak. Each hits a publisher and a subscriber of any kind, and leaves all of them alive and reading.

A fault is told by the name of its function.
"""
import contextlib
import ctypes
import resource
import signal
import time

from processes import Publisher

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


def subscriber_stopped_for_a_while(soak, _, subscriber):
    subscriber.stall(asleep=True)
    time.sleep(soak.random.uniform(0, 0.6))
    subscriber.go_on()


def refused(soak, number, why):
    second = Publisher(soak, number)
    result = second.answer()
    soak.check(result == soak.facts["service_failed"], f"{why} was not refused: {result:#x}")
    second.process.kill()
    second.process.wait()
    soak.children.remove(second)


def second_service_of_a_name(soak, publisher, _):
    refused(soak, publisher.resource, "a second service of the same name")


def storm_of_sigpipe_at_read_threads(soak, _, subscriber):
    threads, leaving = list(subscriber.read_threads()), soak.chance(0.3)
    if leaving:
        subscriber.send("stop")
    for thread in threads * soak.random.randint(20, 300):
        libc.tgkill(subscriber.pid, thread, signal.SIGPIPE)  # the thread may be gone by now
        soak.figures["signals"] += 1
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


def superseded_reader_that_stalls(soak, publisher, _):
    """It is cut off when it holds the blocks of an empty pool, and must not take the stream from the newest reader."""
    with one_reader(soak) as (older, newer):
        older.stall(asleep=soak.chance(0.5))
        if soak.chance(0.7):
            soak.until_pool_is_empty(publisher)
        soak.start_again(newer)
        soak.until_stream_goes_on(publisher, newer)
        older.go_on()
        soak.until_stream_goes_on(publisher, newer)


def superseded_reader_that_is_slow(soak, publisher, _):
    """It holds all blocks, and is not cut off while it is the current one; then it reads one after the other, and gets
    all of them."""
    with one_reader(soak) as (older, newer):
        older.stall(asleep=False)
        soak.until_pool_is_empty(publisher)
        older.go_on(microseconds=soak.random.randint(300, 1000))
        accepted = list(publisher.board.accepted)
        soak.start_again(newer)
        soak.wait_until(lambda: all(map(int.__ge__, older.newest(publisher.resource).next, accepted)),
                        f"{older.name}, superseded and slow, does not get what was accepted for it")
        older.go_on()
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


def full_disk_of_the_runtime_directory(soak, publisher, _):
    soak.retire(publisher, "quit")
    fillers, full = [], False
    while not full:
        path = soak.directory / f"filler{len(fillers)}"
        try:
            path.touch()
            fillers.append(path)
            path.write_bytes(bytes(65536))
        except OSError:
            full = not path.exists()  # no file can be made; before that, no byte could be written
    refused(soak, publisher.resource, "a service in a full runtime directory")
    for path in fillers:
        path.unlink()
    soak.serve(publisher.resource).ask("go")


def no_descriptors(soak, publisher, subscriber):
    short = soak.random.choice([publisher, subscriber])
    soak.stop(subscriber)
    short.limit_descriptors(soak.random.randint(0, 8))
    soak.start(subscriber)
    if short is subscriber and soak.chance(0.5):  # a reconnection under the limit
        soak.restart(soak.facts["ordinary"], "kill")
    short.limit(resource.RLIMIT_NOFILE, None)
    soak.start_again(subscriber)


def no_memory_for_threads_of_a_subscriber(soak, _, subscriber):
    soak.stop(subscriber)
    size = int((subscriber.proc / "statm").read_text().split()[0]) * resource.getpagesize()
    # Too little for a pool, for a thread, for a second or a third thread.
    subscriber.limit(resource.RLIMIT_AS, size + soak.random.randrange(1 << 16, 40 << 20))
    soak.figures["starts without memory that failed"] += not soak.start(subscriber, may_throw=True)
    subscriber.limit(resource.RLIMIT_AS, None)
    soak.start_again(subscriber)


def stop_during_a_reconnection(soak, _, subscriber):
    soak.retire(soak.publishers[soak.facts["ordinary"]], "kill")
    soak.pause_between()
    soak.stop(subscriber, reconnecting=True)
    soak.serve(soak.facts["ordinary"]).ask("go")
    soak.start(subscriber)


def service_that_never_answers(soak, _, subscriber):
    """Accepts connections and never answers: an open takes its whole time, alone or in a reconnection."""
    soak.retire(soak.publishers[soak.facts["ordinary"]], "kill")
    wedged = Publisher(soak, soak.facts["ordinary"], "wedge")
    soak.wait_until(wedged.stopped, "the wedged service does not come up")
    time.sleep(soak.random.uniform(0, 1.3))
    soak.stop(subscriber, reconnecting=True)
    soak.start(subscriber)
    wedged.process.send_signal(signal.SIGCONT)
    soak.check(wedged.answer() == 0, "the wedged service does not serve afterwards")
    soak.publishers[soak.facts["ordinary"]] = wedged
    wedged.ask("go")


FAULTS = [publisher_killed_or_restarted, subscriber_killed, subscriber_leaves_and_returns,
          subscriber_stopped_for_a_while, second_service_of_a_name, storm_of_sigpipe_at_read_threads,
          superseded_reader_that_stalls, superseded_reader_that_is_slow, observer_beside_a_reader,
          full_disk_of_the_runtime_directory, no_descriptors, no_memory_for_threads_of_a_subscriber,
          stop_during_a_reconnection, service_that_never_answers]
