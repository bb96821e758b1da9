"""Plants seeded changes in src/ and platform/, one at a time, and tells which of them a test catches.

Each change is built and tested in a mount and process namespace of its own, on an overlay over one base build: what it
breaks, writes or leaves running goes with it, and several can be at work side by side.
"""
import argparse
import bisect
import concurrent.futures
import fnmatch
import json
import os
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time

ROOTS = ("src", "platform")
BUILD = "build/test"  # of the copied tree; as deep as that of ./test, so that a compiler cache serves both
KINDS = ("comparison", "step", "constant", "arguments")

# Which tests know a room best: they come first, the others after them. The first that fails ends the search.
CORE = ("unit_manager", "unit_iemli", "unit_clients", "scenario")
TESTS = (
    ("src/clients/*", ("unit_clients", "scenario", "unit_manager", "unit_iemli")),
    ("src/iemli/*", ("unit_iemli", "scenario", "unit_manager", "unit_clients")),
    ("src/shell/*", ("unit_iemli", "scenario", "unit_manager", "unit_clients")),
    ("src/manager/*", ("unit_manager", "scenario", "unit_iemli", "unit_clients")),
    ("src/base/*", ("unit_manager", "scenario", "unit_iemli", "unit_clients")),
    ("src/*", ("scenario", "unit_iemli")),
    ("platform/itc/*", ("platform_itc", "platform_ns", "platform_sighandler", "node_live")),
    ("platform/itcd/*", ("itcd_numbers", "itcd_turns", "platform_itc", "platform_ns")),
    ("platform/ns/*", ("platform_ns",)),
    ("platform/sighandler/*", ("platform_sighandler",)),
    ("platform/supervision/*", ("supervision_core", "platform_supervision")),
    ("platform/line/*", ("platform_line", "platform_tri", "platform_itc")),
    ("platform/tri/*", ("platform_tri",)),
    ("platform/*", ("platform_itc", "node_live", "platform_tri")),
)
# Beside the program of tests, what it runs.
NEEDS = {
    "platform_itc": ("itcd",),
    "platform_ns": ("itcd",),
    "platform_sighandler": ("itcd",),
    "platform_tri": ("kap-trace",),
    "node_live": ("itcd", "kap-node"),
    "e2e": ("e2e-client", "e2e-hostile", "itcd", "kap-node", "kap-vorn", "kap-demo", "kap-trace", "vornctl"),
}
SHARDS = {name: 1 for name in (*CORE, "supervision_core", "itcd_numbers", "itcd_turns")}
SILENCE = 120  # seconds without a word; the longest test takes 20
MANY_SHARDS = 6  # tests of the platform wait more than they work


def tests_of(path):
    for pattern, names in TESTS:
        if fnmatch.fnmatch(path, pattern):
            return names
    raise ValueError(path)


# ---- Where changes can be planted ----


def blank(text):
    return "".join("\n" if c == "\n" else " " for c in text)


SKIPPED = re.compile(
    r"//[^\n]*|/\*.*?\*/|R\"\((?:.|\n)*?\)\"|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])*'|^[ \t]*#(?:\\\n|[^\n])*",
    re.S | re.M,
)


def code_of(text):
    """The text with comments, literals of characters, the preprocessor's lines and static assertions blanked out."""

    def replace(match):
        found = match.group(0)
        return '"' + blank(found[1:-1]) + '"' if found[0] == '"' else blank(found)

    code = SKIPPED.sub(replace, text)
    for match in list(re.finditer(r"\bstatic_assert\s*\(", code)):
        end = closing(code, match.end() - 1)
        code = code[: match.start()] + blank(code[match.start() : end + 1]) + code[end + 1 :]
    return code


def closing(code, opening):
    """The place of the bracket that closes the one at `opening`."""
    depth = 0
    for place in range(opening, len(code)):
        if code[place] in "([{":
            depth += 1
        elif code[place] in ")]}":
            depth -= 1
            if depth == 0:
                return place
    return len(code) - 1


