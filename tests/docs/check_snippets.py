#!/usr/bin/env python3
"""Runs the examples in the documentation and compares them with the output shown below them.

In a Markdown page, a block fenced as ```plumscript is a whole script, and the block fenced as
```output that follows it (with nothing but prose between) is what it prints:

  plumscript               `plumscript run`: standard output, and the run ends normally. Without an
                           output block the script must compile.
  plumscript error         `plumscript run`: standard output and standard error together, as on a
                           terminal; the run ends with a runtime error.
  plumscript check-error   `plumscript check`: standard error; the script does not compile.
  plumscript debug         `plumscript debug`, with the block fenced as ```input between the two as
                           its standard input: standard output and standard error together.

The script is saved as example.plm, which is how messages name it.
"""

import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "scripts"))
sys.dont_write_bytecode = True
from run_cases import difference, run  # noqa: E402

FENCE = re.compile(r"^(`{3,}|~{3,})(.*)$")


def blocks(text):
    """The fenced blocks of a page: (line number, info string, text)."""
    fence = None
    for number, line in enumerate(text.split("\n"), 1):
        match = FENCE.match(line)
        if fence is None and match:
            fence, info, start, body = match[1], match[2].strip(), number, []
        elif fence is not None and match and match[1].startswith(fence) and not match[2].strip():
            yield start, info, "".join(part + "\n" for part in body)
            fence = None
        elif fence is not None:
            body.append(line)
    if fence is not None:
        raise SystemExit(f"line {start}: the block has no end")


def snippets(text):
    """The scripts of a page: (line number, mode, script, input, output or None)."""
    pending = None
    for number, info, body in blocks(text):
        words = info.split()
        if pending and words == ["input"]:
            pending = (*pending[:3], body)
            continue
        if pending and words == ["output"]:
            yield (*pending, body)
            pending = None
            continue
        if pending:
            yield (*pending, None)
            pending = None
        if words[:1] == ["plumscript"]:
            pending = (number, " ".join(words[1:]), body, "")
        elif words == ["output"]:
            raise SystemExit(f"line {number}: output of no script")
    if pending:
        yield (*pending, None)


def check(plumscript, timeout, mode, script, stdin, output):
    """What is wrong with a snippet: empty when it is as shown."""
    if mode not in ("", "error", "check-error", "debug"):
        return f"unknown kind of example: {mode}\n"
    if output is None and mode:
        return "its output block is missing\n"
    verb = "check" if mode == "check-error" or output is None else "run"
    if mode == "debug":
        verb = "debug"
    with tempfile.TemporaryDirectory() as folder:
        pathlib.Path(folder, "example.plm").write_bytes(script.encode())
        out, err, status = run(
            [plumscript, verb, "example.plm"], folder, timeout, stdin.encode(),
            stderr=subprocess.STDOUT if mode in ("error", "debug") else subprocess.PIPE)
    if status is None:
        return f"no end within {timeout} s\n"
    wanted = {"": 0, "error": 2, "check-error": 1, "debug": 0}[mode]
    shown = err if mode == "check-error" else out
    fault = difference("output", (output or "").encode(), shown)
    if status != wanted:
        fault += f"exit status {status}, expected {wanted}\n"
        if mode == "":
            fault += err.decode("utf-8", "backslashreplace")
    return fault


def main():
    parser = argparse.ArgumentParser(description="Runs the examples in the documentation.")
    parser.add_argument("--plumscript", required=True, help="the program to run them with")
    parser.add_argument("--timeout", type=float, default=10, help="seconds for an example (10)")
    parser.add_argument("pages", type=pathlib.Path, nargs="+")
    options = parser.parse_args()
    plumscript = os.path.abspath(options.plumscript)

    passed, failed = 0, 0
    for page in options.pages:
        for number, *snippet in snippets(page.read_text(encoding="utf-8")):
            fault = check(plumscript, options.timeout, *snippet)
            if fault:
                failed += 1
                print(f"FAILED {page.name}, line {number}\n{fault}", flush=True)
            else:
                passed += 1
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
