"""What the README says to type on each of two machines, and docs/operations.md and the manual on one of them, as scripts.
Nobody keeps a second copy of it.
"""

import dataclasses
import re

import image


@dataclasses.dataclass(frozen=True)
class Part:
    """A section of a document, in which headings of the next level stand over what is typed."""

    file: str
    section: str
    level: int


README = Part("README.md", "Two machines", 2)
OPERATIONS = Part("docs/operations.md", "The link manager", 2)


class ReadmeFailed(Exception):
    """The README does not say what somebody could follow."""


def section(part=README):
    text = (image.PROJECT / part.file).read_text()
    marks = "#" * part.level
    found = re.search(rf"^{marks} {part.section}\n(.*?)(?=^{marks} |\Z)", text, re.MULTILINE | re.DOTALL)
    if not found:
        raise ReadmeFailed(f"{part.file} has no section \"{part.section}\"")
    return found[1]


def example(page):
    """What the page of the manual has as its example."""
    text = (image.PROJECT / "docs/man" / page).read_text()
    found = re.search(r"^\.SH EXAMPLE\n.*?^\.nf\n(.*?)^\.fi$", text, re.MULTILINE | re.DOTALL)
    if not found:
        raise ReadmeFailed(f"{page} has no example")
    return found[1].replace("\\-", "-")


def memory_mib():
    """What registry, services and daemon take at most."""
    found = re.search(r"(\d+) MiB of memory", section())
    if not found:
        raise ReadmeFailed(f"README.md, section \"{README.section}\", does not say how much memory is taken")
    return int(found[1])


def blocks(language, part):
    """By the heading they stand under, the fenced blocks of a language of the section, one after the other."""
    found = {}
    for piece in re.split(rf"^{'#' * (part.level + 1)} ", section(part), flags=re.MULTILINE)[1:]:
        heading, _, body = piece.partition("\n")
        found[heading.strip()] = "".join(re.findall(rf"^```{language}\n(.*?)^```$", body, re.MULTILINE | re.DOTALL))
    return found


def commands(heading, part=README):
    return present(blocks("sh", part), heading, part)


def shown(heading, part=README):
    return present(blocks("text", part), heading, part)


def present(found, heading, part):
    if not found.get(heading, "").strip():
        raise ReadmeFailed(f"{part.file}, section \"{part.section}\": nothing under \"{heading}\", only {sorted(found)}")
    return found[heading]
