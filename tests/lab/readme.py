"""What the README says to type on each of two machines, as scripts. Nobody keeps a second copy of it."""

import re

import image

SECTION = "Two machines"


class ReadmeFailed(Exception):
    """The README does not say what somebody could follow."""


def section():
    text = (image.PROJECT / "README.md").read_text()
    found = re.search(rf"^## {SECTION}\n(.*?)(?=^## |\Z)", text, re.MULTILINE | re.DOTALL)
    if not found:
        raise ReadmeFailed(f"README.md has no section \"{SECTION}\"")
    return found[1]


def memory_mib():
    """What registry, services and daemon take at most."""
    found = re.search(r"(\d+) MiB of memory", section())
    if not found:
        raise ReadmeFailed(f"README.md, section \"{SECTION}\", does not say how much memory is taken")
    return int(found[1])


def blocks(language):
    """By the heading they stand under, the fenced blocks of a language of the section, one after the other."""
    found = {}
    for part in re.split(r"^### ", section(), flags=re.MULTILINE)[1:]:
        heading, _, body = part.partition("\n")
        found[heading.strip()] = "".join(re.findall(rf"^```{language}\n(.*?)^```$", body, re.MULTILINE | re.DOTALL))
    return found


def commands(heading):
    return present(blocks("sh"), heading)


def shown(heading):
    return present(blocks("text"), heading)


def present(found, heading):
    if not found.get(heading, "").strip():
        raise ReadmeFailed(f"README.md, section \"{SECTION}\": nothing under \"{heading}\", only {sorted(found)}")
    return found[heading]
