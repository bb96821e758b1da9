"""The image of a laboratory's machine: a minimal Debian 12 with the packages of group "guest" of scripts/packages, and
its kernel.

Packages are unpacked, not configured: nothing of them runs while the image is made. So it is made the same way for
another machine's processor, and nothing of Debian's starts in it beside the agent: no systemd, no udev.

An image is kept for a day in KAP_LAB_CACHE (default: ~/.cache/kap-vorn/lab) under a key of everything it is made from.
Whoever finds another one making the same image waits for it. Needs root, for the owners of the files.
"""

import dataclasses
import fcntl
import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parent.parent
KEPT_FOR_S = 24 * 3600
# For the disks, the network and the line to the host; what these need comes along. One that the kernel has built in or
# does not have is left out.
FIRST_MODULES = ["virtio_pci", "virtio_mmio", "virtio_blk", "virtio_console", "virtio_net", "crc32c_generic", "ext4"]


# By Debian's name of the processor. What emulates it is in machine.py.
KERNEL_PACKAGES = {"amd64": "linux-image-cloud-amd64", "armhf": "linux-image-armmp"}


@dataclasses.dataclass(frozen=True)
class Image:
    architecture: str
    disk: pathlib.Path
    kernel: pathlib.Path
    first: pathlib.Path  # a directory: what runs before the disk is there


def guest_packages():
    text = (PROJECT / "scripts/packages").read_text()
    return [line.split()[1] for line in text.splitlines() if line.startswith("guest ")]


