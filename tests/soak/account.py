"""What the processes of a round owe each other, told by time alone.

A reader must get all that was accepted by a call that began after the reader's open had returned and ended before another
reader began to open the resource: in order, once, unaltered; less only what waits unread when the reader itself leaves, is
killed, or is superseded and cut off.
"""
import bisect
import collections
import errno
import itertools
import operator

from processes import NEVER, PROCESS_MANAGER, Publisher, Subscriber

SECOND = 10**9
OPEN_BOUND = SECOND
begun, returned = operator.itemgetter(0), operator.itemgetter(1)  # of a publisher's call


def opens_of(subscriber):
    """Its attempts to open a resource, each with whether its read thread went on to the next and whether it stayed."""
    alive, later = subscriber.died == NEVER, {}
    for each in reversed(subscriber.look().connections):
        each.ended = each.ended or (NEVER if alive else subscriber.died + SECOND)
        next_one = later.get(each.resource)
        each.followed = bool(next_one and next_one.reopened)
        each.stayed = alive and subscriber.started if next_one is None else each.followed
        later[each.resource] = each
        yield each


class Account:
    """The connections of a round, each with the publisher it led to (None if that is not certain) and the time until
    which it was surely the current one."""

    def __init__(self, soak):
        self.soak, self.check, self.figures = soak, soak.check, soak.figures
        self.subscribers = soak.all_of(Subscriber)
        self.opens = [each for subscriber in self.subscribers for each in opens_of(subscriber)]
        self.publishers = [publisher.look() for publisher in soak.all_of(Publisher)]
        self.connections = [each for each in self.opens if not each.open_error]
        for each in self.connections:
            each.superseded = min((other.begun for other in self.opens if other is not each and not other.observes
                                   and other.resource == each.resource and other.ended > each.begun), default=NEVER)
            each.publisher = self.publisher_of(each)
            each.streams = list(self.streams_of(each)) if each.publisher else []

    def publisher_of(self, connection):
        serving = [publisher for publisher in self.publishers if publisher.resource == connection.resource and
                   publisher.begun <= connection.ended and publisher.died >= connection.begun]
        known = [publisher for publisher in serving if publisher.accepted.keys() & connection.came]
        return (known or serving)[0] if known or len(serving) == 1 else None

    def streams_of(self, connection):
        """Of each stream the records that had to come, that may have come, that came."""
        killed = connection.publisher.died != NEVER  # perhaps between acceptance and note
        for stream, calls in connection.publisher.accepted.items():
            numbers = connection.came.get(stream)
            came = range(numbers[0], numbers[-1] + 1) if numbers else range(0)
            possible = range(bisect.bisect_right(calls, connection.begun, key=returned), len(calls) + killed)
            owed = range(bisect.bisect_right(calls, connection.ended, key=begun),
                         bisect.bisect_left(calls, connection.superseded, key=returned))
            if connection.observes:  # it may lose any
                owed = range(0)
            elif errno.ESTALE in connection.errors or not connection.stayed:  # and may have left some unread
                owed = owed[:max(0, came.stop - owed.start)]
            yield owed, possible, came

    def missing(self):
        """What has not reached a reader that must reach it: a text, or None."""
        for each in self.connections:
            for owed, _, came in each.streams:
                if owed and not (owed[0] in came and owed[-1] in came):
                    return f"{each.name}: never delivered: of {owed} only {came}"
        return None

    def settle(self):
        """Everything else that must hold, once everything owed has come."""
        for each in self.opens:
            took = each.ended - each.begun if each.open_error != errno.EINPROGRESS else 0
            self.soak.check_time("open", each.name, took, OPEN_BOUND)
        for each in self.connections:
            self.settle_end(each)
            self.settle_records(each)
        delivered = collections.Counter((stream, number) for each in self.connections if not each.observes
                                        for stream, numbers in each.came.items() for number in numbers)
        twice = [record for record, times in delivered.items() if times > 1]
        self.check(not twice, f"delivered twice, to readers: {twice[:9]}")
        for subscriber in self.subscribers:
            losses, ended = subscriber.losses, subscriber.managers_ended
            self.check(losses <= ended,
                       f"{subscriber.name}: {losses} losses of the process manager reported, not {ended}")
            subscriber.connections = []

    def settle_end(self, each):
        lost_publisher, cut_off = errno.EPIPE in each.errors, errno.ESTALE in each.errors
        lives = each.publisher and each.failed < each.publisher.ending
        self.figures["connections"] += 1
        self.figures["superseded readers cut off"] += cut_off
        self.check(set(each.errors) <= {errno.EBADF, errno.EPIPE, errno.ESTALE}, f"{each.name}: reading: {each.errors}")
        self.check(not (lost_publisher and lives), f"{each.name}: lost its publisher, which lives")
        each.owner.managers_ended += lost_publisher and not lives and each.resource == PROCESS_MANAGER
        if cut_off:
            stalled = any(begin < each.failed and end > each.superseded for begin, end in each.owner.stalls)
            self.check(not each.observes and each.superseded != NEVER, f"{each.name}: was cut off, and not superseded")
            self.check(stalled, f"{each.name}: was cut off while it read")
            self.check(len(each.errors) == 1, f"{each.name}: was cut off, and read on: {each.errors}")
            self.check(not each.followed, f"{each.name}: was cut off, and took the stream back")

    def settle_records(self, each):
        altered = len(each.came.pop("altered", ()))
        self.check(not altered, f"{each.name}: {altered} records came altered")
        foreign = each.came.keys() - (each.publisher.accepted if each.publisher else ())
        self.check(not foreign, f"{each.name}: {foreign} came, which is not of its publisher")
        for numbers in each.came.values():
            wrong = [number for before, number in itertools.pairwise(numbers)
                     if number <= before or number > before + 1 and not each.observes]
            self.check(not wrong, f"{each.name}: out of sequence: {wrong[:9]}")
            self.figures["records checked"] += len(numbers)
        for owed, possible, came in each.streams:
            self.check(not came or came[0] in possible and came[-1] in possible,
                       f"{each.name}: {came} came, only {possible} may have")
            self.figures["records owed to a reader that stayed"] += len(owed) * each.stayed
