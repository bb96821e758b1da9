"""What was built for the tests (build/test, or another directory of build for another machine), as a disk for a machine."""

import pathlib
import subprocess

import image

BUILT = image.PROJECT / "build"


def programs(build="test"):
    """Pairs for image.make_tree_disk: programs and libraries, under the paths they have here below the project."""
    return below_project(p for d in ("bin", "lib") for p in sorted((BUILT / build / d).iterdir()) if p.is_file())


def tests(build="test"):
    """The programs, ctest's lists, and the sources: some tests read them."""
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=image.PROJECT, check=True, stdout=subprocess.PIPE).stdout
    sources = [image.PROJECT / name for name in listed.decode().split("\0") if name]
    lists = [p for p in sorted((BUILT / build).rglob("*.cmake")) if "CMakeFiles" not in p.parts]
    return programs(build) + below_project(p for p in sources + lists if p.exists())


def below_project(paths):
    return [(pathlib.Path(path).relative_to(image.PROJECT), path) for path in paths]
