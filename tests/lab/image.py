"""The images of a laboratory's machines, each with Debian's kernel: two kinds.

get(): a minimal Debian 12 with the packages of group "guest" of scripts/packages, to run programs of this build in.
Packages are unpacked, not configured: nothing of them runs while the image is made. So it is made the same way for
another machine's processor, and nothing of Debian's starts in it beside the agent: no systemd, no udev.

get_plain(): a Debian 12 as somebody finds it after its installation, small, with group "plain": configured, and it boots
as it does everywhere, with systemd and udev. Nothing of ours is in it. It has no network: apt finds the Debian packages
that ours need in an archive on its disk (/var/lib/offline), and nothing else.

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
    starts: str  # what is the first process on the disk: "agent", or "systemd", which starts the agent


def packages_of(group):
    text = (PROJECT / "scripts/packages").read_text()
    return [line.split()[1] for line in text.splitlines() if line.split()[:1] == [group]]


def cache_directory():
    cache = pathlib.Path(os.environ.get("KAP_LAB_CACHE") or pathlib.Path.home() / ".cache/kap-vorn/lab")
    cache.mkdir(parents=True, exist_ok=True)
    return cache


def get(architecture="amd64", more_packages=()):
    """The image, made if there is none of today."""
    packages = packages_of("guest") + list(more_packages)

    def fill(root, log):
        unpack_packages(root, architecture, packages, log)
        complete(root)

    return kept(architecture, packages, fill, "agent")


def get_plain(offered=()):
    """The image that boots as Debian does; `offered` are the Debian packages in its archive, with what they need."""
    packages, offered = packages_of("plain"), sorted(set(offered))
    return kept("amd64", ["plain", *packages, "offered", *offered],
                lambda root, log: install_packages(root, packages, offered, log), "systemd")


def kept(architecture, parts, fill, starts):
    key = hashlib.sha256("\n".join([architecture, *parts, pathlib.Path(__file__).read_text()]).encode()).hexdigest()[:16]
    cache = cache_directory()
    place = cache / f"{architecture}-{key}"
    with open(cache / f"{architecture}-{key}.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not place.exists() or time.time() - place.stat().st_mtime > KEPT_FOR_S:
            remove_old(cache)
            make(place, architecture, fill)
    return Image(architecture, place / "disk", place / "kernel", place / "first", starts)


def remove_old(cache):
    """A machine that still runs on an image that is removed keeps it until its end."""
    for entry in cache.iterdir():
        if entry.is_dir() and time.time() - entry.stat().st_mtime > KEPT_FOR_S:
            shutil.rmtree(entry, ignore_errors=True)


def make(place, arch, fill):
    print(f"making the image of a machine ({arch}) ...", file=sys.stderr, flush=True)
    start = time.time()
    work = pathlib.Path(f"{place}.new")
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir()
    root = work / "root"
    fill(root, work / "mmdebstrap.log")
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


def fetch_kernel(arch):
    """The kernel's own package is fetched beside the others: as one of them it would bring what makes initial RAM disks.
    """
    return ("set -e; mkdir \"$1/kernel\"; cd \"$1/kernel\"; export APT_CONFIG=\"$MMDEBSTRAP_APT_CONFIG\"; "
            f"name=$(apt-cache depends {KERNEL_PACKAGES[arch]} | sed -n 's/^ *Depends: \\(linux-image.*\\)/\\1/p'); "
            "apt-get -o APT::Sandbox::User=root download \"$name\"")


def unpack_packages(root, arch, packages, log):
    unwanted = ["/usr/share/doc/*", "/usr/share/man/*", "/usr/share/locale/*", "/usr/share/info/*"]
    run(["mmdebstrap", "--variant=extract", f"--architectures={arch}", "--include=?essential",
         "--include=" + ",".join(packages), "--hook-dir=/usr/share/mmdebstrap/hooks/merged-usr",
         *[f"--dpkgopt=path-exclude={path}" for path in unwanted],
         f"--extract-hook={fetch_kernel(arch)}", "bookworm", root, *debian_sources(arch)], log)


def install_packages(root, packages, offered, log):
    """As debootstrap and an installation do; documentation comes with ours, since a purge has to take it away again."""
    archive = root / "var/lib/offline"
    fetch = ("set -e; export APT_CONFIG=\"$MMDEBSTRAP_APT_CONFIG\"; mkdir -p \"$1/var/lib/offline/partial\"; "
             "apt-get -q -y --no-install-recommends --download-only -o APT::Sandbox::User=root "
             f"-o Dir::Cache::archives=\"$1/var/lib/offline\" install {' '.join(offered)}")
    run(["mmdebstrap", "--variant=minbase", "--architectures=amd64", "--include=" + ",".join(packages),
         f"--customize-hook={fetch_kernel('amd64')}", *([f"--customize-hook={fetch}"] if offered else []),
         "bookworm", root, *debian_sources("amd64")], log)
    archive.mkdir(parents=True, exist_ok=True)
    index_archive(archive)
    for place in (root / "etc/apt/sources.list.d").glob("*"):
        place.unlink()
    (root / "etc/apt/sources.list").write_text("deb [trusted=yes] file:/var/lib/offline ./\n")
    run(["chroot", root, "apt-get", "-q", "-o", "APT::Sandbox::User=root", "update"])
    (root / "etc/hostname").write_text("debian\n")
    (root / "etc/hosts").write_text("127.0.0.1 localhost\n127.0.1.1 debian\n")
    (root / "etc/network/interfaces").write_text("source /etc/network/interfaces.d/*\n\nauto lo\niface lo inet loopback\n")
    # Each machine gets its own at its first boot, and a boot is not the first one only because of this.
    (root / "etc/machine-id").write_text("")
    (root / "var/log/journal").mkdir(exist_ok=True)


def index_archive(archive):
    """As dpkg-scanpackages does it, which is in a package that nothing else here needs."""
    text = ""
    for package in sorted(archive.glob("*.deb")):
        content = package.read_bytes()
        text += run(["dpkg-deb", "-f", package]).decode()
        text += (f"Filename: ./{package.name}\nSize: {len(content)}\n"
                 f"SHA256: {hashlib.sha256(content).hexdigest()}\n\n")
    (archive / "Packages").write_text(text)


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
