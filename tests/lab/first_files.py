"""The first file system of a machine, in memory: busybox, the modules for the disks, guest/init, guest/agent and its unit.
Made anew for each start, so that these may change without a new image.
"""

import gzip
import pathlib

GUEST = pathlib.Path(__file__).resolve().parent / "guest"


def make(image):
    """The archive as the kernel takes it."""
    archive = Archive()
    for directory in ("bin", "dev", "proc", "sys", "root", "modules"):
        archive.directory(directory)
    archive.device("dev/console", 5, 1)
    for name in ("init", "agent", "lab-agent.service"):
        archive.file(name, (GUEST / name).read_bytes())
    archive.file("bin/busybox", (image.first / "busybox").read_bytes())
    modules = (image.first / "modules").read_bytes()
    archive.file("modules/list", modules)
    for name in modules.decode().split():
        archive.file("modules/" + name, (image.first / name).read_bytes())
    return gzip.compress(archive.end(), 1)


class Archive:
    """A cpio archive as the kernel unpacks it."""

    def __init__(self):
        self.data = bytearray()
        self.number = 0

    def add(self, name, mode, content=b"", major=0, minor=0):
        self.number += 1
        fields = [self.number, mode, 0, 0, 1, 0, len(content), 0, 0, major, minor, len(name) + 1, 0]
        self.data += b"070701" + b"".join(b"%08X" % field for field in fields) + name.encode() + b"\0"
        self.pad()
        self.data += content
        self.pad()

    def pad(self):
        self.data += b"\0" * (-len(self.data) % 4)

    def directory(self, name):
        self.add(name, 0o040755)

    def file(self, name, content):
        self.add(name, 0o100755, content)

    def device(self, name, major, minor):
        self.add(name, 0o020600, major=major, minor=minor)

    def end(self):
        self.add("TRAILER!!!", 0)
        return bytes(self.data)
