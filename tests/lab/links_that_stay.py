"""Stories of the two machines about kap-linkd: whatever happens to them, the links are back without a person, and what it
tells of them is what went over the wire.

The wire is written down by the emulator, outside of the machines (wire.py). After each story, for all of its time: the link
was told enabled where its pings were answered, and not where six in a row were not; changes follow each other, with numbers
that ascend.
"""

import dataclasses
import time

import readme
import wire
from scene import BOUND_S, ask, follow, hold, step, wait_link

LINK, VLAN, CABLE = "north", 100, "eth1"
# A change is told some time after the answer or the sixth loss: a machine that is emulated is slow at it.
SLACK_S = 3
# The manual's example of a program that is told of changes, and what it writes.
NOTICE = "/etc/kap-vorn/notify.d/changes"
NOTED = "/var/lib/kap-linkd/changes.txt"
CUT_S = 15
STEADY = 5
# What the daemon had counted since it was asked last goes with it: it is asked every ten seconds.
UNCOUNTED_S = 16
HOUR_S = 3600
ONE_CUT = [("disabled", "no connectivity"), ("enabled", "")]


@dataclasses.dataclass
class Mark:
    """A moment, from which on is looked at. The link is enabled then."""

    pings: int
    change: int
    told: dict


def pings(machine):
    return wire.pings(machine.wire(CABLE), machine.mac[CABLE], VLAN)


def told(machine, since=0):
    return ask(machine, "told", LINK, since)


def mark(machine):
    wait_steady(machine)
    seen = told(machine)
    return Mark(len(pings(machine)), seen["newest"], seen)


def wait_steady(machine):
    """The link is enabled, and the last pings were answered."""
    wait_link(machine, True)
    before = len(pings(machine))
    machine.wait_until("pings are answered", lambda: answered_since(machine, before) >= STEADY, BOUND_S)


def answered_since(machine, count):
    return sum(ping.answer is not None for ping in pings(machine)[count:])


def changes_since(machine, begin):
    """Of the link; one after the other, none missing in between."""
    changes = told(machine, begin.change)["events"]
    numbers = [begin.change] + [change["id"] for change in changes]
    hold(numbers == sorted(set(numbers)), f"numbers of changes do not ascend: {numbers}")
    state = "enabled"
    for change in changes:
        hold(change["from"] in (state, "gone"), f"a change from {change['from']}, after {state}: {change}")
        state = change["to"]
    return changes


def agree(machine, begin):
    """All that was told since then, held against the wire."""
    wait_steady(machine)
    changes = changes_since(machine, begin)
    seen = pings(machine)[begin.pings:]
    wrong = wire.disagreements(seen, changes, True, SLACK_S)
    hold(not wrong, f"{machine.name}: " + "\n".join(wrong) + f"\n{changes}")
    hold(changes[-1]["to"] == "enabled" if changes else True, f"the last change: {changes[-1:]}")
    return changes, f"{len(changes)} changes, {len(seen)} pings"


# ---- The stories ----


def reload(near):
    """What the README says of it. The link is not touched."""
    begin = mark(near)
    near.run("useradd --create-home anna")
    seen = follow(near, "Links that stay")
    hold("enabled" in seen, f"anna does not see the link enabled:\n{seen}")
    near.run(readme.example("kap-linkd.8"))
    follow(near, "Look", document=readme.OPERATIONS)
    near.wait_until("round trips are measured", lambda: told(near)["history"]["counters"]["rtt_samples"] > 0, BOUND_S)
    changes, held = agree(near, begin)
    hold(not changes, f"a reload that has round trips measured changed the link: {changes}")
    near.run("userdel --remove anna")
    step("what the README says of links that stay; a reload leaves the link enabled", held)


