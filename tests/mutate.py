#!/usr/bin/env python3
"""Which deliberate faults do the tests miss? mutate.py COUNT SECONDS [SEED]

In a copy of the sources, one fault at a time goes into a covered line of src/: a comparison, a negation, a number, a
truth value or an operator is changed, or a statement left out. What depends on it is built, and the tests that cover
the line run, unit tests and quick ones first, until one fails. Needs about as long as all tests once before that."""

import hashlib
import json
import os
import random
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutate"
SOURCE, BUILD, PROFILES = WORK / "source", WORK / "build", WORK / "profiles"
JOBS = os.environ.get("JOBS", str(os.cpu_count()))
# A fault may signal other processes than it should: the tests see their own alone.
APART = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc"] + ([] if os.getuid() == 0 else ["--map-root-user"])

# What a line is searched for, and what stands there instead.
FAULTS = [
    ("comparison", r" == ", " != "), ("comparison", r" != ", " == "),
    ("bound", r" < ", " <= "), ("bound", r" > ", " >= "), ("bound", r" <= ", " < "), ("bound", r" >= ", " > "),
    ("operator", r" && ", " || "), ("operator", r" \|\| ", " && "),
    ("negation", r"(?<![\w\])])!(?=[\w(])", ""), ("truth", r"\btrue\b", "false"), ("truth", r"\bfalse\b", "true"),
    ("off by one", r" [+-] 1\b", ""), ("off by one", r"(?<![\w.])\d+(?![\w.'])", lambda m: str(int(m.group()) + 1)),
    ("left out", r"(?<=^    )\s*(?!return|const|auto|static|using|case)[\w.:>()-]+(\(.*\)| [+-]?= .*);$", ";"),
]


def run(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)


def copy_sources():
    """True when something has changed since the last time."""
    listed = run(["git", "ls-files", "--cached", "--others", "--exclude-standard"], cwd=ROOT).stdout.decode().split("\n")
    digest = hashlib.sha256()
    for name in filter(lambda name: (ROOT / name).is_file(), sorted(listed)):
        content = (ROOT / name).read_bytes()
        digest.update(name.encode() + content)
        target = SOURCE / name
        if not target.exists() or target.read_bytes() != content:
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, target)
    return digest.hexdigest()


def build():
    return run(["ninja", "-C", BUILD, "-j", JOBS, "--quiet"])


def run_test(test, profile):
    """Whether it passes, and its time."""
    shutil.rmtree(profile, ignore_errors=True)
    begun = time.monotonic()
    try:
        passed = run(APART + test["command"], env={**os.environ, "GCOV_PREFIX": str(profile)}, cwd=BUILD,
                     timeout=3 * test.get("seconds", 60) + 5).returncode == 0
    except subprocess.TimeoutExpired:
        passed = False
    return passed, time.monotonic() - begun


def covered_lines(profile):
    """Of each file under src/, those that the run came to."""
    lines = {}
    counts = [str(path) for path in profile.rglob("*.gcda") if "/src/" in str(path)]
    for path in counts:
        notes = Path(path.removeprefix(str(profile))).with_suffix(".gcno")
        shutil.copy(notes, Path(path).with_suffix(".gcno"))
    output = run(["gcov", "--json-format", "--stdout"] + counts).stdout if counts else b""
    for text in output.decode(errors="replace").split("\n"):
        for file in json.loads(text)["files"] if text.startswith("{") else []:
            name = os.path.relpath(os.path.join(BUILD, file["file"]), SOURCE)
            if name.startswith("src/") and name.endswith(".cpp"):
                lines.setdefault(name, set()).update(line["line_number"] for line in file["lines"] if line["count"])
    return {name: sorted(numbers) for name, numbers in lines.items()}


def measure():
    """Every test that passes, with its time and the lines that it covers."""
    listed = json.loads(run(["ctest", "--test-dir", BUILD, "--show-only=json-v1", "-LE", "web"]).stdout)["tests"]
    tests = [{"name": test["name"], "command": test["command"]} for test in listed]
    for test in tests:
        test["passed"], test["seconds"] = run_test(test, PROFILES)
        test["lines"] = covered_lines(PROFILES)
        print(f"{test['seconds']:6.1f} s  {test['name']}" + ("" if test["passed"] else "  (fails, not used)"), flush=True)
    return sorted((test for test in tests if test["passed"]),
                  key=lambda test: (not test["name"].startswith("unit"), test["seconds"]))


def candidates(tests):
    for name in sorted({name for test in tests for name in test["lines"]}):
        covered = {number for test in tests for number in test["lines"].get(name, [])}
        for number, line in enumerate((SOURCE / name).read_text().split("\n"), 1):
            if number not in covered:
                continue
            code = re.sub(r'"(\\.|[^"\\])*"|//.*', lambda m: "_" * len(m.group()), line)  # Texts stay.
            for kind, pattern, instead in FAULTS:
                for match in re.finditer(pattern, code):
                    text = instead if isinstance(instead, str) else instead(match)
                    yield name, number, kind, line[:match.start()] + text + line[match.end():]


def judge(fault, tests):
    """What becomes of it, in words."""
    name, number, _, line = fault
    path = SOURCE / name
    before = path.read_text()
    lines = before.split("\n")
    lines[number - 1] = line
    path.write_text("\n".join(lines))
    try:
        if build().returncode != 0:
            return "does not compile"
        for test in (test for test in tests if number in test["lines"].get(name, [])):
            if not run_test(test, PROFILES)[0]:
                return "caught by " + test["name"]
        return "SURVIVES"
    finally:
        path.write_text(before)


def main():
    count, seconds, seed = int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3]) if len(sys.argv) > 3 else 1
    digest, known = copy_sources(), WORK / "tests.json"
    run(["cmake", "-S", SOURCE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
         "-DCMAKE_CXX_FLAGS_DEBUG=-O0 --coverage -Wno-error"])
    built = build()
    if built.returncode != 0:
        sys.exit(built.stdout.decode())
    stored = json.loads(known.read_text()) if known.exists() else {}
    if stored.get("digest") != digest:
        stored = {"digest": digest, "tests": measure()}
        known.write_text(json.dumps(stored))
    deadline = time.monotonic() + seconds
    faults = random.Random(seed).sample(sorted(candidates(stored["tests"])), 4 * count)
    verdicts = []
    for fault in faults:
        if len(verdicts) == count or time.monotonic() > deadline:
            break
        verdict = judge(fault, stored["tests"])
        if verdict != "does not compile":
            verdicts.append(verdict)
            print(f"{verdict}: {fault[0]}:{fault[1]}: {fault[2]}: {fault[3].strip()}", flush=True)
    build()
    print(f"{len(verdicts)} faults, {verdicts.count('SURVIVES')} survive")


if __name__ == "__main__":
    main()
