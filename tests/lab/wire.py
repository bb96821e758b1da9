"""What went over a cable, as the emulator wrote it down outside of the machine: it goes on when the machine is killed, and
whatever the machine's clock is set to.

A machine keeps a file for each cable and each time it was switched on (machine.py); here they are read as one. A ping has
the time at which its sender sent it, by the sender's own clock. So what a program of that machine says of times can be held
against the wire without knowing how far the two clocks are apart.
"""

import bisect
import dataclasses
import pathlib
import struct

FILE_HEADER = 24
RECORD = struct.Struct("<IIII")
TAGGED_ECPRI = bytes.fromhex("aefe")
DELAY_MEASUREMENT = 5
REQUEST, RESPONSE = 0, 2
ANSWERED_WITHIN_S = 3
LOST_IN_A_ROW = 6


@dataclasses.dataclass
class Ping:
    wire: float  # when it was seen, by the host's clock
    sent: float  # when it was sent, by its sender's
    answer: float = None  # when its answer was seen, by the sender's clock too; None: there was none


def frames(paths):
    """Time and bytes of each frame; the last may be half written."""
    for path in paths:
        data = pathlib.Path(path).read_bytes()
        at = FILE_HEADER
        while at + RECORD.size <= len(data):
            seconds, microseconds, length, _ = RECORD.unpack_from(data, at)
            frame = data[at + RECORD.size:at + RECORD.size + length]
            at += RECORD.size + length
            if len(frame) == length:
                yield seconds + microseconds / 1e6, frame


def pings(paths, sender, vlan):
    """Of one sender in one VLAN, in the order in which they were sent."""
    own = bytes.fromhex(sender.replace(":", ""))
    found, waiting = [], {}
    for time, frame in frames(paths):
        if len(frame) < 42 or frame[12:14] != b"\x81\x00" or frame[16:18] != TAGGED_ECPRI or \
           int.from_bytes(frame[14:16], "big") & 0xFFF != vlan or frame[19] != DELAY_MEASUREMENT:
            continue
        number, action = frame[22], frame[23]
        if action == REQUEST and frame[6:12] == own:
            sent = int.from_bytes(frame[24:30], "big") + int.from_bytes(frame[30:34], "big") / 1e9
            found.append(Ping(time, sent))
            waiting[number] = found[-1]
        elif action == RESPONSE and frame[0:6] == own and number in waiting:
            ping = waiting.pop(number)
            if time - ping.wire <= ANSWERED_WITHIN_S:
                ping.answer = ping.sent + time - ping.wire
    return found


def lost(some):
    return sum(ping.answer is None for ping in some)


def cuts(some):
    """When a link has to be called disabled, and enabled again, as the pings say: from the turn after the sixth that was
    lost in a row to the next answer. Pairs of times; the second is None where there was no answer any more.
    """
    found, missed, begin = [], 0, None
    for ping in some:
        if ping.answer is None:
            missed += 1
            if missed == LOST_IN_A_ROW + 1:
                begin = ping.sent
        else:
            if begin is not None:
                found.append((begin, ping.answer))
            missed, begin = 0, None
    return found + ([(begin, None)] if begin is not None else [])


def enabled_spells(changes, enabled_at_first):
    """Of a link's changes: from when to when it was told enabled. None: since before the first, or still. A spell whose end
    nobody told, since who tells was killed, ends with a None in place of its second time and is followed by others.
    """
    found, begin, open_now = [], None, enabled_at_first
    for change in changes:
        if open_now:
            told = change["from"] == "enabled"
            found.append((begin, change["at_us"] / 1e6 if told else None))
        open_now = change["to"] == "enabled"
        begin = change["at_us"] / 1e6
    return found + ([(begin, None)] if open_now else [])


def disagreements(some, changes, enabled_at_first, slack_s):
    """What the pings and the link's changes say of the same time, by the same clock. An answer outside of every spell in
    which the link was told enabled; a spell that goes on where six pings in a row were not answered. In sentences.
    """
    wrong = []
    answers = sorted(ping.answer for ping in some if ping.answer is not None)
    spells = enabled_spells(changes, enabled_at_first)
    begins = [begin if begin is not None else float("-inf") for begin, _ in spells]
    for answer in answers:
        place = bisect.bisect_right(begins, answer + slack_s) - 1
        end = spells[place][1] if place >= 0 else float("-inf")
        if end is not None and answer > end + slack_s:
            wrong.append(f"answered at {answer:.2f}, and not called enabled then")
    for number, (begin, end) in enumerate(spells):
        first = answers[0] if begin is None and answers else begin
        inside = [a for a in answers if (begin is None or a >= begin - slack_s) and (end is None or a <= end + slack_s)]
        if begin is not None and (not inside or inside[0] > begin + slack_s):
            wrong.append(f"enabled at {begin:.2f}, and no answer then")
        if end is None and number + 1 < len(spells):
            continue  # nobody was there to tell its end
        stops = [first, *inside, *([end] if end is not None else [])]
        for earlier, later in zip(stops, stops[1:]):
            if later - earlier > LOST_IN_A_ROW + 1 + 2 * slack_s:
                wrong.append(f"called enabled from {earlier:.2f} to {later:.2f}, and no answer in between")
    return wrong