def counts(near, far):
    """A cut on the far side, ping by ping."""
    begin = mark(near)
    before = len(pings(near))
    near.write(NOTICE, readme.example("kap-linkd.toml.5"))
    near.run(f"chmod 755 {NOTICE}")
    cut(far, near)
    changes, held = agree(near, begin)
    hold([(c["to"], c["reason"]) for c in changes] == ONE_CUT, f"not one cut: {changes}")
    seen = pings(near)[before:]
    (left, came), = wire.cuts(seen)
    down, up = [change["at_us"] / 1e6 for change in changes]
    late = (down - left, up - came, changes[1]["lasted_us"] / 1e6 - (came - left))
    figures = f"down {late[0]:+.2f} s, up {late[1]:+.2f} s, lasted {late[2]:+.2f} s of {came - left:.1f} s"
    hold(max(map(abs, late)) <= SLACK_S, f"against the wire: {figures}")
    step("a cut: its times and how long it lasted, against the wire", figures)
    near.wait_until("both changes were told to a program", lambda: noted(near) ==
                    [f"{LINK} is disabled no connectivity", f"{LINK} is enabled"], BOUND_S)
    near.run(f"rm {NOTICE}")
    counters_agree(near, begin)
    step("history, what a program of notify.d was told, and the wire agree", held)


def noted(near):
    return [line.strip() for line in near.try_run(f"cat {NOTED}")[1].splitlines()]



def counters_agree(near, begin):
    """While nobody ends: as many pings lost as on the wire, and as many sent as could be judged when it was read."""
    lost = wire.lost(pings(near)[begin.pings:])
    counters = begin.told["history"]["counters"]

    def grown():
        now = told(near)
        more = {name: now["history"]["counters"][name] - counters[name] for name in ("results", "lost")}
        return (more, now["links"][0]) if more["lost"] >= lost else None

    more, link = near.wait_until("the lost pings are counted", grown, BOUND_S)
    on_wire = len(pings(near)) - begin.pings
    daemon = link["lost"] - begin.told["links"][0]["lost"]
    hold(more["lost"] == lost == daemon,
         f"lost on the wire {lost}, as kap-linkd says {more['lost']}, as the daemon {daemon}")
    # What is on its way, what kap-linkd has not asked for yet at both ends, and what was sent while it was asked here.
    hold(0 <= on_wire - more["results"] + UNCOUNTED_S <= 3 * UNCOUNTED_S,
         f"on the wire {on_wire} pings, as kap-linkd says {more['results']}")
    state_times = [sum(counted[name] for name in ("enabled_us", "disabled_us", "waiting_us", "rejected_us")) -
                   counted["watched_us"] for counted in (counters, told(near)["history"]["counters"])]
    hold(state_times == [0, 0], f"the times of the states are not the time that was watched: {state_times}")
    step("counters against the wire", f"lost {more['lost']} of {lost}, sent {more['results']} of {on_wire} seen so far")


def cut(machine, near):
    """The cable on that machine's side, for some seconds after the link was told disabled."""
    machine.set_cable(CABLE, False)
    wait_link(near, False)
    pulled = len(pings(near))
    near.wait_until("it stays so for a while", lambda: len(pings(near)) >= pulled + CUT_S, BOUND_S)
    machine.set_cable(CABLE, True)
    wait_link(near, True)



def power(near, far):
    """What somebody typed is on the disk; what the programs write is their own matter."""
    for machine in (near, far):
        machine.run("sync")
    begin = mark(near)
    cut(far, near)
    before = told(near, begin.change)["events"]
    # A change is on the disk a second after it was told; a machine that is emulated may take longer.
    wait_steady(near)
    seconds = switched_off_and_on(near, near)
    changes, held = agree(near, begin)
    hold(changes[:len(before)] == before, f"before the power went:\n{before}\nafter it came:\n{changes}")
    hold("No such file" in near.try_run("ls /var/lib/kap-linkd/history.db.broken-*")[1], "the history was set aside")
    step("the near machine's power is cut: the link is back, no change that was told is gone",
         f"{seconds:.0f} s after it came; {held}")
    begin = mark(near)
    seconds = switched_off_and_on(far, near)
    changes, held = agree(near, begin)
    hold([(c["to"], c["reason"]) for c in changes] == ONE_CUT, f"not one cut: {changes}")
    step("the far machine's power is cut: the link is lost and back", f"{seconds:.0f} s after it came; {held}")


