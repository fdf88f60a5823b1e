#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Misuses of memory that the address sanitizer and valgrind must report, with the ordinary library.

Usage: tests/sight.py LIBRARY_FOLDER FLAGS COMPILER...

Compiles sight/misuse.cpp with each compiler, plain and sanitized, and compares what each tool says of
each case and each source of memory with the table. Valgrind runs where it is installed and can.
"""
import os, pathlib, re, shutil, subprocess, sys, tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
SOURCE = ROOT / "tests/sight/misuse.cpp"
LIBRARIES, FLAGS, COMPILERS = sys.argv[1], sys.argv[2].split(), sys.argv[3:]
SOURCES = ("process", "arena", "bank", "heap")
FORBIDDEN, ASSERTION = "use-after-poison", r"assertion failed: (busy\(h\)|s\+1 == TAIL)"
# case: (the sanitizer's report, valgrind's); None if the case must run to its end without a report.
EXPECTED = {0: (None, None), 1: (FORBIDDEN, "Invalid write"), 2: (FORBIDDEN, "Invalid write"),
            3: (FORBIDDEN, "Invalid write"), 4: (FORBIDDEN, "Invalid write"),
            5: (FORBIDDEN, "Invalid read"), 6: (FORBIDDEN, "Invalid write"),
            7: (FORBIDDEN, r"Invalid free\(\)"), 8: (None, "uninitialised value"),
            9: (ASSERTION, r"Invalid free\(\)"), 10: (FORBIDDEN, "Invalid read"),
            11: (None, "77 bytes in 1 blocks are definitely lost")}
# The sanitizer sees no lost block of an arena. An arena on the heap's blocks has none that valgrind
# counts, and its wrong frees are the arena's to report.
ON_HEAP = {7: ASSERTION, 9: ASSERTION, 11: None}
wrong, tried = [], 0


def compiled(compiler, sanitizer):
    program = f"{scratch}/misuse-{pathlib.Path(compiler).name}{sanitizer}"
    subprocess.run([compiler, "-std=c++17", "-g", "-O0", *FLAGS,
                    *([sanitizer] if sanitizer else []), f"-I{ROOT}", str(SOURCE), f"-L{LIBRARIES}",
                    "-lyutils", "-lysys", f"-Wl,-rpath,{LIBRARIES}", "-o", program], check=True)
    return program


def check(name, command, expected, out="", **settings):
    global tried
    tried += 1
    environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=1",
                   "ASAN_SYMBOLIZER_PATH": shutil.which("addr2line"), "YSYS_ASSERT": "", **settings}
    run = subprocess.run(command, env=environment, capture_output=True, text=True)
    said = run.stderr
    if expected is None:
        right = run.returncode == 0 and not re.search(r"ERROR|==\d+==", said) and run.stdout == out
    else:
        right = re.search(expected, said) and re.search(r"misuse\.cpp:\d+|assertion", said)
    if not right:
        wrong.append(f"{name}: expected {expected or 'no report'}, got status {run.returncode}\n{said}")


def try_all(tool, column, prefix, program):
    for case, reports in EXPECTED.items():
        for source in SOURCES if case != 10 else ("process",):
            expected = reports[column]
            if source == "heap" and column == 1: expected = ON_HEAP.get(case, expected)
            check(f"{tool}, case {case}, {source}", [*prefix, program, str(case), source], expected)
    held = [*prefix, program, "12", "process"]
    check(f"{tool}, quarantine", held, None)
    check(f"{tool}, no quarantine", held, None, "used again\n", YSYS_QUARANTINE="0")
    check(f"{tool}, off", [*prefix, program, "4", "process"], None, YSYS_MEMORY_TOOLS="off")


with tempfile.TemporaryDirectory() as scratch:
    for compiler in COMPILERS:
        try_all(f"sanitizer of {compiler}", 0, [], compiled(compiler, "-fsanitize=address"))
    if shutil.which("valgrind") and "-m32" not in FLAGS:
        try_all("valgrind", 1, ["valgrind", "-q", "--leak-check=full"], compiled(COMPILERS[0], ""))
    else:
        print("valgrind is not tried")
for each in wrong:
    print(each)
print(f"{tried - len(wrong)} of {tried} reports are right")
sys.exit(1 if wrong else 0)
