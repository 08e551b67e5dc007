#!/usr/bin/env python3
"""Runs the script cases of one folder and compares what they print, byte by byte.

A case is a script NAME.plm with, beside it:

  NAME.out     what it prints on standard output
  NAME.err     what goes to standard error (without the file: nothing)
  NAME.status  the exit status (without the file: 0)
  NAME.args    the script's arguments, one a line
  NAME.cmd     what plumscript is told to do with it in place of "run", such as "check" or "disasm"
  NAME.in      its standard input (without the file: at its end at once)

Each case runs in the folder, with the file given as NAME.plm, so that messages name it so. Scripts
that only serve other cases (libraries, data) lie in a folder below. With --update the expected
files are written from what happens; read the difference before you commit it.
"""

import argparse
import difflib
import os
import pathlib
import shlex
import signal
import subprocess
import sys

EXPECTATIONS = ("out", "err", "status")
COMPANIONS = EXPECTATIONS + ("args", "cmd", "in")


def run(command, folder, timeout, stdin=b"", stderr=subprocess.PIPE):
    """Runs a command in a process group of its own. Returns (stdout, stderr, status).

    The status is None when the time was up; what the group then still ran is ended.
    """
    environment = {k: v for k, v in os.environ.items() if not k.startswith("ORVEX_")}
    environment.update(TZ="UTC", LC_ALL="C.UTF-8")
    process = subprocess.Popen(
        command, cwd=folder, env=environment, start_new_session=True,
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=stderr)
    try:
        out, err = process.communicate(stdin, timeout)
        return out, err or b"", process.returncode
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        out, err = process.communicate()
        return out, err or b"", None


def difference(name, expected, actual):
    """A unified diff of two byte strings; bytes that are no text show as escapes."""
    def lines(data):
        text = data.decode("utf-8", "backslashreplace")
        result = text.replace("\r", "\\r").splitlines(keepends=True)
        if result and not result[-1].endswith("\n"):
            result[-1] += "\n\\ No newline at end\n"
        return result
    return "".join(difflib.unified_diff(
        lines(expected), lines(actual), name + " (expected)", name + " (actual)"))


class Case:
    def __init__(self, script):
        self.script = script

    def companion(self, kind, default=b""):
        path = self.script.with_suffix("." + kind)
        return path.read_bytes() if path.exists() else default

    def command(self, plumscript):
        words = shlex.split(self.companion("cmd", b"run").decode())
        return [plumscript, *words, self.script.name,
                *self.companion("args").decode().splitlines()]

    def expected(self):
        return {"out": self.companion("out"), "err": self.companion("err"),
                "status": self.companion("status", b"0").strip() + b"\n"}

    def write_expected(self, actual):
        for kind in EXPECTATIONS:
            path = self.script.with_suffix("." + kind)
            unsaid = b"0\n" if kind == "status" else b""
            if kind == "out" or actual[kind] != unsaid:
                path.write_bytes(actual[kind])
            else:
                path.unlink(missing_ok=True)

    def check(self, plumscript, timeout, update):
        """What is wrong with the case: empty when it passes."""
        if not update and not self.script.with_suffix(".out").exists():
            return f"{self.script.stem}.out is missing; --update writes it\n"
        out, err, status = run(
            self.command(plumscript), self.script.parent, timeout, self.companion("in"))
        if status is None:
            return (f"no end within {timeout} s; until then it printed\n"
                    + (out + err).decode("utf-8", "backslashreplace"))
        actual = {"out": out, "err": err, "status": b"%d\n" % status}
        if update:
            self.write_expected(actual)
            return ""
        expected = self.expected()
        return "".join(difference(f"{self.script.stem}.{kind}", expected[kind], actual[kind])
                       for kind in EXPECTATIONS)


def strays(folder):
    """Companions whose script is gone: their case would silently not run."""
    for path in sorted(folder.iterdir()):
        if path.suffix[1:] in COMPANIONS and not path.with_suffix(".plm").exists():
            yield path.name


def main():
    parser = argparse.ArgumentParser(description="Runs the script cases of one folder.")
    parser.add_argument("--plumscript", required=True, help="the program to run them with")
    parser.add_argument("--timeout", type=float, default=10, help="seconds for a case (10)")
    parser.add_argument("--update", action="store_true", help="write the expected files")
    parser.add_argument("folder", type=pathlib.Path)
    options = parser.parse_args()
    plumscript = os.path.abspath(options.plumscript)

    passed, failed = 0, 0
    for script in sorted(options.folder.glob("*.plm")):
        fault = Case(script).check(plumscript, options.timeout, options.update)
        if fault:
            failed += 1
            print(f"FAILED {script.stem}\n{fault}", flush=True)
        else:
            passed += 1
    for name in strays(options.folder):
        failed += 1
        print(f"FAILED {name}\nthere is no script beside it\n")
    print(f"{options.folder.name}: {passed} passed, {failed} failed")
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main())