def switched_off_and_on(machine, near):
    machine.cut_power()
    if machine is not near:
        wait_link(near, False, "no connectivity")
    begin = time.monotonic()
    machine.switch_on()
    machine.wait_ready()
    wait_link(near, True)
    return time.monotonic() - begin


def disk(near, far):
    """The file system of the history takes no byte more. The log of a database that was just opened is short: it cannot be
    written over, only added to.
    """
    near.run("systemctl restart kap-linkd")
    begin = mark(near)
    ask(near, "fill")
    cut(far, near)
    near.wait_until("both changes wait for room", lambda: unwritten(near) >= 2, BOUND_S)
    before = changes_since(near, begin)
    hold(len(before) == 2, f"not one cut: {before}")
    step("disk full: the link goes and comes, and both is told", f"{unwritten(near):.0f} changes wait")
    ask(near, "empty")
    near.wait_until("it is written", lambda: unwritten(near) == 0, BOUND_S)
    hold(ask(near, "kill", "kap-linkd")["seconds"] is not None, "kap-linkd did not come back")
    changes, held = agree(near, begin)
    hold(changes[:2] == before, f"with a full disk:\n{before}\nafterwards:\n{changes}")
    step("room again, then kap-linkd is killed: nothing of it is lost", held)
    begin = mark(near)
    ask(near, "fill")
    for unit in ("kap-linkd", "kap-vorn"):
        seen = ask(near, "kill", unit)
        hold(seen["seconds"] is not None, f"disk full, after the death of {unit}: {seen}")
    ask(near, "empty")
    near.wait_until("it is written", lambda: unwritten(near) == 0, BOUND_S)
    _, held = agree(near, begin)
    step("disk full, kap-linkd and the daemon killed: the link is back, and the history too", held)


def unwritten(near):
    return ask(near, "figure", "kap_history_unwritten_changes")


def clock(near, far):
    """An hour back, and forth again. What was told before has the times of that clock."""
    cut(far, near)
    begin = mark(near)
    since = told(near)["events"][-1]["at_us"] / 1e6
    came = min(pings(near), key=lambda ping: abs((ping.answer or 0) - since)).wire
    watched = begin.told["history"]["availability"]["watched_us"]["hour"]
    near.run(f"date -s @$(($(date +%s) - {HOUR_S}))")
    back = Mark(len(pings(near)), begin.change, begin.told)
    wait_steady(near)
    hold(not changes_since(near, back), "a clock that is set back changes the link")
    cut(far, near)
    changes, held = agree(near, back)
    lasted = changes[0]["lasted_us"] / 1e6
    left = wire.cuts(pings(near)[back.pings:])[0][0]
    really = min(pings(near)[back.pings:], key=lambda ping: abs(ping.sent - left)).wire - came
    hold(abs(lasted - really) <= SLACK_S, f"it was enabled for {really:.1f} s, and {lasted:.1f} s is told")
    hour = told(near)["history"]["availability"]["watched_us"]["hour"]
    hold(watched <= hour <= HOUR_S * 1e6, f"of the last hour {watched / 1e6:.0f} s were watched, now {hour / 1e6:.0f} s")
    near.run(f"date -s @$(($(date +%s) + {HOUR_S}))")
    begin = mark(near)
    hold(not changes_since(near, Mark(0, changes[-1]["id"], {})), "a clock that is set changes the link")
    step("the clock an hour back, and forth: the link is not touched, and times are true",
         f"{held}; enabled for {really:.1f} s, told {lasted:.1f} s")


def copy(near):
    """As the operator's handbook says it."""
    before = told(near)["events"]
    follow(near, "Keep a copy of the history", document=readme.OPERATIONS)
    follow(near, "Take a copy back", document=readme.OPERATIONS)
    wait_link(near, True)
    after = told(near)["events"]
    hold(after[:len(before)] == before, f"before:\n{before}\nafter:\n{after}")
    numbers = [change["id"] for change in after]
    hold(numbers == sorted(set(numbers)), f"numbers of changes do not ascend: {numbers}")
    step("the history copied and taken back: what was is there", f"{len(before)} changes")
