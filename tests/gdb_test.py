#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Looks at tests/gdb/inspected.cpp with gdb and the library's script.

The same commands are given for a live process, for a core file that gdb made, and for an installed
library without symbols, whose script gdb loads by itself; what they print differs in addresses only.

Usage: tests/gdb_test.py GDB PROGRAM BUILD
"""
import json, os, pathlib, random, re, subprocess, sys, tempfile, unittest

GDB, PROGRAM, BUILD = sys.argv[1:4]
TOOLS = pathlib.Path(__file__).resolve().parent.parent / "tools"
SCRIPT = TOOLS / "gdb/yutils.py"
SEED = int(os.environ.get("YUTILS_TEST_SEED", random.randrange(1 << 30)))

VALUES = {  # what `print` shows, apart from the addresses
    "text": '"hello"', "withNul": r'"a\000b"', "none": '""', "part": '"ell"',
    "noNumbers": "Vector of 0, capacity 0",
    "iterator": 'AVLTreeIter = {key = "word 7", value = 7}', "invalid": "AVLTreeIter at no entry",
    "walk": 'AVLTree::Walk = {key = "word 0", value = 0}', "empty": "empty Ref", "half": "-1.5",
    "uid": "00000001000000023A", "null": "0", "nothing": "a lock that never blocks",
    "light": 'YtLightBLock "light", held by TASK, 2 times, no task waits',
    "heavy": "YtHeavyBLock, held by TASK, 1 time, no task waits",
}
COMMANDS = [
    "yutils heap", "yutils heap bank", "yutils heap &own", "yutils heap --json bank",
    "yutils heap --json  &own", "yutils color 7", "yutils color 4 in bank",
    "yutils block (char*)big + 40", "yutils block small", "yutils log", "yutils errors", "yutils locks",
    "yutils locks mutex", "yutils locks lock", "yutils locks light", "print words", "print counts",
    "print tight", "print thing",
] + ["print " + name for name in VALUES]
REFUSED = {
    "yutils heap limiter": "ADDR is no MemoryAllocator and no MemoryBank",
    "yutils heap 16": "yutils: Cannot access memory at address 0x10",
    "yutils heap nosuch": 'yutils: No symbol "nosuch" in current context.',
    "yutils color": "yutils color needs the number of a colour, from 0 to 63",
    "yutils color 64": "there is no colour 64; colours are 0 to 63",
    "yutils block &words": "ADDR lies in no block of the process allocator",
    "yutils locks 5": "there is no lock or event 5: the handle is stale, or of another kind",
    "yutils nosuch": "there is no command yutils nosuch; see help yutils",
}


def run(commands, *arguments, script=SCRIPT, **environment):
    """What gdb prints for each of the commands."""
    given = ["-ex", f"source {script}"] if script else []
    for each in commands:
        given += ["-ex", f"echo \\n@@ {each}\\n", "-ex", each]
    done = subprocess.run([GDB, "-nx", "-batch", "-iex", "set pagination off", *given, *arguments],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          env={**os.environ, "LC_ALL": "C.UTF-8", **environment})
    for word in "Traceback", "Python Exception", "the script failed":
        assert word not in done.stdout, done.stdout
    parts = done.stdout.split("\n@@ ")[1:]
    return {command: text.strip() for command, text in (part.split("\n", 1) for part in parts)}


def normal(text):
    text = re.sub(r"0x(?!78787878|0000)[0-9a-f]{6,}", "ADDR", text)
    text = re.sub(r"^\$\d+ = ", "", text)
    text = re.sub(r'"process":\d+,"time":"[^"]+Z"', "", text)
    return re.sub(r"task \d+ \(thread \d+\)", "TASK", text)


def stop(mode):
    return ["set print thread-events off", "break stopHere", f"run {mode} 2>/dev/null", "up"]


class Gdb(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.core = cls.folder.name + "/core"
        cls.live = run([*stop("values"), *COMMANDS, *REFUSED, f"generate-core-file {cls.core}"],
                       PROGRAM)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def shown(self, command):
        return normal(self.live[command])

    def testPrintsValues(self):
        for name, text in VALUES.items():
            self.assertEqual(self.shown("print " + name), text, name)
        words = [f'"word {i}"' for i in range(30)]
        self.assertEqual(self.shown("print words"),
                         f"Vector of 30, capacity 32 = {{{', '.join(words)}}}")
        entries = ", ".join(sorted(f'["word {i}"] = {i}' for i in range(30)))
        self.assertEqual(self.shown("print counts"), f"AVLTree of 30 = {{{entries}}}")
        self.assertIn("[98 'b'] = 0.25, [99 'c'] = 0.5,", self.shown("print tight"))
        self.assertRegex(self.shown("print thing"), r"^Ref to .*Thing ADDR, held 2 times = .*number_ = 42")

    def testShowsTheHeap(self):
        for heap in "yutils heap", "yutils heap bank", "yutils heap &own":
            self.assertWhole(self.live[heap])
        blocks = re.findall(r"^0x\w+ +(\d+) bytes", self.live["yutils color 7"], re.MULTILINE)
        self.assertEqual(sorted(map(int, blocks)), [128, 50008])
        self.assertIn("has 2 busy blocks of 50136 bytes", self.live["yutils color 7"])
        self.assertIn("has 1 busy block of 112 bytes", self.live["yutils color 4 in bank"])
        self.assertRegex(self.shown("yutils block (char*)big + 40"),
                         "^block   ADDR, 50008 bytes, busy, colour 7; ADDR is byte 40 of its memory\n"
                         "before  ADDR, .*\nafter   ADDR, ")
        self.assertRegex(self.shown("yutils block small"), r"page    ADDR, \d+ bytes, cut into \d+ blocks of 128")

    def assertWhole(self, text):
        rows = text.splitlines()
        self.assertEqual(rows[-1], "The heap is whole.", text)
        counted = [row for row in rows[2:-1] if " pages " not in row]
        self.assertGreater(len(counted), 2)
        for row in counted:
            self.assertTrue(row.endswith("the same"), text)

    def testShowsLogErrorsAndLocks(self):
        log, locks = self.shown("yutils log"), self.shown("yutils locks")
        self.assertRegex(log, r"\ninfo +1  \(anonymous namespace\)::OwnSink ADDR, held 1 time\n")
        self.assertRegex(log, r"\nerror +1  Utils::StdLogger ADDR, held 4 times\n")
        self.assertRegex(log, r"\nnet +on +2 +1$")
        self.assertRegex(self.shown("yutils errors"), r"\nTASK +ADDR File is corrupt\nlistener ADDR, .*Listener$")
        for line in (r"mutex +held by TASK, 2 times, tasks may wait", r"critical section +free",
                     r"event +auto-reset, clear, 1 task waits", r"event +manual-reset, set, no task waits",
                     r"cooperative event  auto-reset, clear, no task waits, taken by TASK"):
            self.assertRegex(locks, line)
        self.assertIn("held by TASK, 2 times", self.shown("yutils locks mutex"))
        self.assertIn("critical section   free", self.shown("yutils locks lock"))

    def testRefusesInOneLine(self):
        for command, text in REFUSED.items():
            self.assertEqual(self.shown(command), text, command)
        before = run(["yutils heap", "yutils locks"], "-ex", "starti", PROGRAM)
        self.assertEqual(before["yutils heap"], "libyutils is not loaded: there is no symbol yutils_layout")
        self.assertEqual(run(["yutils heap"], BUILD + "/libyutils.so")["yutils heap"],
                         "there is no process and no core file")

    def assertSame(self, found):
        for command in COMMANDS:
            self.assertEqual(normal(found[command]), self.shown(command), command)

    def testReadsACore(self):
        self.assertSame(run(["up", *COMMANDS], PROGRAM, self.core))
        self.assertLess(os.path.getsize(self.core), 64 << 20, "without the reserved window")

    def testReadsAnInstalledLibraryWithoutSymbols(self):
        prefix = self.folder.name + "/prefix"
        subprocess.run(["cmake", "--install", BUILD, "--strip", "--prefix", prefix], check=True,
                       stdout=subprocess.DEVNULL)
        [script] = pathlib.Path(prefix).glob("share/gdb/auto-load/**/libyutils.so.*-gdb.py")
        libraries = str(script.parent).split("/auto-load", 1)[1]
        found = run([f"set auto-load scripts-directory {prefix}/share/gdb/auto-load",
                     f"add-auto-load-safe-path {prefix}", *stop("values"), *COMMANDS], PROGRAM, script=None,
                    LD_LIBRARY_PATH=libraries)
        self.assertSame(found)

    def testCountsAsTheAllocatorsDo(self):
        heaps = ["yutils heap", "yutils heap bank", "yutils heap own"]
        found = run([*stop(f"random {SEED}"), *heaps], PROGRAM)
        for heap in heaps:
            with self.subTest(heap, seed=SEED):
                self.assertWhole(found[heap])

    def testReadsTheSnapshotThatTheLibraryWrites(self):
        written, core, read = (pathlib.Path(self.folder.name, "written." + name)
                               for name in ("json", "core", "read"))
        ask = "yutils heap --json"
        live = run([*stop(f"written {written} {SEED}"), ask, f"generate-core-file {core}"], PROGRAM)[ask]
        subprocess.run([TOOLS / "yutils-heap", "core", core, PROGRAM, "--json", read], check=True)
        expected, *found = map(json.loads, (written.read_text("utf-8"), live, read.read_text()))
        self.assertEqual({block[3] for block in expected["chain"]}, {0, 1, 2, 3, 4})
        self.assertEqual(live.count("caf\\u00e9 <\\\"\\\\\\n\\u0080>"), 1)
        for snapshot in found:
            self.assertRegex(snapshot["time"], r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
            self.assertEqual(snapshot.keys(), expected.keys())
            for key in expected.keys() - {"time", "process"}:
                shown = SEED if key == "chain" else (snapshot[key], expected[key])  # a chain is long
                self.assertTrue(snapshot[key] == expected[key], (key, shown))

    def testNamesDamage(self):
        block = "DAMAGE: block ADDR, 2008 bytes, busy, colour 5: its tail is 0x78787878, expected 0x000007d9"
        expected = {
            "tail": [block],
            "head": [block, r"DAMAGE: block ADDR: its head word is 0x78787878 \(7895160 bytes, free, colour 30\)",
                     "the block before: ADDR, 2008 bytes, busy, colour 5"],
            "small": ["DAMAGE: small block ADDR of 128 bytes in the page ADDR: its head word is 0x78787878 .*, expected 0x00000080 if",
                      "the block before: ADDR, 128 bytes, busy, colour 8"],
            "freed": ["DAMAGE: small block ADDR of 32 bytes in the page ADDR: it is free, and its link is 0x(78787878)+, which leads"],
        }
        for mode, lines in expected.items():
            found = run([*stop(mode), "yutils heap", "yutils heap --json"], PROGRAM)
            self.assertFalse(json.loads(found["yutils heap --json"])["whole"])
            text = normal(found["yutils heap"])
            for line in lines:
                self.assertRegex(text, line)
            self.assertEqual(text.count("DAMAGE"), sum("DAMAGE" in line for line in lines), text)
            self.assertRegex(text, "The heap is damaged: [12] findings?.$")

    def testWalksAMillionBlocksInSeconds(self):
        clock = "python import time; start = time.process_time()"
        ask = "python print(time.process_time() - start)"
        found = run([*stop("million"), clock, "yutils heap", ask, "yutils heap --json", ask + " "], PROGRAM)
        self.assertWhole(found["yutils heap"])
        self.assertGreater(int(re.search(r"busy +\d+ +(\d+)", found["yutils heap"]).group(1)), 1000000)
        self.assertLess(float(found[ask]), 5)
        self.assertGreater(found["yutils heap --json"].count("\n"), 1000000)
        self.assertLess(float(found[ask + " "]) - float(found[ask]), 10)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
