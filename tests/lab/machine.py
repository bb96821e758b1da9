"""A virtual machine of the laboratory: started, spoken to, its cables pulled and mended, its output kept.

    image = lab.image.get()
    with Machine("near", image, logs, cables=[Cable(...)]) as near, Machine("far", ...) as far:
        near.wait_ready()
        near.run("ip link")                          the output; raises CommandFailed when the status is not 0
        status, output = near.try_run("false")
        near.set_cable("c0", False)                  the guest sees its interface without a carrier
        near.cut_power(); near.switch_on()           with keeps_disk=True: what it had written is there
        near.wire("c0")                              the files with what went over that cable (wire.py)
        near.fetch("/tmp/logs", logs / "near")       a directory of the machine, copied to here

Commands are bash scripts, run by root one after the other; what one starts in the background goes on. Disks are
written to in copies of the machine's own, so machines share an image and nothing stays of them but their logs:
NAME.console (the kernel and what the first processes say), NAME.output (what the commands printed, as it comes),
NAME.emulator, and NAME.CABLE.N.pcap, what went over a cable since the machine was switched on for the Nth time. What runs
the processors is said in accelerator.py.
"""

import base64
import ctypes
import dataclasses
import io
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tarfile
import tempfile
import time

import accelerator
import first_files

# By Debian's name of the processor: the emulator with all that does not depend on the disks, and the kernel's command line.
# A processor that is emulated has all that the emulator knows (max), as has one that is not.
#
# The emulator's time stamp counters are one and steady, which a kernel on several processors does not believe by itself.
# Without them each reading of the clock goes through an emulated timer and takes tens of microseconds. And a kernel that
# checks whether its timer ticks gives up when the host keeps the emulator from running for a moment.
EMULATORS = {
    "amd64": (("qemu-system-x86_64", "-machine", "q35", "-cpu", "max"),
              "console=ttyS0 tsc=reliable no_timer_check"),
    "armhf": (("qemu-system-arm", "-machine", "virt,highmem=off", "-cpu", "max"),
              "console=ttyAMA0"),
}
READY_BOUND_S = 600
COMMAND_BOUND_S = 300
KINDS = ("console", "emulator")


class MachineFailed(Exception):
    """The machine did not start, ended, or did not answer."""


class CommandFailed(Exception):
    """A command ended with another status than 0."""


@dataclasses.dataclass(frozen=True)
class Cable:
    """One end of a cable: two machines get an end each. The guest's interface is the one with this MAC."""

    name: str
    mac: str
    own_end: pathlib.Path
    other_end: pathlib.Path


def lay_cable(directory, name, near_mac, far_mac):
    """Both ends of a cable: Ethernet frames as datagrams between two sockets in `directory`."""
    ends = [pathlib.Path(directory) / f"{name}.{side}" for side in ("near", "far")]
    return Cable(name, near_mac, ends[0], ends[1]), Cable(name, far_mac, ends[1], ends[0])


def end_with_parent():
    pr_set_pdeathsig = 1
    ctypes.CDLL(None).prctl(pr_set_pdeathsig, signal.SIGKILL)


def own_disk(disk, directory):
    """A copy, with a journal: the file system of a Debian that was installed has one, and a power cut is what it is for."""
    own = directory / "disk"
    subprocess.run(["cp", "--sparse=always", str(disk), str(own)], check=True)
    subprocess.run(["tune2fs", "-O", "has_journal", str(own)], check=True, stdout=subprocess.DEVNULL)
    return own


