#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Compiles and runs the snippets of interop/*.txt: what users of the standard library write.

Usage: tests/interop.py LIBRARY_FOLDER FLAGS COMPILER...

A snippet begins with "=== NAME: RESULT" and has one function, `int use()`. It sees the namespace Utils.
    ok, prints TEXT      it compiles without a warning and returns 0; TEXT is its output, ? for a NUL
    refused, N lines: P  it has an error or a warning of at most N lines in which the pattern P is found
    , from C++20         other languages are left out
    , alone; alone as L  not compiled together with others, for snippets with macros; L is the language
For each compiler and language, all snippets with the result ok are one program, each in a namespace of
its own, and all that are refused are one source.
"""
import itertools, os, pathlib, re, subprocess, sys, tempfile
from concurrent.futures import ThreadPoolExecutor

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIBRARIES, FLAGS, COMPILERS = sys.argv[1], sys.argv[2].split(), sys.argv[3:]
LANGUAGES = {"c++17": 17, "c++20": 20, "c++2b": 23}
RESULT = re.compile(r"(?:ok|prints (?P<out>.*?)|refused, (?P<lines>\d+) lines: (?P<text>.*?))"
                    r"(?:, from C\+\+(?P<since>\d+))?(?P<alone>[,;] alone(?: as C\+\+(?P<only>\d+))?)?")
wrong, tried = [], 0


class Snippet:
    def __init__(self, heading, body):
        self.name, result = heading.split(": ", 1)
        self.result = RESULT.fullmatch(result)
        if not self.result:
            sys.exit(f"the result of {self.name} is not understood: {result}")
        lines = body.split("\n")
        parts = [[line for line in lines if bool(re.match(r"#include", line)) == kind] for kind in (True, False)]
        self.includes, self.code = parts if not self["alone"] else ([], lines)
        self.inside = "namespace {0} {{\nusing namespace Utils;\n#line 1 \"{0}.snippet\"\n{1}\n}}\n".format(
            self.name, "\n".join(self.code)) if not self["alone"] else "\n".join(self.code)

    def __getitem__(self, key):
        return self.result[key]


def compiled(compiler, language, source, *options):
    command = [compiler, f"-std={language}", "-O0", "-Wall", "-Wextra", "-Wpedantic", "-Werror", *FLAGS,
               f"-I{ROOT}", "-x", "c++", "-", *options]
    return subprocess.run(command, input=source, text=True, capture_output=True)


def run(compiler, language, snippets):
    """All snippets must compile, return 0 and print what they should."""
    includes = dict.fromkeys(itertools.chain(["#include <cstdio>"], *(s.includes for s in snippets)))
    calls = "".join(f'std::printf("%s=%d\\n", "{s.name}", {"" if s["alone"] else s.name}::use());\n'
                    "std::fflush(stdout);\n" for s in snippets)
    source = "\n".join([*includes, *(s.inside for s in snippets), "int main() {\n" + calls + "}\n"])
    program = tempfile.mktemp(dir=scratch)
    build = compiled(compiler, language, source, f"-L{LIBRARIES}", "-lyutils", "-lysys",
                     f"-Wl,-rpath,{LIBRARIES}", "-o", program)
    if build.returncode != 0:
        return wrong.append(f"{compiler} {language}: does not compile\n{build.stderr[:6000]}")
    output = subprocess.run([program], capture_output=True).stdout.decode().replace("\0", "?")
    expected = "".join(f"{s['out'] or ''}{s.name}=0\n" for s in snippets)
    if output != expected:
        wrong.append(f"{compiler} {language}: printed\n{output}instead of\n{expected}")


def diagnostics(report):
    """The errors of a report, each with the lines of context before it and the notes after it."""
    found = [[]]
    for line in report.strip().split("\n"):
        if re.match(r"\S+:\d+:\d+: error:", line):
            found.append([])
            while found[-2] and re.match(r"In file included| +from|\S+: (In|At) ", found[-2][-1]):
                found[-1].insert(0, found[-2].pop())
        found[-1].append(line)
    return found


def refuse(compiler, language, snippets):
    """Each snippet must have an error of its own that is as short and as clear as the table says."""
    includes = dict.fromkeys(itertools.chain(*(s.includes for s in snippets)))
    source = "\n".join([*includes, *(s.inside for s in snippets)])
    found = diagnostics(compiled(compiler, language, source, "-fsyntax-only", "-fno-color-diagnostics"
                                 if "clang" in compiler else "-fdiagnostics-color=never").stderr)
    for s in snippets:
        own = ["\n".join(lines) for lines in found if s["alone"] or f"{s.name}.snippet" in "".join(lines)]
        lines = sum(text.count("\n") + 1 for text in own)
        if not re.search(s["text"], "\n".join(own)) or lines > int(s["lines"]):
            wrong.append(f"{compiler} {language}: {s.name} should be refused in at most {s['lines']} lines "
                         f"with {s['text']}; there are {lines}:\n" + "\n".join(own)[:3000])


def check(target):
    global tried
    compiler, (language, year) = target
    here = [s for s in table if not s["only"] and int(s["since"] or 17) <= year]
    tried += len(here)
    for check_all, kind in ((run, False), (refuse, True)):
        chosen = [s for s in here if bool(s["text"]) == kind]
        for group in [[s for s in chosen if not s["alone"]], *([s] for s in chosen if s["alone"])]:
            if group: check_all(compiler, language, group)
    if year == 17:
        for s in table:
            if s["only"]: refuse(compiler, f"c++{s['only']}", [s])


table = []
for path in sorted((ROOT / "tests/interop").glob("*.txt")):
    sections = re.split(r"^=== (.*)\n", path.read_text(), flags=re.MULTILINE)[1:]
    table += [Snippet(heading, body) for heading, body in zip(sections[::2], sections[1::2])]
if len({s.name for s in table}) < len(table) or len(table) < 10:
    sys.exit("the table has a name twice, or is not there")
with tempfile.TemporaryDirectory() as scratch, ThreadPoolExecutor(os.cpu_count()) as pool:
    list(pool.map(check, itertools.product(COMPILERS, LANGUAGES.items())))
if wrong:
    sys.exit("\n".join(wrong))
print(f"{len(table)} snippets, {tried} uses: each compiles or is refused as the table says")
