"""Runs vornctl watch on a terminal inside a demo, and draws its screen.    watch_picture.py BIN FILE"""

import fcntl
import html
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time

COLUMNS, ROWS = 112, 20
BOUND_S = 60
PAST_S = 45  # of round trips in the picture
COLOURS = {"32": "#3fb950", "31": "#ff7b72", "33": "#d29922", "2": "#8b949e", "1": "#ffffff"}
PLAIN, GROUND = "#c9d1d9", "#0d1117"
CELL, LINE = 8.4, 19
VLANS = {"to-north": 110, "to-south": 111, "to-east": 112, "to-west": 113, "ring-a": 120, "ring-b": 121, "standby": 130}
ELSEWHERE = "to-the-hill"  # on a port that the node does not have
LINKS = [*VLANS, ELSEWHERE]


class Terminal:
    def __init__(self, command, columns, rows):
        self.pid, self.master = pty.fork()
        if self.pid == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
            os.execve(command[0], command, {**os.environ, "TERM": "xterm"})
        self.seen = b""

    def read(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if select.select([self.master], [], [], 0.1)[0]:
                try:
                    self.seen = (self.seen + os.read(self.master, 65536))[-400_000:]
                except OSError:
                    return

    def wait(self, text):
        end = time.monotonic() + BOUND_S
        while text.encode() not in self.seen:
            if time.monotonic() > end:
                sys.exit(f"not seen within {BOUND_S} s: {text}\n{self.seen[-3000:].decode(errors='replace')}")
            self.read(0.2)

    def press(self, keys):
        os.write(self.master, keys.encode())

    def end(self, keys):
        self.press(keys)
        end = time.monotonic() + BOUND_S
        while os.waitpid(self.pid, os.WNOHANG)[0] == 0:
            if time.monotonic() > end:
                os.kill(self.pid, signal.SIGKILL)
            self.read(0.1)

    def screen(self):
        """The last whole screen: lines of pieces, each a colour and a text."""
        whole = [part for part in self.seen.decode(errors="replace").split("\x1b[H")[1:] if "\x1b[J" in part][-1]
        lines = []
        for line in whole.partition("\x1b[J")[0].replace("\r", "").split("\n"):
            pieces, colour = [], PLAIN
            for part in re.split(r"(\x1b\[[0-9;?]*[A-Za-z])", line):
                code = re.fullmatch(r"\x1b\[([0-9;]*)m", part)
                if code:
                    colour = COLOURS.get(code[1], PLAIN)
                elif not part.startswith("\x1b"):
                    pieces.append((colour, part))
            lines.append(pieces)
        return lines


def svg(lines):
    width, height = COLUMNS * CELL + 24, ROWS * LINE + 24
    text = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height:.0f}" role="img" '
            'aria-label="vornctl watch: a table of links with state, reason and round trips">',
            f'<rect width="100%" height="100%" rx="8" fill="{GROUND}"/>',
            '<g font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="14">']
    for row, pieces in enumerate(lines[:ROWS]):
        column = 0
        for colour, part in pieces:
            for word in re.finditer(r"\S+(?: \S+)*", part):
                x = 12 + (column + word.start()) * CELL
                text.append(f'<text x="{x:.1f}" y="{12 + (row + 0.75) * LINE:.1f}" fill="{colour}" xml:space="preserve" '
                            f'textLength="{len(word[0]) * CELL:.1f}">{html.escape(word[0])}</text>')
            column += len(part)
    return "\n".join(text + ["</g>", "</svg>", ""])


def check(lines):
    """What a person has to see in the picture."""
    text = ["".join(part for _, part in pieces) for pieces in lines]
    for name in LINKS:
        if not any(name in line for line in text):
            sys.exit(f"the link {name} is not on the screen:\n" + "\n".join(text))
    well = [line for line in text if "enabled" in line and any(bar in line for bar in "▁▂▃▄▅▆▇█")]
    if len(well) < len(VLANS):
        sys.exit("too few links are enabled with their round trips drawn:\n" + "\n".join(text))
    if not any("rejected" in line for line in text):
        sys.exit("no link is rejected:\n" + "\n".join(text))


def main():
    programs, target = os.path.abspath(sys.argv[1]), sys.argv[2]
    with tempfile.TemporaryDirectory(prefix="watch-picture-") as room:
        demo_program = f"{programs}/kap-demo"
        inside = [demo_program, "--logs", f"{room}/logs", "--exec"]
        demo = Terminal([demo_program, "--logs", f"{room}/logs"], 140, 40)
        linkd = None
        try:
            demo.wait("RTT, batch ")

            def run(*words):
                return subprocess.run([*inside, *words], check=True, capture_output=True, text=True).stdout

            far = {link["port"]: link["far_end_cpm_mac"] for link in json.loads(run("vornctl", "links", "--json"))["links"]}
            run("mkdir", "-p", "/run/kap-linkd")
            linkd = subprocess.Popen([*inside, "kap-linkd", "--links", f"{room}/links.toml", "--state", room,
                                      "--settings", "/nowhere"], stderr=open(f"{room}/linkd.log", "w"))
            end = time.monotonic() + BOUND_S
            while subprocess.run([*inside, "vornctl", "reload"], capture_output=True).returncode != 0:
                if time.monotonic() > end:
                    sys.exit("kap-linkd does not answer: " + open(f"{room}/linkd.log").read())
                time.sleep(0.2)
            for name, vlan in VLANS.items():
                run("vornctl", "link", "add", name, "--port", "IDL_A1", "--vlan", str(vlan), "--far", far["IDL_A1"],
                    "--rtt", "2,1,64")
            run("vornctl", "link", "add", ELSEWHERE, "--port", "IDL_B2", "--vlan", "140", "--far", "02:00:00:00:00:fe",
                "--rtt")
            watch = Terminal([*inside, "vornctl", "watch"], COLUMNS, ROWS)
            watch.wait(ELSEWHERE)
            run("kap-node", "ctl", "far-end", "silent", "on")
            watch.wait("no connectivity")
            run("kap-node", "ctl", "far-end", "silent", "off")
            watch.read(PAST_S)
            lines = watch.screen()
            watch.end("q")
            check(lines)
        finally:
            if linkd:
                linkd.terminate()
            demo.end("q")
    with open(target, "w") as file:
        file.write(svg(lines))
    print("\n".join("".join(part for _, part in pieces) for pieces in lines))


main()
