#!/usr/bin/python3
"""What the test does on a machine itself, where the time is that machine's own. Each command prints JSON.

    kill UNIT WANTED...       kills the main process of UNIT; waits until that unit and the WANTED ones are others than
                              before and run, and every link is enabled; says after how long, and how often each unit
                              was started
    settled SECONDS           the units that are others after that time
    told LINK ID              what kap-linkd tells of the link: its changes after that one, its history, the number of the
                              newest change; and the links as the daemon has them
    figure NAME               one of kap-linkd's figures for Prometheus
    fill, empty               takes all room of the disk, and gives it back
    send COUNT FAR NEAR TAG TYPE    that many frames out of eth1, to NEAR, in the VLAN, with the ethertype (hexadecimal)
    pss                       proportional set size of each unit's processes, KiB
    files                     what is on the disk, but for what is logged and what apt and the kernel keep for themselves
    yardstick                 seconds that some fixed work takes from its begin to its end
"""

import errno
import json
import os
import pathlib
import socket
import subprocess
import sys
import time
import urllib.request

UNITS = ["kap-itcd", "kap-node-iepcsi", "kap-node-pmi", "kap-node-emi", "kap-node-fmi", "kap-node-aasi", "kap-vorn",
         "kap-linkd", "kap-responder@eth1"]
BOUND_S = 180
NOT_LOOKED_AT = ("/proc", "/sys", "/dev", "/tmp", "/root", "/run/systemd", "/run/udev", "/run/log", "/run/lab-command",
                 "/run/lock", "/run/user", "/var/log", "/var/cache", "/var/lib/dpkg", "/var/lib/apt", "/var/lib/systemd",
                 "/var/backups", "/run/utmp", "/etc/ld.so.cache")
FILLER = "/var/tmp/filler"
FIGURES = "http://127.0.0.1:9643/metrics"


def units():
    """Name: state, main process, and the number of this run of the unit."""
    done = subprocess.run(["systemctl", "show", "-p", "Id,ActiveState,MainPID,InvocationID,LoadState", *UNITS], check=True,
                          stdout=subprocess.PIPE, text=True)
    found = {}
    for part in done.stdout.strip().split("\n\n"):
        values = dict(line.split("=", 1) for line in part.splitlines())
        if values["LoadState"] == "loaded" and values["InvocationID"]:
            found[values["Id"].removesuffix(".service")] = (values["ActiveState"], int(values["MainPID"]),
                                                            values["InvocationID"])
    return found


def links():
    done = subprocess.run(["vornctl", "links", "--json"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return json.loads(done.stdout)["links"] if done.returncode in (0, 1) and done.stdout else []  # 1: not all enabled


def all_enabled():
    seen = links()
    return bool(seen) and all(link["enabled"] for link in seen)


def kill(unit, *wanted):
    """A start between two looks is not seen; a unit waits for one second before it is started again, and the looks are
    closer.
    """
    before = units()
    runs = {name: {before[name][2]} for name in before}
    begin = time.monotonic()
    os.kill(before[unit][1], 9)
    has_links = "kap-vorn" in before
    while True:
        now = units()
        for name in before:
            runs[name].add(now.get(name, before[name])[2])
        starts = {name: len(runs[name]) - 1 for name in before if len(runs[name]) > 1}
        others = {name for name in before if now.get(name, ("", 0, ""))[1:] != before[name][1:]}
        run = all(name in now and now[name][0] == "active" for name in before)
        if run and {unit, *wanted} <= others and (not has_links or all_enabled()):
            return {"seconds": round(time.monotonic() - begin, 2), "starts": starts}
        if time.monotonic() - begin > BOUND_S:
            return {"seconds": None, "starts": starts, "units": now, "links": links() if has_links else None}
        time.sleep(0.1)


def settled(seconds):
    """None should be."""
    before = units()
    time.sleep(float(seconds))
    now = units()
    return sorted(name for name in {*before, *now} if now.get(name) != before.get(name))


def vornctl(*words):
    done = subprocess.run(["vornctl", *words, "--json"], check=True, stdout=subprocess.PIPE, text=True)
    return json.loads(done.stdout)


def told(link, number):
    return {"events": vornctl("events", "--link", link, "--since", number, "--limit", "100000")["events"],
            "history": vornctl("history", link, "--limit", "1"),
            "newest": max(change["id"] for change in vornctl("events", "--limit", "1")["events"]),
            "links": links()}


def figure(name):
    with urllib.request.urlopen(FIGURES, timeout=30) as answer:
        lines = answer.read().decode().splitlines()
    return next(float(line.split()[1]) for line in lines if line.split()[:1] == [name])


def fill():
    """At once, and from then on what somebody else gives back."""
    filler = os.open(FILLER, os.O_CREAT | os.O_WRONLY | os.O_APPEND, 0o600)
    take_room(filler)
    if os.fork() == 0:
        os.setsid()
        for descriptor in (0, 1, 2):
            os.dup2(os.open(os.devnull, os.O_RDWR), descriptor)
        while os.path.exists(FILLER):
            take_room(filler)
            time.sleep(0.1)
        os._exit(0)
    return os.fstat(filler).st_size


def take_room(filler):
    """Large pieces first: that takes no time."""
    size = 1 << 30
    while size >= 4096:
        try:
            os.posix_fallocate(filler, os.fstat(filler).st_size, size)
        except OSError as failure:
            if failure.errno != errno.ENOSPC:
                raise
            size //= 2


def empty():
    os.unlink(FILLER)


def send(count, source, target, tag, ethertype):
    frame = bytes.fromhex(target.replace(":", "") + source.replace(":", ""))
    frame += bytes.fromhex("8100") + int(tag).to_bytes(2, "big") if int(tag) else b""
    frame += bytes.fromhex(ethertype) + bytes(50)
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as wire:
        wire.bind(("eth1", 0))
        for _ in range(int(count)):
            wire.send(frame)
            time.sleep(0.002)
    return int(count)


def pss():
    sizes = {}
    for unit, (_, pid, _) in units().items():
        path = pathlib.Path(f"/proc/{pid}/smaps_rollup")
        if pid and path.exists():
            sizes[unit] = sum(int(line.split()[1]) for line in path.read_text().splitlines() if line.startswith("Pss:"))
    return sizes


def files():
    found = []
    for place, directories, names in os.walk("/"):
        directories[:] = [d for d in directories if os.path.join(place, d) not in NOT_LOOKED_AT]
        found += [os.path.join(place, name) for name in names + directories
                  if os.path.join(place, name) not in NOT_LOOKED_AT]
    return sorted(found)


def work():
    for _ in range(10):
        subprocess.run(["/bin/true"], check=True)
    total = 0
    for i in range(100000):
        total += i % 7


def yardstick():
    begin = time.monotonic()
    work()
    return round(time.monotonic() - begin, 2)


def processor_time():
    """Of the same work, without what else the machine has to do."""
    begin = sum(os.times()[:4])
    for _ in range(5):
        work()
    return (sum(os.times()[:4]) - begin) / 5


if __name__ == "__main__":
    print(json.dumps(globals()[sys.argv[1]](*sys.argv[2:])))