COMPARISONS = {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"]}


def comparisons(text, code):
    for match in re.finditer(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)", code):
        if not re.search(r"operator\s*$", code[: match.start()][-12:]):
            yield match.start(), match.end(), COMPARISONS[match.group(1)]


STEP = re.compile(
    r"(?:\(void\))?[A-Za-z_][\w:.]*(?:(?:->|\.|::)\w+|\[[^\]]*\])*\(.*\)$"  # a call
    r"|(?:\+\+|--)[\w.>\-\[\]]+$|[\w.>\-\[\]]+(?:\+\+|--)$"  # a count
    r"|\*?[A-Za-z_][\w.:>\-\[\]]*\s(?:=|\+=|-=|\|=|&=|\^=)\s.*$",  # an assignment
    re.S,
)
NO_STEP = re.compile(r"(?:return|if|for|while|switch|case|default|using|namespace|else|delete|throw|goto)\b")


def steps(text, code):
    for match in re.finditer(r"(?<=\n)( {4,})([^\s].*?);(?=\s*\n)", code, re.S):
        start = match.start(2)
        statement = code[start : match.end(2)]
        # From the last brace or semicolon on: a block's head is not part of the step.
        while True:
            cut = max(statement.rfind("{\n"), statement.rfind(";\n"), statement.rfind("}\n"), statement.rfind(":\n"))
            if cut < 0:
                break
            start += cut + 2
            statement = statement[cut + 2 :]
        start += len(statement) - len(statement.lstrip())
        statement = statement.strip()
        if not NO_STEP.match(statement) and STEP.match(statement):
            opening = statement.find("(")
            if opening < 0 or "=" in statement[:opening] or closing(statement, opening) == len(statement) - 1:
                yield start, match.end(2) + 1, ["(void)0;"]


def constants(text, code):
    for match in re.finditer(r"(?<![\w.\"])(0[xX][0-9a-fA-F']+|\d+)([uUlL]*)(?![\w.\"])", code):
        line = code[code.rfind("\n", 0, match.start()) + 1 : code.find("\n", match.end())]
        before = code[max(0, match.start() - 1)]
        if before == "[" and re.search(r"^\s*(?:static |const |constexpr |alignas\(\w+\) )*[\w:<>]+ [\w, \[\]]*\[\d+\]", line):
            continue  # the size of a buffer: one more changes nothing that can be seen
        if code[: match.start()].endswith("calloc("):
            continue  # the same
        digits = match.group(1)
        value = int(digits.replace("'", ""), 0) if not re.fullmatch(r"0\d+", digits) else int(digits, 8)
        choices = [value + 1] if value == 0 else [value + 1, value - 1]
        form = "0x%X" if digits[:2] in ("0x", "0X") else "%d"
        yield match.start(), match.end(), [form % choice + match.group(2) for choice in choices]


NO_CALL = {"if", "for", "while", "switch", "sizeof", "return", "catch", "decltype", "alignas", "static_cast", "defined"}


def split_arguments(code, opening, end):
    parts, start, depth, place = [], opening + 1, 0, opening + 1
    while place < end:
        if code[place] in "([{":
            depth += 1
        elif code[place] in ")]}":
            depth -= 1
        elif code[place] == "," and depth == 0:
            parts.append((start, place))
            start = place + 1
        place += 1
    parts.append((start, end))
    trimmed = []
    for begin, stop in parts:
        while begin < stop and code[begin].isspace():
            begin += 1
        while stop > begin and code[stop - 1].isspace():
            stop -= 1
        trimmed.append((begin, stop))
    return trimmed


# Whether two are the same, and which is the larger, does not depend on which is named first.
SYMMETRIC = {"strcmp", "strncmp", "memcmp", "max", "min", "swap"}


def arguments(text, code):
    for match in re.finditer(r"\b([A-Za-z_]\w*)\(", code):
        line_start = code.rfind("\n", 0, match.start()) + 1
        before = code[line_start : match.start()]
        if match.group(1) in NO_CALL or not code.startswith("    ", line_start):
            continue
        if re.search(r"[\w>&*]\s+[*&]*(?:\w+::)*$", before) and not re.search(r"(?:return|else|&&|=)\s*$", before):
            continue  # a declaration
        opening = match.end() - 1
        parts = split_arguments(code, opening, closing(code, opening))
        if match.group(1) in SYMMETRIC or match.group(1).endswith("_equal"):
            parts = parts[1:]
        for (a, b), (c, d) in zip(parts, parts[1:]):
            if text[a:b] != text[c:d] and text[a:b] and text[c:d]:
                yield a, d, [text[c:d] + text[b:c] + text[a:b]]


FINDERS = {"comparison": comparisons, "step": steps, "constant": constants, "arguments": arguments}


class Source:
    def __init__(self, path):
        self.path = path
        with open(path, encoding="utf-8") as file:
            self.text = file.read()
        self.code = code_of(self.text)
        self.starts = [0] + [i + 1 for i, c in enumerate(self.text) if c == "\n"]
        self.lines = sum(1 for line in self.code.split("\n") if line.strip())

    def line_of(self, place):
        return bisect.bisect_right(self.starts, place)

    def line_text(self, place):
        line = self.line_of(place)
        return self.text[self.starts[line - 1] : (self.starts + [len(self.text) + 1])[line] - 1].strip()


def one_line(text):
    return re.sub(r"\s+", " ", text)


def without_effect():
    """Path, line and change of what is known to make no difference."""
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "mutants_without_effect"), encoding="utf-8") as file:
        return {tuple(line.split(" | ")[:3]) for line in file if not line.startswith("#")}