class Machine:
    def __init__(self, name, image, logs, cables=(), tree=None, tree_at=None, processors=1, memory_mib=1024,
                 kernel_options="", keeps_disk=False):
        """`tree`: a second disk (image.make_tree_disk), which is seen at the path `tree_at`. `keeps_disk`: what it writes
        stays when its power is cut.
        """
        self.name = name
        self.logs = pathlib.Path(logs)
        self.logs.mkdir(parents=True, exist_ok=True)
        # Paths of sockets are short.
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="kap-lab-"))
        self.output_path = self.logs / f"{name}.output"
        self.next_id = 0
        self.cables = cables
        self.mac = {cable.name: cable.mac for cable in cables}
        self.times_on = 0
        for old in [*self.logs.glob(f"{name}.*.pcap"), self.output_path, *(self.logs / f"{name}.{kind}" for kind in KINDS)]:
            old.unlink(missing_ok=True)
        disk = own_disk(image.disk, self.directory) if keeps_disk else None
        self.command = self._command(image, disk, cables, tree, tree_at, processors, memory_mib, kernel_options)
        self.switch_on()

    def switch_on(self):
        self.times_on += 1
        self.received = self.monitor_received = b""
        self.line = self.monitor = None
        # A machine that was killed leaves its sockets.
        for path in [self.directory / "line", self.directory / "monitor", *(cable.own_end for cable in self.cables)]:
            path.unlink(missing_ok=True)
        dumps = []
        for cable in self.cables:
            dumps += ["-object", f"filter-dump,id=wire-{cable.name},netdev={cable.name},"
                      f"file={self.logs / self.name}.{cable.name}.{self.times_on}.pcap"]
        with open(self.logs / f"{self.name}.emulator", "ab") as log:
            self.process = subprocess.Popen(self.command + dumps, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            preexec_fn=end_with_parent)

    def cut_power(self):
        """At once. What the machine had not written to its disk is lost."""
        for connection in (self.line, self.monitor):
            if connection:
                connection.close()
        self.process.kill()
        self.process.wait()
        self.line = None

    def wire(self, cable):
        return [self.logs / f"{self.name}.{cable}.{number}.pcap" for number in range(1, self.times_on + 1)]

    def _command(self, image, disk, cables, tree, tree_at, processors, memory_mib, kernel_options):
        emulator, kernel_line = EMULATORS[image.architecture]
        first = self.directory / "first"
        first.write_bytes(first_files.make(image))
        kernel_line += f" panic=-1 net.ifnames=0 quiet {kernel_options}"
        kernel_line += f" lab.tree={tree_at}" if tree else ""
        kernel_line += f" lab.init={image.starts}"
        command = [*emulator, *accelerator.options(image), "-nodefaults", "-no-user-config", "-display", "none",
                   *(["-no-reboot"] if image.starts == "agent" else []),
                   "-smp", str(processors), "-m", str(memory_mib), "-kernel", image.kernel, "-initrd", first,
                   "-append", kernel_line, "-serial", "chardev:console",
                   "-chardev", f"file,id=console,path={self.logs / self.name}.console,append=on",
                   "-qmp", f"unix:{self.directory / 'monitor'},server=on,wait=off",
                   "-device", "virtio-serial-pci", "-chardev",
                   f"socket,id=line,path={self.directory / 'line'},server=on,wait=off",
                   "-device", "virtserialport,chardev=line,nr=1", "-chardev",
                   f"file,id=output,path={self.output_path},append=on",
                   "-device", "virtserialport,chardev=output,nr=2"]
        for place, kept in [(disk or image.disk, disk)] + ([(tree, None)] if tree else []):
            command += ["-drive", f"file={place},format=raw,if=virtio,snapshot={'off' if kept else 'on'}"]
        # An interface that filters by VLAN in its hardware takes in only those that have a device of their own. Packet
        # sockets see the others' frames only where it does not: here it has no such filter.
        for cable in cables:
            command += ["-netdev", f"dgram,id={cable.name},local.type=unix,local.path={cable.own_end},"
                        f"remote.type=unix,remote.path={cable.other_end}",
                        "-device", f"virtio-net-pci,id=nic-{cable.name},netdev={cable.name},mac={cable.mac},romfile=,"
                        "ctrl_vlan=off"]
        return [str(word) for word in command]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        self.cut_power()
        shutil.rmtree(self.directory, ignore_errors=True)

    # ---- Commands ----

    def wait_ready(self, bound_s=READY_BOUND_S):
        deadline = time.monotonic() + bound_s
        if not self.line:
            self.line = self._connect("line", deadline)
        self._read_line(deadline)

    def wait_booted(self, bound_s=READY_BOUND_S):
        """Every job of systemd's is done. What failed then is for the caller to look at."""
        self.try_run("systemctl is-system-running --wait", bound_s)

    def reboot(self, bound_s=READY_BOUND_S):
        """As `reboot` does it, where the machine has systemd; back when the agent is there again."""
        self.run("systemctl reboot --no-block")
        self.wait_ready(bound_s)

    def try_run(self, script, bound_s=COMMAND_BOUND_S, echo=None):
        """The status and what was printed, on both outputs; `echo` is a file that gets it as it comes, too."""
        self.next_id += 1
        before = self.output_path.stat().st_size
        encoded = base64.b64encode(script.encode()).decode()
        self.line.sendall(f"{self.next_id} {encoded}\n".encode())
        with open(self.output_path, errors="replace") as output:
            output.seek(before)
            printed = []

            def take_output():
                printed.append(output.read())
                if echo and printed[-1]:
                    echo.write(printed[-1])
                    echo.flush()

            # A command that was given up, in a test that ends, answers late.
            number = 0
            while number != self.next_id:
                number, status = map(int, self._read_line(time.monotonic() + bound_s, script, take_output).split())
            take_output()
        return status, "".join(printed)

    def run(self, script, bound_s=COMMAND_BOUND_S):
        status, output = self.try_run(script, bound_s)
        if status != 0:
            raise CommandFailed(f"{self.name}: status {status} of\n{script}\n{output}")
        return output

    def write(self, path, text):
        encoded = base64.b64encode(text.encode()).decode()
        self.run(f"base64 -d >{path} <<'END'\n{encoded}\nEND")

    def fetch(self, path, target):
        """A directory of the machine. Special files are left out."""
        data = base64.b64decode(self.run(f"cd {path} && find . -type f -print0 | tar cz --null -T - | base64 -w0"))
        with tarfile.open(fileobj=io.BytesIO(data)) as archive:
            archive.extractall(target)

    def wait_until(self, what, condition, bound_s):
        """Asks again and again. `condition` gives something true in the end, which is what this gives."""
        deadline = time.monotonic() + bound_s
        while True:
            value = condition()
            if value:
                return value
            if time.monotonic() > deadline:
                raise MachineFailed(f"{self.name}: waited {bound_s} s in vain: {what}")
            time.sleep(0.2)

    # ---- The monitor ----

    def set_cable(self, name, plugged):
        """The carrier of this machine's end; the other machine's end keeps its own."""
        self._ask_monitor("set_link", name=f"nic-{name}", up=plugged)

    def _ask_monitor(self, command, **arguments):
        deadline = time.monotonic() + 60
        if not self.monitor:
            self.monitor = self._connect("monitor", deadline)
            self._monitor_answer("QMP", deadline)
            self._ask_monitor("qmp_capabilities")
        self.monitor.sendall(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        return self._monitor_answer("return", deadline)

    def _monitor_answer(self, wanted, deadline):
        while True:
            line, self.monitor_received = self._take_line(self.monitor, self.monitor_received, deadline, "the monitor")
            answer = json.loads(line)
            if "error" in answer:
                raise MachineFailed(f"{self.name}: the monitor: {answer['error']['desc']}")
            if wanted in answer:
                return answer[wanted]

    # ---- Lines ----

    def _connect(self, name, deadline):
        while True:
            connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                connection.connect(str(self.directory / name))
                return connection
            except OSError:
                connection.close()
                self._check(deadline, name)
                time.sleep(0.05)

    def _read_line(self, deadline, what="the agent", meanwhile=lambda: None):
        line, self.received = self._take_line(self.line, self.received, deadline, what, meanwhile)
        return line.decode()

    def _take_line(self, connection, received, deadline, what, meanwhile=lambda: None):
        connection.settimeout(1)
        while b"\n" not in received:
            try:
                got = connection.recv(65536)
            except TimeoutError:
                got = None
            if got == b"":
                raise MachineFailed(f"{self.name}: the emulator ended: {self._last_words()}")
            received += got or b""
            meanwhile()
            self._check(deadline, what)
        line, _, rest = received.partition(b"\n")
        return line, rest

    def _check(self, deadline, what):
        if self.process.poll() is not None:
            raise MachineFailed(f"{self.name}: the emulator ended: {self._last_words()}")
        if time.monotonic() > deadline:
            raise MachineFailed(f"{self.name}: no answer in time: {what}\n{self._last_words()}")

    def _last_words(self):
        texts = []
        for kind in ("emulator", "console"):
            path = self.logs / f"{self.name}.{kind}"
            text = path.read_bytes()[-2000:].decode(errors="replace") if path.exists() else ""
            texts.append(f"{path}: {text}")
        return "\n".join(texts)


def processors_of_host():
    return os.cpu_count() or 1
