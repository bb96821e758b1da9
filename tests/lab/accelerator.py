"""What runs the processors of the machines: KVM where it really does, else the emulator alone (tcg), some ten times slower.

A /dev/kvm is no promise. Where this machine is a virtual one itself it may be there for kernels that are made for it, and
goes through any other instruction by instruction, slower than the emulator. So it is tried once for each start of this
machine: it has as long as a real one needs ten times over to get Debian's kernel to its first words.

KAP_LAB_ACCEL is "kvm" or "tcg" for one who wants it so.
"""

import os
import pathlib
import platform
import subprocess
import sys
import tempfile
import time

import image

TRIED_FOR_S = 10
FIRST_WORDS = b"Linux version"


def options(used):
    return ["-accel", "kvm"] if name(used) == "kvm" else ["-accel", "tcg,thread=multi"]


def name(used):
    wanted = os.environ.get("KAP_LAB_ACCEL")
    if wanted in ("kvm", "tcg"):
        return wanted
    if wanted:
        sys.exit(f"KAP_LAB_ACCEL is {wanted}: neither kvm nor tcg")
    if used.architecture != "amd64" or platform.machine() != "x86_64" or not os.access("/dev/kvm", os.R_OK | os.W_OK):
        return "tcg"
    boot = pathlib.Path("/proc/sys/kernel/random/boot_id").read_text().strip()
    remembered = image.cache_directory() / f"accelerator-{boot}"
    if not remembered.exists():
        found = "kvm" if kernel_starts(used.kernel) else "tcg"
        remembered.write_text(found)
        why = "KVM works here" if found == "kvm" else f"Debian's kernel does not start on KVM here in {TRIED_FOR_S} s"
        print(f"machines run on {found}: {why}", file=sys.stderr, flush=True)
    return remembered.read_text()


def kernel_starts(kernel):
    with tempfile.TemporaryDirectory(prefix="kap-lab-") as directory:
        console = pathlib.Path(directory) / "console"
        emulator = subprocess.Popen(
            ["qemu-system-x86_64", "-machine", "q35", "-cpu", "max", "-accel", "kvm", "-m", "512", "-nodefaults",
             "-no-user-config", "-display", "none", "-no-reboot", "-kernel", str(kernel), "-append",
             "console=ttyS0 earlyprintk=serial panic=-1", "-serial", f"file:{console}"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            deadline = time.monotonic() + TRIED_FOR_S
            while emulator.poll() is None and time.monotonic() < deadline:
                if console.exists() and FIRST_WORDS in console.read_bytes():
                    return True
                time.sleep(0.1)
            return False
        finally:
            emulator.kill()
            emulator.wait()
