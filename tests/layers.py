#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Holds the files of the library, their includes and the weights of the public headers to the rules and
the two tables of ARCHITECTURE.md. Each public header compiles alone as C++17 with every compiler named,
for each pointer size that it can compile for; weights are those of the first one and 64 bits.

Usage: tests/layers.py COMPILER...
"""
import fnmatch, itertools, pathlib, re, subprocess, sys
from concurrent.futures import ThreadPoolExecutor

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = (ROOT / "ARCHITECTURE.md").read_text()
STANDARD = set("""algorithm atomic bit cctype cerrno cfloat chrono climits clocale cmath compare cstdarg
    cstddef cstdint cstdio cstdlib cstring ctime format functional initializer_list iosfwd iterator limits
    map memory memory_resource mutex new set string string_view tuple type_traits typeinfo utility vector
    version errno.h limits.h math.h stddef.h
    stdint.h stdio.h stdlib.h string.h""".split())
wrong = []


def rows(first_heading):
    """The cells of the table under a row that begins with the heading."""
    table = PAGE[PAGE.index(f"| {first_heading} |"):].split("\n\n")[0].split("\n")[2:]
    return [[cell.strip() for cell in line.strip("| ").split(" | ")] for line in table]


def rooms():
    """The room of each file: (floor, number of the row)."""
    files = [str(path.relative_to(ROOT)) for folder in ("utils", "ysys")
             for path in (ROOT / folder).rglob("*") if path.suffix in (".h", ".cpp")]
    room = {}
    for number, (floor, patterns, *_) in enumerate(rows("Floor")):
        for pattern in re.findall(r"`([^`]+)`", patterns):
            found = [file for file in files if fnmatch.fnmatch(file, pattern)]
            if not found:
                wrong.append(f"the table of floors names {pattern}, which no file is")
            for file in found:
                if file in room:
                    wrong.append(f"the table of floors names {file} twice")
                room[file] = int(floor.lstrip("S")), number
    wrong.extend(f"the table of floors does not name {file}" for file in files if file not in room)
    return room


def includes(file):
    return re.findall(r'^ *#include (["<])([^">]+)', (ROOT / file).read_text(), re.MULTILINE)


def check_includes(room):
    for file, (floor, row) in sorted(room.items()):
        for kind, target in includes(file):
            if kind == "<":
                if target not in STANDARD and not file.startswith("ysys/linux/"):
                    wrong.append(f"{file} includes the system's header {target}")
            elif target not in room:
                wrong.append(f"{file} includes {target}, which is not there")
            elif room[target][0] >= floor and room[target][1] != row:
                wrong.append(f"{file}, on floor {floor}, includes {target}, on {room[target][0]}")
            elif file.startswith("utils/") and target.startswith("ysys/"):
                wrong.append(f"{file} includes {target} of the system layer")
            elif file.startswith("ysys/") and target.startswith("utils/") and room[target][0] > 0:
                wrong.append(f"{file} includes {target}, above the ground floor")


def public_headers():
    return sorted(str(path.relative_to(ROOT)) for folder in ("utils", "utils/sdk", "utils/testing")
                  for path in (ROOT / folder).glob("*.h"))


def check_umbrella():
    """The header of the whole library has each public header except the system's interface and those
    that need much of the standard library."""
    included = {target for _, target in includes("utils/yutils.h")}
    wanted = {header for header in public_headers() if header.startswith("utils/sdk/")}
    apart = "ysys platform atree_std chrono color_allocator color_resource format hash".split()
    missing = wanted - included - {f"utils/sdk/{name}.h" for name in apart}
    wrong.extend(f"utils/yutils.h does not include {header}" for header in sorted(missing))


def check_installed(room):
    """Everything that a public header reaches is public or installed by name."""
    reached, todo = set(), public_headers()
    while todo:
        header = todo.pop()
        if header not in reached and header in room:
            reached.add(header)
            todo += [target for kind, target in includes(header) if kind == '"']
    parts = sorted(reached - set(public_headers()))
    listed = re.search(r"set\(included_parts([^)]*)\)", (ROOT / "cmake/install.cmake").read_text())
    if parts != sorted(listed.group(1).split()):
        wrong.append(f"cmake/install.cmake: included_parts should be {' '.join(parts) or 'empty'}")


def compiles(job, source, *options):
    compiler, size = job
    command = [compiler, f"-m{size}", "-std=c++17", "-I", str(ROOT), "-x", "c++", "-", *options]
    return subprocess.run(command, input=source, text=True, capture_output=True)


def lines_alone(job):
    """The header's weight; None, and the reason among what is wrong, if it does not compile alone."""
    header, target = job
    source = f'#include "{header}"\n'
    checked = compiles(target, source, "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic",
                       "-Wconversion", "-Wshadow", "-Wundef", "-Werror")
    if checked.returncode == 0:
        return compiles(target, source, "-E").stdout.count("\n")
    wrong.append(f"{header} alone, {target[0]} -m{target[1]}:\n{checked.stderr[:2000]}")
    return None


def check_headers(targets):
    headers = public_headers()
    with ThreadPoolExecutor() as pool:
        jobs = itertools.product(headers, targets[1:])
        list(pool.map(lines_alone, jobs))
        weights = dict(zip(headers, pool.map(lines_alone, zip(headers, itertools.repeat(targets[0])))))
    bounds = {name.strip("`"): int(lines) for name, lines in rows("Header")}
    for header, lines in weights.items():
        name = header.removeprefix("utils/sdk/")
        bound = bounds.pop(name, 0)
        if lines is not None and not bound * 0.8 <= lines <= bound * 1.1:
            wrong.append(f"{name} has {lines} lines after the preprocessor, and {bound} in the table")
    wrong.extend(f"the table of weights names {name}, which is not there" for name in bounds)


room = rooms()
check_includes(room)
check_installed(room)
check_umbrella()
targets = [target for target in itertools.product(sys.argv[1:], (64, 32))
           if compiles(target, "#include <cstddef>\n", "-fsyntax-only").returncode == 0]
check_headers(targets)
if wrong:
    sys.exit("\n".join(wrong))
print(f"{len(room)} files keep to their floors; the public headers stand alone with",
      ", ".join(f"{pathlib.Path(compiler).name} -m{size}" for compiler, size in targets))
