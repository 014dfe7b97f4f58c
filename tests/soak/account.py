"""What the processes of a round owe each other, told by time alone.

A reader must get all that was accepted by a call that began after the reader's open had returned and ended before another
reader began to open the resource: in order, once, unaltered; less only what waits unread when the reader itself leaves, is
killed, or is superseded and cut off.
"""
import collections
import errno
import itertools

from processes import NEVER, PROCESS_MANAGER, Publisher, Subscriber

SECOND = 10**9
OPEN_BOUND, PUBLISH_BOUND = SECOND, SECOND


def common(one, other):
    """How many numbers are in both ranges."""
    return max(0, min(one.stop, other.stop) - max(one.start, other.start))


def opens_of(subscriber):
    """Its attempts to open a resource, each with whether its read thread went on to the next and whether it stayed."""
    alive, later = subscriber.died == NEVER, {}
    for each in reversed(list(subscriber.connections())):
        if not each.ended:
            each.ended, each.openError = NEVER if alive else subscriber.died + SECOND, errno.EINPROGRESS
        next_one = later.get(each.resource)
        each.followed = bool(next_one and next_one.reopened)
        each.stayed = alive and subscriber.started if next_one is None else each.followed
        each.cut_off = each.error == errno.ESTALE
        each.lost_publisher = each.error == errno.EPIPE
        later[each.resource] = each
        yield each


class Account:
    """The connections of a round, each with the publisher it led to (None if that is not certain) and the time until
    which it was surely the current one."""

    def __init__(self, soak):
        self.soak, self.check, self.figures = soak, soak.check, soak.figures
        self.publishers = {publisher.run: publisher for publisher in soak.of_round(Publisher)}
        self.subscribers = soak.of_round(Subscriber)
        self.opens = [each for subscriber in self.subscribers for each in opens_of(subscriber)]
        self.connections = [each for each in self.opens if not each.openError]
        for each in self.opens:
            each.who = f"{each.owner.name}, open {each.number} of resource {each.resource} (run {each.run})"
            each.superseded = min((other.begun for other in self.opens if other is not each and not other.owner.observes
                                   and other.resource == each.resource and other.ended > each.begun), default=NEVER)
            each.publisher = self.publisher_of(each)
            each.publisher_lives = each.publisher and not (each.publisher.ending <= each.failed)
            each.lanes = list(self.lanes_of(each)) if each.publisher else []

    def publisher_of(self, connection):
        if connection.run:
            return self.publishers.get(connection.run)
        serving = [publisher for publisher in self.publishers.values() if publisher.resource == connection.resource and
                   publisher.begun <= connection.ended and publisher.died >= connection.begun]
        return serving[0] if len(serving) == 1 else None

    def lanes_of(self, connection):
        """Of each lane the records that had to come, that may have come, that came."""
        for lane, came in enumerate(map(range, connection.first, connection.next)):
            accepted = connection.publisher.accepted
            owed = accepted(lane, connection.ended, connection.superseded, begun_too=True)
            if connection.owner.observes:  # it may lose any
                owed = owed[:0]
            elif connection.cut_off or not connection.stayed:  # and may have left some unread
                owed = owed[:max(0, came.stop - owed.start)]
            yield owed, accepted(lane, connection.begun), came

    def missing(self):
        """What has not reached a reader that must reach it: a text, or None."""
        for each in self.connections:
            if any(common(owed, came) < len(owed) for owed, _, came in each.lanes):
                return f"{each.who}: never delivered: lanes {each.lanes}"
        return None

    def settle(self):
        """Everything else that must hold, once everything owed has come."""
        for each in self.opens:
            took = each.ended - each.begun if each.openError != errno.EINPROGRESS else 0
            self.soak.check_time("open", each.who, took, OPEN_BOUND)
        for each in self.connections:
            self.settle_end(each)
            self.settle_records(each)
        self.settle_repetitions()
        for subscriber in self.subscribers:
            self.settle_subscriber(subscriber)
        for publisher in self.publishers.values():
            other = publisher.board.otherCode
            self.check(other == 0, f"{publisher.name}: a publish returned {other:#x}")
            self.soak.check_time("publish", publisher.name, max(publisher.board.slowest), PUBLISH_BOUND)
            publisher.seen = list(publisher.board.accepted)

    def settle_end(self, each):
        self.figures["connections"] += 1
        self.figures["superseded readers cut off"] += each.cut_off
        known = [0, errno.EBADF, errno.EPIPE] + [errno.ESTALE] * (not each.owner.observes)
        self.check(each.error in known, f"{each.who}: reading: errno {each.error}")
        self.check(not (each.lost_publisher and each.publisher_lives), f"{each.who}: lost its publisher, which lives")
        if each.cut_off:
            stalls = [begun for begun, ended in each.owner.stalls if begun < each.failed and ended > each.superseded]
            self.check(each.superseded != NEVER, f"{each.who}: was cut off, and nobody had superseded it")
            self.check(stalls, f"{each.who}: was cut off while it read")
            self.check(each.failures == 1, f"{each.who}: was cut off {each.failures} times")
            self.check(not each.followed, f"{each.who}: was cut off, and took the stream back")

    def settle_records(self, each):
        out_of_sequence = each.disorder + each.missed * (not each.owner.observes)
        self.check(not out_of_sequence, f"{each.who}: {out_of_sequence} records out of sequence")
        self.check(each.publisher or not each.run, f"{each.who}: got records of a run that is none of this round")
        self.figures["records checked"] -= each.missed
        for owed, possible, came in each.lanes:
            killed = each.publisher.died != NEVER  # perhaps between acceptance and note
            self.check(common(came, range(possible.start, possible.stop + killed)) == len(came),
                       f"{each.who}: {came} came, only {possible} may have")
            self.figures["records checked"] += len(came)
            self.figures["records owed to a reader that stayed"] += len(owed) * each.stayed

    def settle_repetitions(self):
        delivered = collections.defaultdict(list)
        for each in (each for each in self.connections if not each.owner.observes):
            for lane, (_, _, came) in enumerate(each.lanes):
                delivered[each.run, lane] += [(came.start, came.stop, each.who)] if came else []
        for deliveries in delivered.values():
            for (_, after, who), (first, _, other) in itertools.pairwise(sorted(deliveries)):
                self.check(first >= after, f"{who}, {other}: {first} was delivered twice")

    def settle_subscriber(self, subscriber):
        name, board = subscriber.name, subscriber.board
        self.check(not board.altered, f"{name}: {board.altered} records came altered")
        subscriber.managers_ended += sum(
            each.lost_publisher and not each.publisher_lives and each.owner is subscriber and
            each.resource == PROCESS_MANAGER for each in self.connections)
        self.check(board.losses <= subscriber.managers_ended,
                   f"{name}: {board.losses} losses of the process manager reported, not {subscriber.managers_ended}")
        self.figures["losses of the process manager reported"] += board.losses - subscriber.losses
        subscriber.losses, subscriber.seen, subscriber.stalls = board.losses, board.opens, []
