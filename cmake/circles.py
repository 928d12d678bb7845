#!/usr/bin/env python3
"""Circles among the sources below a folder: files that include each other, a source and its headers being one.

circles.py DIR prints one a line, and fails when there is any.
"""

import re
import sys
from pathlib import Path


def includes(directory):
    """Which unit includes which: {stem: {stem, ...}}."""
    sources = [path for path in Path(directory).rglob("*") if path.suffix in (".h", ".cpp")]
    stems = {path.stem for path in sources}
    graph = {stem: set() for stem in stems}
    for path in sources:
        named = re.findall(r'^#include "(?:.*/)?(\w+)\.h"', path.read_text(), re.MULTILINE)
        graph[path.stem] |= stems.intersection(named) - {path.stem}
    return graph


def reachable(graph, start):
    found, ahead = set(), [start]
    while ahead:
        new = graph[ahead.pop()] - found
        found |= new
        ahead += new
    return found


def main():
    graph = includes(sys.argv[1])
    reached = {stem: reachable(graph, stem) for stem in graph}
    circles = {frozenset(other for other in reached[stem] if stem in reached[other]) for stem in graph} - {frozenset()}
    for circle in circles:
        print("circle:", ", ".join(f"{a} -> {b}" for a in sorted(circle) for b in sorted(graph[a] & circle)))
    return 1 if circles else 0


if __name__ == "__main__":
    sys.exit(main())