def plant(only, seed):
    """For each root and kind: every possible change, in an order that the seed decides."""
    chosen, lines, known = {}, {root: 0 for root in ROOTS}, without_effect()
    listed = subprocess.run(
        ["git", "ls-files", *(f"{root}/*.[ch]pp" for root in ROOTS), *(f"{root}/**/*.[ch]pp" for root in ROOTS)],
        check=True, capture_output=True, text=True).stdout.split()
    for path in sorted(set(listed)):
        if only and not fnmatch.fnmatch(path, only):
            continue
        source = Source(path)
        root = path.split("/")[0]
        lines[root] += source.lines
        for kind in KINDS:
            for start, end, choices in FINDERS[kind](source.text, source.code):
                chosen.setdefault((root, kind), []).append((source, start, end, choices))
    mutants = {}
    for (root, kind), places in sorted(chosen.items()):
        draw = random.Random(f"{seed} {root} {kind}")
        draw.shuffle(places)
        mutants[root, kind] = [
            {
                "kind": kind, "path": source.path, "line": source.line_of(start),
                "was": one_line(source.text[start:end]), "is": one_line(becomes), "start": start, "end": end,
                "becomes": becomes, "original": source.text[start:end],
            }
            for source, start, end, choices in places
            for becomes in [draw.choice(choices)]
            if (source.path, source.line_text(start), f"{one_line(source.text[start:end])} -> {one_line(becomes)}") not in known
        ]
    return mutants, lines


def quotas(count, lines, mutants):
    """How many of each root and kind: by lines of code over the roots, alike over the kinds."""
    total = sum(lines.values())
    share = {}
    left = count
    roots = [root for root in ROOTS if lines[root] > 0]
    for i, root in enumerate(roots):
        of_root = left if i == len(roots) - 1 else round(count * lines[root] / total)
        left -= of_root
        for j, kind in enumerate(KINDS):
            share[root, kind] = of_root // len(KINDS) + (1 if j < of_root % len(KINDS) else 0)
    return {key: n for key, n in share.items() if n > 0 and key in mutants}


# ---- One change, in namespaces of its own ----


def run_quietly(command, seconds, environment=None):
    """Status and output of a command; the status is None when its time ran out."""
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                               start_new_session=True, env=environment)
    try:
        output, _ = process.communicate(timeout=seconds)
        return process.returncode, output
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, 9)
        output, _ = process.communicate()
        return None, output


def limit_processor_time(seconds):
    resource.setrlimit(resource.RLIMIT_CPU, (int(seconds), int(seconds) + 5))


def run_shards(program, shards, seconds, extra=()):
    """Runs a program of tests in several processes. The first that fails ends all: (status, output) or None.

    A test that does not end is known by the processor time it takes, or by its silence: on a machine that has other
    things to do any test is slow.
    """
    processes = []
    for i in range(shards):
        environment = dict(os.environ, GTEST_TOTAL_SHARDS=str(shards), GTEST_SHARD_INDEX=str(i),
                           GTEST_FAIL_FAST="1", GTEST_COLOR="no")
        output = open(f"/tmp/shard{i}", "w+b")
        processes.append((subprocess.Popen([program, *extra], stdout=output, stderr=subprocess.STDOUT,
                                           start_new_session=True, env=environment,
                                           preexec_fn=lambda: limit_processor_time(seconds)), output))
    waiting = list(processes)
    said = {process: (0, time.monotonic()) for process, _ in processes}  # how much, and when last
    failed = None
    while waiting and failed is None:
        time.sleep(0.02)
        for process, output in list(waiting):
            status = process.poll()
            now = time.monotonic()
            size = os.fstat(output.fileno()).st_size
            if size != said[process][0]:
                said[process] = (size, now)
            if status is None and now - said[process][1] > SILENCE:
                failed = (None, output)
            elif status is not None:
                waiting.remove((process, output))
                if status != 0:
                    failed = (None if status == -signal.SIGXCPU else status, output)
            if failed:
                break
    for process, _ in waiting:
        try:
            os.killpg(process.pid, 9)
        except ProcessLookupError:
            pass
        process.wait()
    if failed is None:
        return None
    failed[1].seek(0)
    return failed[0], failed[1].read().decode(errors="replace")


