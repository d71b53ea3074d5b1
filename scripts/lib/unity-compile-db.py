#!/usr/bin/env python3
"""Writes a compile database with one entry per source file from a unity build's database.

A unity build compiles generated unity_<n>_<lang>.<ext> files that #include the target's sources,
and its compile_commands.json names those files only. clang-tidy checks the file it is given, so
each included source gets the command of its unity file with the source in the unity file's place;
entries that are not unity files are kept as they are.

usage: unity-compile-db.py <build dir's compile_commands.json> <output compile_commands.json>
"""
import json
import os
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
UNITY_NAME = re.compile(r"^unity_\d+_(c|cxx)\.(c|cxx)$")


def expand(entry):
    unity = os.path.join(entry["directory"], entry["file"])
    if not UNITY_NAME.match(os.path.basename(unity)):
        return [entry]
    with open(unity, encoding="utf-8") as f:
        sources = INCLUDE.findall(f.read())
    out = []
    for source in sources:
        e = dict(entry)
        e["file"] = source
        if "command" in e:
            e["command"] = e["command"].replace(entry["file"], source)
        if "arguments" in e:
            e["arguments"] = [source if a == entry["file"] else a for a in e["arguments"]]
        e.pop("output", None)
        out.append(e)
    return out


def main():
    source_db, target_db = sys.argv[1], sys.argv[2]
    with open(source_db, encoding="utf-8") as f:
        entries = json.load(f)
    expanded = [e for entry in entries for e in expand(entry)]
    os.makedirs(os.path.dirname(os.path.abspath(target_db)), exist_ok=True)
    with open(target_db, "w", encoding="utf-8") as f:
        json.dump(expanded, f, indent=1)


if __name__ == "__main__":
    main()
