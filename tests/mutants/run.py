#!/usr/bin/env python3
"""Applies small faults to the code, one at a time, and says which of them the tests catch.

    run.py SOURCE WORK [FILE...]

SOURCE is the project, WORK a folder for a copy of it with a build tree of its own. Faults are those
of faults.txt, or only those in the FILEs named. A fault that no test catches is printed as it
stands there.
"""
import os
import pathlib
import shutil
import subprocess
import sys
import time

# The tests that concern a folder, the quickest to find something first.
TESTS = {
    "Ostra": ["soak-tests", "ostra-tests", "sim-tests"],
    "sim": ["soak-tests", "sim-tests", "cli-tests"],
    "platform": ["platform-tests", "soak-tests", "ostra-tests", "fuzz-tests"],
    "cli": ["cli-tests", "fuzz-tests"],
    "p4rt": ["p4rt-core-tests", "p4rt-server-tests"],
}
# A fault may leave something unused, which is no reason to refuse it.
UNUSED = ("function", "variable", "parameter", "but-set-variable", "const-variable")
LENIENT = "".join(f'#pragma GCC diagnostic ignored "-Wunused-{what}"\n' for what in UNUSED)
SECONDS = 180  # after which a test program is taken to hang


def read_faults(path):
    """Yields (file, text, replacement) of each fault."""
    file = text = None
    for line in path.read_text().splitlines():
        if line.startswith("@ "):
            file = line[2:]
        elif line.startswith("- "):
            text = line[2:]
        elif line.startswith("+"):
            yield file, text, line[2:]


def say(words):
    print(words, flush=True)


class Tree:
    """A copy of the project, built as the everyday build is, so that a cache serves both."""

    def __init__(self, source, work):
        self.copy, self.build = work, work / "build/dev"
        self.environment = os.environ | {"CCACHE_BASEDIR": str(work)}
        listed = subprocess.check_output(["git", "ls-files", "-z"], cwd=source, text=True)
        names = set(filter(None, listed.split("\0")))
        for old in [path for path in self.copy.rglob("*") if path.is_file()]:
            name = old.relative_to(self.copy).as_posix()
            if name not in names and not name.startswith("build/"):
                old.unlink()
        for name in names:
            to = self.copy / name
            to.parent.mkdir(parents=True, exist_ok=True)
            if (source / name).is_file() and not (
                to.is_file() and to.read_bytes() == (source / name).read_bytes()
            ):
                shutil.copy(source / name, to)
        subprocess.run(["cmake", "--preset", "dev"], cwd=work, check=True,
                       env=self.environment, stdout=subprocess.DEVNULL)

    def make(self, targets):
        """The compiler's words if it refuses."""
        build = ["cmake", "--build", self.build, "--parallel", str(os.cpu_count()), "--target"]
        done = subprocess.run([*build, *targets], capture_output=True, text=True,
                              env=self.environment)
        return "" if done.returncode == 0 else done.stdout

    def failing(self, test):
        """Whether a test of the program fails, in whatever way."""
        quick = ["--gtest_fail_fast", "--gtest_brief=1", "--gtest_catch_exceptions=0"]
        none = subprocess.DEVNULL
        try:
            done = subprocess.run([self.build / "tests" / test, *quick], stdin=none, stdout=none,
                                  stderr=none, timeout=SECONDS)
        except subprocess.TimeoutExpired:
            return True
        return done.returncode != 0


def judge(tree, file, text, replacement):
    """'caught by ...', 'survives', or why the fault says nothing."""
    folder, name = file.split("/")[0], file.split("/")[-1]
    path = tree.copy / file
    if not path.is_file():  # it may have moved within its folder
        path = next((tree.copy / folder).glob(f"**/{name}"), None)
    if path is None:
        return "stale: there is no such file"
    original = path.read_text()
    if original.count(text) != 1:
        return f"stale: its text stands {original.count(text)} times in the file"
    tests = TESTS[folder]
    path.write_text(LENIENT + original.replace(text, replacement))
    try:
        if tree.make(tests):
            return "not compiled"
        for test in tests:
            if tree.failing(test):
                return "caught by " + test
        return "survives"
    finally:
        path.write_text(original)


def main():
    source, work = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]).resolve()
    wanted = sys.argv[3:]
    faults = [fault for fault in read_faults(source / "tests/mutants/faults.txt")
              if not wanted or fault[0] in wanted]
    if not faults:
        sys.exit("there is no fault in these files")
    tree = Tree(source, work)
    tests = sorted({test for file, _, _ in faults for test in TESTS[file.split("/")[0]]})
    if words := tree.make(tests):
        sys.exit(words)
    if broken := [test for test in tests if tree.failing(test)]:
        sys.exit("without any fault these fail: " + " ".join(broken))
    count = {}
    for number, (file, text, replacement) in enumerate(faults, 1):
        start = time.monotonic()
        verdict = judge(tree, file, text, replacement)
        kind = verdict.split()[0]
        count[kind] = count.get(kind, 0) + 1
        say(f"{number}/{len(faults)} {file}: {verdict} ({time.monotonic() - start:.0f} s)")
        if kind != "caught":
            say(f"- {text}\n+ {replacement}")
    judged = count.get("caught", 0) + count.get("survives", 0)
    say(f"{count.get('caught', 0)} of {judged} faults are caught; {count}")
    sys.exit(0 if count.get("survives", 0) == 0 else 1)


main()
