#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Changes the library's code in one place at a time and counts the changes that the tests notice.

A mutant is one small fault in one line of utils/sdk or ysys: another relation, operator or constant, a
negated condition, a statement removed. It is killed if a test program fails with it, crashes or does not
finish; otherwise it survives, and either a test is missing or the mutant is equivalent, which means that
no caller can notice it. equivalent_mutants.txt lists the known ones, each with its reason.

The sample depends on the seed and on the lines themselves, so an edit elsewhere does not change it. Each
job works in a copy of the sources under build/mutants, in which the module's own tests run first.

Usage: tools/mutants.py [options] [FILE...]     (files relative to the project; all without any)
"""
import argparse, collections, concurrent.futures, hashlib, os, pathlib, queue, re, shutil, signal
import subprocess, sys, time

ROOT = pathlib.Path(__file__).resolve().parent.parent
SWAPS = [(" == ", " != "), (" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "),
         (" != ", " == "), (" && ", " || "), (" || ", " && "), (" + ", " - "), (" - ", " + "),
         (" += ", " -= "), (" -= ", " += "), ("++", "--"), ("--", "++"), ("true", "false"),
         ("false", "true"), ("& ~", "& "), (" * ", " + "), (" / ", " * "), (" >> ", " << "),
         (" << ", " >> ")]
SKIPPED = ("#", "static_assert", "template", "using", "namespace", "typedef", "friend")
STATEMENT = re.compile(r"\s+(\*?[\w.\->\[\]:()]+ (=|\+=|-=|\|=|&=) .*|[\w.\->:]+\(.*\));$")

# The test programs of a source or folder that are not named as it is; all the others run after them.
FIRST = {"alloc": "arena damage", "membank": "arena damage", "memory": "arena damage",
         "text": "string", "logging": "log log_config", "sync": "locker", "trees": "wtree atree",
         "base": "life", "process_allocator": "allocator", "ysys": "ysys fork", "linux": "ysys fork"}

Mutant = collections.namedtuple("Mutant", "path line old new kind")


def code_only(line):
    """The line with its texts and its comment blanked, in the same length."""
    blank = lambda match: "\0" * len(match.group())
    line = re.sub(r'"(\\.|[^"\\])*"|\'(\\.|[^\'\\])+\'', blank, line)
    return re.sub(r"//.*", blank, line)


def mutants_of_line(line):
    """Yields (new line, kind of change) for every change of one line."""
    code = code_only(line)
    text = code.strip()
    if not text or text.startswith(SKIPPED) or "__attribute__" in code or "asm" in code:
        return
    for old, new in SWAPS:
        for match in re.finditer(re.escape(old), code):
            at = match.start()
            declares_pointer = re.match(r"\s*(const\s+)?[\w:]+\s*\*\s", code[:at + 3])
            if not declares_pointer:
                yield line[:at] + new + line[at + len(old):], f"{old.strip()} -> {new.strip()}"
    match = re.search(r"\bif \((.*)\)", code)
    if match and code.count("(") == code.count(")") and ";" not in match.group(1):
        begin, end = match.span(1)
        yield f"{line[:begin]}!({line[begin:end]}){line[end:]}", "condition negated"
    for match in re.finditer(r"(?<![\w.])[01]u?(?![\w.])", code):
        flipped = "1" if match.group()[0] == "0" else "0"
        yield line[:match.start()] + flipped + line[match.start() + 1:], "constant flipped"
    if STATEMENT.match(code) and not text.startswith(("return", "const ", "constexpr")) \
            and code.count("(") == code.count(")"):
        yield re.match(r"\s*", line).group() + ";", "statement removed"


def all_mutants(paths):
    for path in paths:
        for number, line in enumerate((ROOT / path).read_text().split("\n")):
            for new, kind in mutants_of_line(line):
                yield Mutant(path, number, line, new, kind)


def sample(mutants, count, seed):
    """The count mutants whose line and change have the smallest hashes."""
    def rank(mutant):
        words = (str(seed), os.path.basename(mutant.path), mutant.old.strip(), mutant.new.strip())
        return hashlib.sha1("\n".join(words).encode()).digest()
    return sorted(mutants, key=rank)[:count]


def describe(mutant):
    return f"{mutant.path}:{mutant.line + 1} [{mutant.kind}] {mutant.old.strip()}  =>  {mutant.new.strip()}"


class Workshop:
    """A copy of the sources with a build, in which one mutant at a time is tried."""

    def __init__(self, folder, flags):
        self.folder, self.build = folder, folder / "build"
        shutil.rmtree(folder, ignore_errors=True)
        files = subprocess.run(["git", "ls-files"], cwd=ROOT, check=True, text=True, capture_output=True)
        for name in files.stdout.split():
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, folder / name)
        launcher = shutil.which("ccache")
        cached = [f"-DCMAKE_CXX_COMPILER_LAUNCHER={launcher}"] if launcher else []
        subprocess.run(["cmake", "-G", "Ninja", "-S", folder, "-B", self.build, "-DCMAKE_BUILD_TYPE=None",
                        f"-DCMAKE_CXX_FLAGS={flags}", "-DYUTILS_EXAMPLES=OFF",
                        "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", *cached],
                       check=True, stdout=subprocess.DEVNULL)
        if not self.make():
            sys.exit(f"the sources do not build without a change: ninja -C {self.build}")
        self.tests = {}
        for program in sorted((self.build / "tests").glob("*_test")):
            start = time.monotonic()
            if not self.passes(program, 300):
                sys.exit(f"{program} fails without a change")
            self.tests[program.name] = time.monotonic() - start

    def make(self, *targets):
        return self.run(["ninja", "-C", str(self.build), *targets], 900) == 0

    def passes(self, program, seconds):
        return self.run([str(program), "--gtest_brief=1", "--gtest_fail_fast"], seconds) == 0

    def run(self, command, seconds):
        """Returns the exit code; 124 after that long on the processor, or five times that on the clock."""
        limited = ["sh", "-c", f'ulimit -t {seconds} && exec "$@"', "sh", *command]
        child = subprocess.Popen(limited, cwd=self.build, process_group=0,
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
        try:
            return child.wait(5 * seconds)
        except subprocess.TimeoutExpired:
            return 124
        finally:
            try:
                os.killpg(child.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            child.wait()

    def own_tests(self, path):
        stem, folder = pathlib.Path(path).stem, pathlib.Path(path).parent.name
        words = f"{FIRST.get(stem, stem)} {FIRST.get(folder, '')}".split()
        return [name for name in (f"{word}_test" for word in words) if name in self.tests]

    def verdict(self, path):
        """Runs the tests of the module before those of the others are even built."""
        first = self.own_tests(path)
        others = sorted(set(self.tests) - set(first), key=self.tests.get)
        for stage in (first, others):
            targets = [f"tests/{name}" for name in stage] if stage is first and first else ["all"]
            if not self.make("yutils", "ysys") or not self.make(*targets):
                return "not built", ""
            for name in stage:
                if not self.passes(self.build / "tests" / name, max(5, int(6 * self.tests[name]))):
                    return "killed", name
        return "SURVIVED", ""

    def judge(self, mutant):
        file = self.folder / mutant.path
        original = file.read_text()
        lines = original.split("\n")
        lines[mutant.line] = mutant.new
        file.write_text("\n".join(lines))
        try:
            return self.verdict(mutant.path)
        finally:
            file.write_text(original)


def known_equivalents():
    """The set of (file name, old line, new line) that the list beside this tool holds."""
    entries = (pathlib.Path(__file__).parent / "equivalent_mutants.txt").read_text().split("\n\n")
    found = set()
    for entry in entries:
        lines = [line for line in entry.strip().split("\n") if not line.startswith("#")]
        if len(lines) >= 4:
            found.add((lines[0].strip(), lines[1].strip(), lines[2].strip()))
    return found


def report(results):
    equivalents = known_equivalents()
    table = collections.defaultdict(collections.Counter)
    survivors = []
    for mutant, (verdict, _) in results:
        key = (os.path.basename(mutant.path), mutant.old.strip(), mutant.new.strip())
        if verdict == "SURVIVED" and key in equivalents:
            verdict = "equivalent"
        elif verdict == "SURVIVED":
            survivors.append(mutant)
        table[mutant.path][verdict] += 1
        table["all"][verdict] += 1
    print(f"\n{'file':36}{'killed':>8}{'survived':>10}{'equivalent':>12}{'not built':>11}")
    for path in sorted(table, key=lambda path: (path == "all", path)):
        row = table[path]
        print(f"{path:36}{row['killed']:8}{row['SURVIVED']:10}{row['equivalent']:12}{row['not built']:11}")
    print("\nSurvivors:", *sorted(map(describe, survivors)), sep="\n")
    killed, survived = table["all"]["killed"], len(survivors)
    print(f"\nscore {100 * killed / max(1, killed + survived):.1f}% ({killed} of {killed + survived})")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("files", nargs="*", metavar="FILE")
    parser.add_argument("--count", type=int, default=60, help="mutants to try (60)")
    parser.add_argument("--full", action="store_true", help="tries all of them")
    parser.add_argument("--seed", default="1", help="chooses the sample (1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--flags", default="-O0", help="flags of the compiler (-O0)")
    options = parser.parse_args()

    paths = options.files or sorted(
        str(file.relative_to(ROOT)) for folder in ("utils/sdk", "ysys")
        for file in (ROOT / folder).rglob("*") if file.suffix in (".cpp", ".h"))
    mutants = list(all_mutants(paths))
    chosen = mutants if options.full else sample(mutants, options.count, options.seed)
    print(f"{len(chosen)} of {len(mutants)} mutants", flush=True)

    shops = queue.Queue()
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as jobs:
        make = lambda number: Workshop(ROOT / "build" / "mutants" / str(number), options.flags)
        for shop in jobs.map(make, range(options.jobs)):
            shops.put(shop)

        def judge(mutant):
            shop = shops.get()
            try:
                result = shop.judge(mutant)
            finally:
                shops.put(shop)
            print(*result, describe(mutant), flush=True)
            return mutant, result
        report(list(jobs.map(judge, chosen)))


main()
