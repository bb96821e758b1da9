"""What the README says to type on each of two machines, as scripts. Nobody keeps a second copy of it."""

import re

import image

SECTION = "Two machines"


class ReadmeFailed(Exception):
    """The README does not say what somebody could follow."""


def blocks(language):
    """By the heading they stand under, the fenced blocks of a language of the section, one after the other."""
    text = (image.PROJECT / "README.md").read_text()
    section = re.search(rf"^## {SECTION}\n(.*?)(?=^## |\Z)", text, re.MULTILINE | re.DOTALL)
    if not section:
        raise ReadmeFailed(f"README.md has no section \"{SECTION}\"")
    found = {}
    for part in re.split(r"^### ", section[1], flags=re.MULTILINE)[1:]:
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