def get(architecture="amd64", more_packages=()):
    """The image, made if there is none of today."""
    packages = guest_packages() + list(more_packages)
    parts = [architecture, *packages, pathlib.Path(__file__).read_text()]
    key = hashlib.sha256("\n".join(parts).encode()).hexdigest()[:16]
    cache = pathlib.Path(os.environ.get("KAP_LAB_CACHE") or pathlib.Path.home() / ".cache/kap-vorn/lab")
    cache.mkdir(parents=True, exist_ok=True)
    place = cache / f"{architecture}-{key}"
    with open(cache / f"{architecture}-{key}.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not place.exists() or time.time() - place.stat().st_mtime > KEPT_FOR_S:
            remove_old(cache)
            make(place, architecture, packages)
    return Image(architecture, place / "disk", place / "kernel", place / "first")


def remove_old(cache):
    """A machine that still runs on an image that is removed keeps it until its end."""
    for entry in cache.iterdir():
        if entry.is_dir() and time.time() - entry.stat().st_mtime > KEPT_FOR_S:
            shutil.rmtree(entry, ignore_errors=True)


def make(place, arch, packages):
    print(f"making the image of a machine ({arch}) ...", file=sys.stderr, flush=True)
    start = time.time()
    work = pathlib.Path(f"{place}.new")
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    root = work / "root"
    unpack_packages(root, arch, packages, work / "mmdebstrap.log")
    complete(root)
    version = unpack_kernel(root, work)
    keep_first_files(root, version, work / "first")
    make_disk(work / "disk", root)
    shutil.rmtree(root)
    shutil.rmtree(place, ignore_errors=True)
    work.rename(place)
    print(f"... {time.time() - start:.0f} s", file=sys.stderr, flush=True)


def run(command, log=None):
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    if log:
        log.write_bytes(done.stdout)
    if done.returncode != 0:
        sys.exit(f"{command[0]} failed:\n{done.stdout.decode(errors='replace')[-4000:]}")
    return done.stdout


def unpack_packages(root, arch, packages, log):
    """The kernel's own package is fetched beside the others: as one of them it would bring what makes initial RAM disks.
    """
    fetch = ("set -e; mkdir \"$1/kernel\"; cd \"$1/kernel\"; export APT_CONFIG=\"$MMDEBSTRAP_APT_CONFIG\"; "
             f"name=$(apt-cache depends {KERNEL_PACKAGES[arch]} | sed -n 's/^ *Depends: \\(linux-image.*\\)/\\1/p'); "
             "apt-get -o APT::Sandbox::User=root download \"$name\"")
    unwanted = ["/usr/share/doc/*", "/usr/share/man/*", "/usr/share/locale/*", "/usr/share/info/*"]
    run(["mmdebstrap", "--variant=extract", f"--architectures={arch}", "--include=?essential",
         "--include=" + ",".join(packages), "--hook-dir=/usr/share/mmdebstrap/hooks/merged-usr",
         *[f"--dpkgopt=path-exclude={path}" for path in unwanted],
         f"--extract-hook={fetch}", "bookworm", root, *debian_sources(arch)], log)


def debian_sources(arch):
    """The sources of the machine that are Debian's own; without any, the program's defaults. For another architecture
    than this machine's only the main archive: the index of the security archive is not on every mirror as its release
    file names it, and a machine that lives for one test needs no fixes.
    """
    places = [pathlib.Path("/etc/apt/sources.list"), *pathlib.Path("/etc/apt/sources.list.d").glob("*")]
    own = [p for p in places if p.is_file() and re.search(r"/debian(-security)?/?\s", p.read_text())]
    if arch == run(["dpkg", "--print-architecture"]).decode().strip():
        return own
    archives = [uri for p in own for uri in re.findall(r"\w+://\S+/debian(?=/?\s)", p.read_text())]
    return [f"deb {(archives or ['http://deb.debian.org/debian'])[0]} bookworm main"]


def complete(root):
    """What the packages' scripts would have done and somebody here misses."""
    for name in ("passwd", "group"):
        shutil.copy(root / f"usr/share/base-passwd/{name}.master", root / f"etc/{name}")
    for path, target in (("usr/bin/awk", "mawk"), ("var/run", "/run"), ("var/lock", "/run/lock")):
        if (root / path).is_dir() and not (root / path).is_symlink():
            (root / path).rmdir()
        if not (root / path).is_symlink():
            (root / path).symlink_to(target)
    (root / "etc/hosts").write_text("127.0.0.1 localhost\n")


def unpack_kernel(root, work):
    (package,) = (root / "kernel").glob("*.deb")
    unpacked = work / "kernel-package"
    run(["dpkg-deb", "-x", package, unpacked])
    shutil.rmtree(root / "kernel")
    (kernel,) = (unpacked / "boot").glob("vmlinuz-*")
    version = kernel.name.removeprefix("vmlinuz-")
    shutil.move(kernel, work / "kernel")
    # Not unpacked over the root: its directory lib would take the place of the link to usr/lib.
    shutil.move(unpacked / "lib/modules", root / "usr/lib/modules")
    shutil.rmtree(unpacked)
    run(["depmod", "-b", root, version])
    return version


def keep_first_files(root, version, place):
    """What runs before the disk is there (first_files.py)."""
    place.mkdir()
    shutil.copy(root / "bin/busybox", place)
    modules = root / "lib/modules" / version
    names = []
    for path in needed_modules(modules):
        shutil.copy(modules / path, place)
        names.append(pathlib.Path(path).name)
    (place / "modules").write_text("\n".join(names) + "\n")


def needed_modules(modules):
    """FIRST_MODULES and what they stand on, in an order in which they can be loaded."""
    depends = {}
    for line in (modules / "modules.dep").read_text().splitlines():
        path, _, needs = line.partition(":")
        depends[path] = needs.split()
    by_name = {pathlib.Path(path).name.split(".")[0].replace("-", "_"): path for path in depends}
    ordered = []
    for name in FIRST_MODULES:
        if name in by_name:
            path = by_name[name]
            # The file lists what is needed first at the end.
            ordered += [p for p in [*reversed(depends[path]), path] if p not in ordered]
    return ordered


def make_disk(disk, root):
    """Room beside what is there: what a machine writes goes to a copy of its own, which is thrown away."""
    run(["mke2fs", "-q", "-t", "ext4", "-O", "^has_journal", "-m", "0", "-d", root, disk, "2G"])


def make_tree_disk(disk, files):
    """A disk with `files`: pairs of the path on it and the file of this machine."""
    staging = pathlib.Path(f"{disk}.tree")
    shutil.rmtree(staging, ignore_errors=True)
    staging.mkdir(parents=True)
    size = 0
    for name, source in files:
        target = staging / name
        target.parent.mkdir(parents=True, exist_ok=True)
        if source.is_symlink():
            target.symlink_to(os.readlink(source))
        else:
            link_or_copy(source, target)
            size += source.stat().st_size + 4096
    run(["mke2fs", "-q", "-t", "ext4", "-O", "^has_journal", "-m", "0", "-d", staging, disk,
         f"{size * 11 // 10 // 2**20 + 256}M"])
    shutil.rmtree(staging)


def files_below(directory, paths):
    """Pairs for make_tree_disk: every file of `paths`, with its path as seen from `directory`."""
    for path in paths:
        path = directory / path
        for file in sorted(path.rglob("*")) if path.is_dir() else [path]:
            if not file.is_dir():
                yield file.relative_to(directory), file


def link_or_copy(source, target):
    try:
        os.link(source, target)
    except OSError:
        shutil.copy2(source, target)