def verdict(status, output):
    """The test that failed, and how."""
    failures = re.findall(r"^\[  FAILED  \] ([^\s,]+)", output, re.M)
    started = re.findall(r"^\[ RUN      \] (\S+)", output, re.M)
    if failures:
        return failures[0], "fails"
    test = started[-1] if started else "(before the first test)"
    if status is None:
        return test, "time-out"
    return test, f"ends with status {status}"


def instructions(path):
    """What the compiler makes of a source file as it is shipped; None for a header."""
    with open(os.path.join(BUILD, "compile_commands.json"), encoding="utf-8") as file:
        known = [entry for entry in json.load(file) if entry["file"].endswith("/" + path)]
    if not known:
        return None
    words = shlex.split(known[0]["command"])
    words = words[: words.index("-o")] + words[words.index("-o") + 2 :]
    words = [word for word in words if word != "-c" and not word.startswith(("-g", "-M", "-O"))]
    made = subprocess.run([*words, "-w", "-O2", "-g0", "-S", "-o", "-"], cwd=known[0]["directory"], capture_output=True,
                          text=True, check=True)
    return made.stdout


def work(job):
    """Inside the namespaces: plant, build, test."""
    root = job["root"]
    os.makedirs("/tmp/upper"), os.makedirs("/tmp/work")
    subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                    f"lowerdir={root},upperdir=/tmp/upper,workdir=/tmp/work", root], check=True)
    os.chdir(os.path.join(root, "tree"))
    mutant = job["mutant"]
    if mutant:
        with open(mutant["path"], encoding="utf-8") as file:
            text = file.read()
        with open(mutant["path"], "w", encoding="utf-8") as file:
            file.write(text[: mutant["start"]] + mutant["becomes"] + text[mutant["end"] :])
    os.environ["CCACHE_DISABLE"] = "1"
    os.environ["KAP_FORMATS_SEEN_DIR"] = "/tmp/texts"
    os.makedirs("/tmp/texts")
    for name in job["tests"]:
        status, output = run_quietly(
            ["ninja", "-C", BUILD, "--quiet", "-j", str(job["processors"]), name,
             *NEEDS.get(name, ())], 1800)
        if status != 0:
            return {"result": "does not compile", "output": output[-2000:]}
        program = os.path.join(BUILD, "bin", name)
        shards = SHARDS.get(name, MANY_SHARDS)
        limit = job["limits"].get(name, 600)
        excluded = []
        for _ in range(3):
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            failed = run_shards(program, shards, limit, ["--gtest_filter=-" + ":".join(excluded)] if excluded else [])
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            seconds = round(after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime, 1)
            if not mutant:
                job["seconds"][name] = seconds
            if failed is None:
                break
            test, how = verdict(*failed)
            if name in CORE or "(" in test or not mutant:
                return {"result": "caught", "by": f"{name}: {test}", "how": how, "output": failed[1][-3000:]}
            # A test that waits on a loaded machine may fail by itself: it has to fail again, alone.
            again = run_shards(program, 1, limit, [f"--gtest_filter={test}"])
            if again is not None:
                return {"result": "caught", "by": f"{name}: {test}", "how": how, "output": failed[1][-3000:]}
            excluded.append(test)
    if set(CORE) <= set(job["tests"]):
        status, output = run_quietly(["scripts/check-texts", "/tmp/texts"], 600)
        if status != 0:
            return {"result": "caught", "by": "scripts/check-texts", "how": "fails", "output": output[-3000:]}
    if mutant and not mutant["path"].endswith(".hpp"):
        planted = instructions(mutant["path"])
        with open(mutant["path"], "w", encoding="utf-8") as file:
            file.write(text)
        if planted == instructions(mutant["path"]):
            return {"result": "no change"}
    return {"result": "survived", "seconds": job["seconds"]}


