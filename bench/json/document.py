"""Parses or formats the document beside the script REPEATS times."""

import json
import pathlib
import sys

action, repeats = sys.argv[1], int(sys.argv[2])
text = pathlib.Path(__file__).with_name("document.json").read_text(encoding="ascii")
value = json.loads(text)
if action == "parse":
    for _ in range(repeats):
        value = json.loads(text)
elif action == "format":
    for _ in range(repeats):
        text = json.dumps(value)
