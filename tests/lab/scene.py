"""What the stories of two machines have in common: what has to hold and what is said of it, and how somebody who sits at a
machine sees its links.
"""

import json
import time

import readme

BOUND_S = 300
INSTALL_BOUND_S = 900
NEAR_MAC = "02:00:00:00:01:01"


class TestFailed(Exception):
    """What was seen is not what has to be."""


def hold(condition, what):
    if not condition:
        raise TestFailed(what)


def step(title, seen=""):
    print(f"{title:<76} ok  {seen}", flush=True)


def ask(machine, *words, bound_s=BOUND_S):
    """A command of guest_side.py on the machine."""
    return json.loads(machine.run(f"/root/guest_side {' '.join(map(str, words))}", bound_s).splitlines()[-1])


def follow(machine, heading, changed=lambda text: text, document=readme.README):
    """What the document says there, line by line; the first command that fails ends it."""
    print(f"-- {machine.name}: {document.file}, \"{heading}\"", flush=True)
    return machine.run("cd /root/packages\nset -e\nexport DEBIAN_FRONTEND=noninteractive\n" +
                       changed(readme.commands(heading, document)), INSTALL_BOUND_S)


def links(near):
    status, output = near.try_run("vornctl links --json")
    return json.loads(output)["links"] if status in (0, 1) and output.startswith("{") else []  # 1: not all enabled


def wait_link(near, enabled, reason=""):
    begin = time.monotonic()
    near.wait_until(f"the link is {'enabled' if enabled else 'disabled ' + reason}",
                    lambda: [link for link in links(near) if link["enabled"] == enabled and reason in json.dumps(link)],
                    BOUND_S)
    return time.monotonic() - begin