def run_isolated(job):
    command = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", sys.executable, "-B",
               os.path.abspath(__file__), "--inner"]
    process = subprocess.run(command, input=json.dumps(job), capture_output=True, text=True)
    try:
        return json.loads(process.stdout.splitlines()[-1])
    except (IndexError, json.JSONDecodeError):
        raise RuntimeError(f"the worker failed: {process.stderr[-2000:]}") from None


def inner():
    job = json.load(sys.stdin)
    job.setdefault("seconds", {})
    # Nothing of the machine's /tmp is seen or written.
    if not job["root"].startswith("/tmp/"):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/tmp"], check=True)
    result = work(job)
    print(json.dumps(result))


# ---- The run ----


def copy_tree(target):
    """The tracked files as they are now; what is the same keeps its time."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], check=True, capture_output=True, text=True)
    wanted = set()
    changed = False
    for path in listed.stdout.splitlines():
        if not os.path.isfile(path):
            continue
        wanted.add(path)
        copy = os.path.join(target, path)
        with open(path, "rb") as file:
            content = file.read()
        try:
            with open(copy, "rb") as file:
                if file.read() == content:
                    continue
        except FileNotFoundError:
            os.makedirs(os.path.dirname(copy), exist_ok=True)
        shutil.copy(path, copy)
        changed = True
    for directory, below, files in os.walk(target):
        if directory == target and "build" in below:
            below.remove("build")
        for name in files:
            path = os.path.join(directory, name)
            if os.path.relpath(path, target) not in wanted:
                os.remove(path)
                changed = True
    return changed


def build_base(root, tests, processors):
    tree, build = os.path.join(root, "tree"), os.path.join(root, "tree", BUILD)
    if copy_tree(tree) and os.path.exists(os.path.join(root, "base.json")):
        os.remove(os.path.join(root, "base.json"))
    if not os.path.exists(os.path.join(build, "build.ninja")):
        linker = "-fuse-ld=lld" if shutil.which("ld.lld") else ""
        subprocess.run(
            ["cmake", "-G", "Ninja", "-S", tree, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DKAP_UNOPTIMISED=ON",
             f"-DCMAKE_EXE_LINKER_FLAGS={linker}", f"-DCMAKE_SHARED_LINKER_FLAGS={linker}"],
            check=True, stdout=subprocess.DEVNULL)
    targets = sorted({name for test in tests for name in (test, *NEEDS.get(test, ()))})
    status, output = run_quietly(["ninja", "-C", build, "--quiet", "-j", str(processors), *targets], 7200)
    if status != 0:
        sys.exit(f"the tests do not build:\n{output}")


def run_unchanged(root, tests, processors):
    """The processor time of each program of tests when nothing is changed; None when one fails. Kept until a file changes."""
    kept = os.path.join(root, "base.json")
    seconds = {}
    if os.path.exists(kept):
        with open(kept, encoding="utf-8") as file:
            seconds = json.load(file)
    missing = [name for name in tests if name not in seconds]
    if missing:
        base = run_isolated({"root": root, "mutant": None, "tests": missing, "limits": {}, "processors": processors})
        if base["result"] != "survived":
            print(f"without any change: {base.get('by', '')} {base['result']}\n{base['output']}", file=sys.stderr)
            return None
        seconds.update(base["seconds"])
        with open(kept, "w", encoding="utf-8") as file:
            json.dump(seconds, file)
    return seconds


class Run:
    def __init__(self, options, mutants, share, limits, root):
        self.options, self.mutants, self.share, self.limits, self.root = options, mutants, share, limits, root
        self.lock = threading.Lock()
        self.next = {key: 0 for key in share}
        self.done = []
        self.given_up = 0

    def take(self, key):
        with self.lock:
            if self.next[key] >= len(self.mutants[key]):
                return None
            self.next[key] += 1
            return self.mutants[key][self.next[key] - 1]

    def one(self, key):
        """A change of this root and kind, in place of those that do not compile."""
        while True:
            mutant = self.take(key)
            if mutant is None:
                return
            began = time.monotonic()
            result = run_isolated({"root": self.root, "mutant": mutant, "tests": tests_of(mutant["path"]),
                                   "limits": self.limits, "processors": self.options.processors})
            if result["result"] in ("does not compile", "no change"):
                with self.lock:
                    self.given_up += 1
                continue
            mutant.update(result, seconds=round(time.monotonic() - began, 1))
            with self.lock:
                self.done.append(mutant)
                print(line_about(mutant, len(self.done)), flush=True)
            return


def survivors_of_last(root):
    """What the last run left, as far as its place in the sources is the same, each in a list of its own."""
    with open(os.path.join(root, "results.json"), encoding="utf-8") as file:
        left = [mutant for mutant in json.load(file) if mutant["result"] == "survived"]
    again = {}
    for mutant in left:
        with open(mutant["path"], encoding="utf-8") as file:
            there = file.read()[mutant["start"] : mutant["end"]]
        if there == mutant["original"]:
            again[mutant["path"], str(mutant["start"])] = [mutant]
        else:
            print(f"{mutant['path']}:{mutant['line']} has changed since")
    return again


def line_about(mutant, number):
    where = f"{mutant['path']}:{mutant['line']}"
    change = f"{mutant['was']}  ->  {mutant['is']}" if mutant["kind"] != "step" else f"dropped: {mutant['was']}"
    by = f"\n         {mutant['by']} ({mutant['how']})" if mutant["result"] == "caught" else ""
    return f"{number:4} {mutant['result']:8} {where}  {mutant['kind']}  {change[:160]}  {mutant['seconds']} s{by}"


def main():
    if sys.argv[1:] == ["--inner"]:
        inner()
        return 0
    parser = argparse.ArgumentParser()
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=200)
    parser.add_argument("--only", default="")
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("--processors", type=int, default=1)
    parser.add_argument("--bar", type=float, default=95)
    parser.add_argument("--again", action="store_true")
    parser.add_argument("--list", action="store_true")
    options = parser.parse_args()
    root = os.path.join(os.path.abspath(os.environ.get("KAP_BUILD", "build")), "mutants")
    if options.again:
        mutants = survivors_of_last(root)
        share = {key: 1 for key in mutants}
    else:
        mutants, lines = plant(options.only, options.seed)
        share = quotas(options.count, lines, mutants)
    if options.list:
        for key, n in share.items():
            for mutant in mutants[key][:n]:
                print(f"{mutant['path']}:{mutant['line']}  {mutant['kind']}  {mutant['was'][:100]}  ->  {mutant['is'][:100]}")
        return 0
    tests = []
    for key, n in share.items():
        for mutant in mutants[key]:
            tests += [name for name in tests_of(mutant["path"]) if name not in tests]
    build_base(root, tests, options.processors)
    seconds = run_unchanged(root, tests, options.processors)
    if seconds is None:
        return 1
    limits = {name: 20 + 5 * seconds[name] for name in tests}  # of processor time
    run = Run(options, mutants, share, limits, root)
    began = time.monotonic()
    work_list = [key for key, n in share.items() for _ in range(n)]
    random.Random(options.seed).shuffle(work_list)
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for future in [pool.submit(run.one, key) for key in work_list]:
            future.result()
    with open(os.path.join(root, "results.json"), "w", encoding="utf-8") as file:
        json.dump(run.done, file, indent=1)
    if options.again:
        return 1 if any(mutant["result"] == "survived" for mutant in run.done) else 0
    survivors = [mutant for mutant in run.done if mutant["result"] == "survived"]
    print(f"\n{'':24}" + "".join(f"{kind:>12}" for kind in KINDS))
    for top in ROOTS:
        cells = ""
        for kind in KINDS:
            of = [m for m in run.done if m["kind"] == kind and m["path"].startswith(top + "/")]
            cells += f"{sum(m['result'] == 'caught' for m in of):>8}/{len(of):<3}"
        print(f"{top:24}{cells}")
    for mutant in survivors:
        print(line_about(mutant, 0))
    caught = len(run.done) - len(survivors)
    timeouts = sum(mutant.get("how") == "time-out" for mutant in run.done)
    percent = 100 * caught / max(1, len(run.done))
    print(f"seed {options.seed}: {caught} of {len(run.done)} caught ({percent:.1f} %), {timeouts} of them by a time-out; "
          f"{run.given_up} did not compile or made the same program, and were replaced; {time.monotonic() - began:.0f} s")
    return 0 if percent >= options.bar else 1


if __name__ == "__main__":
    sys.exit(main())
