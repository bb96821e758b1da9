"""The packages of this project for a machine of the laboratory."""

import pathlib
import re
import subprocess

INSTALL = "DEBIAN_FRONTEND=noninteractive apt-get -o Dpkg::Use-Pty=0 install -q -y --no-install-recommends ./*.deb"
INTERFACES = {"eth0": "02:00:00:00:01:00", "eth1": "02:00:00:00:01:01", "eth2": "02:00:00:00:01:02"}


def find(given):
    """The .deb files of a list of files and directories."""
    paths = [pathlib.Path(path) for path in given]
    found = [p.resolve() for path in paths for p in (sorted(path.glob("*.deb")) if path.is_dir() else [path])]
    return [path for path in found if path.is_file()]


def field(package, name):
    done = subprocess.run(["dpkg-deb", "-f", str(package), name], check=True, stdout=subprocess.PIPE)
    return done.stdout.decode().strip()


def needed_from_debian(given):
    """The names of the packages of Debian that these ask for themselves; of alternatives the first."""
    own = {field(package, "Package") for package in given}
    needed = set()
    for package in given:
        for kind in ("Depends", "Pre-Depends", "Recommends"):
            for word in field(package, kind).split(","):
                name = re.split(r"[ (:|]", word.strip())[0]
                needed |= {name} if name else set()
    return sorted(needed - own)


NEXT = "99.0"


def as_next(given, directory):
    """The same packages under a higher version: what an upgrade does is the same, whatever is new in them. Each file of
    configuration that comes with them is another, so that dpkg has to decide.
    """
    made = []
    for package in given:
        version = field(package, "Version")
        unpacked = directory / "next" / field(package, "Package")
        unpacked.parent.mkdir(exist_ok=True)
        subprocess.run(["dpkg-deb", "--raw-extract", str(package), str(unpacked)], check=True)
        control = unpacked / "DEBIAN/control"
        control.write_text(control.read_text().replace(f"Version: {version}\n", f"Version: {NEXT}\n")
                           .replace(f"(= {version})", f"(= {NEXT})"))
        listed = unpacked / "DEBIAN/conffiles"
        for name in listed.read_text().split() if listed.exists() else []:
            with open(unpacked / name.lstrip("/"), "a") as conffile:
                conffile.write(f"# version {NEXT}\n")
        target = directory / f"{field(package, 'Package')}_{NEXT}_{field(package, 'Architecture')}.deb"
        subprocess.run(["dpkg-deb", "--build", "--root-owner-group", str(unpacked), str(target)], check=True,
                       stdout=subprocess.DEVNULL)
        made.append(target)
    return made
