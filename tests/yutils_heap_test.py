#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""tools/yutils-heap, from its folder and as it is installed, on samples, a process and a debugger of ours.

Usage: tests/yutils_heap_test.py [BUILD]     the folder of a build, to test what that installs
"""
import json, os, pathlib, re, subprocess, sys, tempfile, unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "support"))
import heap_sample

BUILD = sys.argv.pop() if len(sys.argv) > 1 else None
BEFORE = heap_sample.sample(500)
AFTER = heap_sample.changed(BEFORE)

# Writes a snapshot after each signal, a moment later, as a process that allocates again only then.
WRITER = """
import os, shutil, signal, sys, time
asked = 0
def note(*_):
    global asked
    asked += 1
signal.signal(signal.SIGUSR2, note)
print("ready", flush=True)
written = 0
while True:
    time.sleep(.02)
    if written < asked:
        written += 1
        shutil.copy(sys.argv[1], "half")
        os.rename("half", f"h%-{os.getpid()}-{written}.json")
"""


class Tool(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.tool = ROOT / "tools/yutils-heap"
        for name, snapshot in (("a.json", BEFORE), ("b.json", AFTER)):
            (self.folder / name).write_text(json.dumps(snapshot))

    def run_tool(self, *arguments, **more):
        environment = {**os.environ, "COLUMNS": "100", **more}
        return subprocess.run([self.tool, *arguments], cwd=self.folder, env=environment, text=True,
                              capture_output=True, timeout=60)

    def output(self, *arguments, **more):
        done = self.run_tool(*arguments, **more)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout

    def assert_fails(self, text, *arguments, **more):
        done = self.run_tool(*arguments, **more)
        self.assertEqual((done.returncode, done.stdout), (2, ""))
        self.assertRegex(done.stderr, rf"^yutils-heap: .*{text}.*\n$")

    def start(self, setting):
        process = subprocess.Popen([sys.executable, "-c", WRITER, str(self.folder / "a.json")], text=True,
                                   cwd=self.folder, stdout=subprocess.PIPE,
                                   env={**os.environ, **({"YUTILS_HEAP": setting} if setting else {})})
        self.addCleanup(lambda: (process.kill(), process.wait(), process.stdout.close()))
        process.stdout.readline()
        return process

    def test_show_has_all_numbers_in_order_and_steers_no_terminal(self):
        lines = self.output("show", "a.json").splitlines()
        held = sorted((c["held"] for c in BEFORE["colors"]), reverse=True)
        shown = [re.split("  +", line)[1] for line in lines[2:-1]]
        sizes = [float(text.split()[0]) * {"B": 1, "KiB": 1024}[text.split()[1]] for text in shown]
        self.assertEqual(len(sizes), len(held))
        for size, expected in zip(sizes, held):
            self.assertAlmostEqual(size, expected, delta=52)
        bars = [line.count("#") for line in lines[2:-1]]
        self.assertEqual(bars, sorted(bars, reverse=True))
        self.assertGreater(bars[0], 8)
        self.assertTrue(lines[-1].endswith("whole"))
        self.assertNotIn("\x1b", "".join(lines))
        self.assertIn("r\\xe9seau", self.output("show", "a.json", PYTHONIOENCODING="ascii"))
        (self.folder / "d.json").write_text(json.dumps({**BEFORE, "whole": False}))
        self.assertIn("DAMAGED", self.output("show", "d.json"))

    def test_diff_is_sorted_by_growth_and_exact(self):
        rows = json.loads(self.output("diff", "a.json", "b.json", "--json"))
        growths = [row["growth"] for row in rows]
        self.assertEqual(growths, sorted(growths, reverse=True))
        self.assertEqual(sum(growths), AFTER["held"] - BEFORE["held"])
        row = next(row for row in rows if row["name"] == "cache")
        blocks = [next(c["blocks"] for c in s["colors"] if c["name"] == "cache") for s in (BEFORE, AFTER)]
        self.assertEqual(row["blocks"], blocks[1] - blocks[0])
        self.assertIn(f"\nall: {sum(growths) / 1024:+.1f} KiB", self.output("diff", "a.json", "b.json"))

    def test_a_page_and_back_is_the_same_snapshot(self):
        self.output("show", "a.json", "--html", "a.html")
        self.assertEqual((self.folder / "a.html").read_text().count("</script"), 2)
        self.assertEqual(json.loads(self.output("show", "a.html", "--json", "-")), BEFORE)
        self.assertEqual(self.output("show", "a.html"), self.output("show", "a.json"))

    def test_errors_are_one_line_and_status_2(self):
        for name, text in (("empty", ""), ("text", "{x"), ("list", "[1]"), ("old", '{"version":0}'),
                           ("deep", '{"a":' * 100000), ("html", '<p id="heap">'), ("name", '{"version":1,"held":"x"}')):
            (self.folder / name).write_text(text)
            self.assert_fails(name, "show", name)
        self.assert_fails("No such file", "diff", "a.json", "nosuch")
        self.assert_fails("Is a directory", "show", "a.json", "--html", ".")
        self.assertEqual(self.run_tool("shout").returncode, 2)

    def test_top_asks_a_process_until_it_ends(self):
        process = self.start("exit:x.svg;signal:USR2:h%-%p-%n.json,signal:USR1:i.json")
        text = self.output("top", str(process.pid), "-n", ".01", "-c", "3")
        self.assertEqual(text, (self.output("show", "a.json") + "\n") * 3)
        self.assertEqual(list(self.folder.glob("h*")), [])
        self.output("top", str(process.pid), "-c", "1", "--keep")
        self.assertEqual(len(list(self.folder.glob("h*"))), 1)
        watcher = subprocess.Popen([self.tool, "top", str(process.pid), "-n", ".01"], stderr=subprocess.PIPE,
                                   stdout=subprocess.PIPE, text=True)
        self.addCleanup(watcher.kill)
        watcher.stdout.readline()
        process.kill()
        self.assertRegex(watcher.communicate(timeout=60)[1], "^yutils-heap: process [0-9]+ has ended")
        self.assertEqual(watcher.returncode, 2)
        process.wait()
        self.assert_fails("has ended", "top", str(process.pid))

    def test_top_never_sends_a_signal_that_nobody_handles(self):
        for setting, text in ((None, "without YUTILS_HEAP"), ("exit:h.json", "no JSON at a signal"),
                              ("signal:USR2:h.svg", "no JSON at a signal"), ("signal:NO:h.json", "no signal NO"),
                              ("signal:USR1:h.json", "does not handle SIGUSR1")):
            process = self.start(setting)
            self.assert_fails(text, "top", str(process.pid))
            self.assertIsNone(process.poll())

    def test_core_takes_the_line_that_the_debugger_prints(self):
        (self.folder / "gdb").write_text('#!/bin/sh\necho "Core was generated by \\`./program a b\'."\n'
                                         'case $* in *"yutils heap --json"*program*core) sed "s/,/,\\n/" a.json;; esac\n')
        (self.folder / "gdb").chmod(0o755)
        (self.folder / "tools/gdb").mkdir(parents=True)
        (self.folder / "tools/gdb/yutils.py").touch()
        self.tool = self.folder / "tools/yutils-heap"
        self.tool.write_bytes((ROOT / "tools/yutils-heap").read_bytes())
        self.tool.chmod(0o755)
        for name in ("core", "program"):
            (self.folder / name).touch()
        path = f"{self.folder}:{os.environ['PATH']}"
        expected = self.output("show", "a.json")
        self.assertEqual(self.output("core", "core", "program", PATH=path), expected)
        self.assertEqual(self.output("core", "core", PATH=path), expected)
        self.assert_fails("gdb failed: it printed no snapshot", "core", "program", "core", PATH=path)
        self.assert_fails("no such file", "core", "nosuch")

    @unittest.skipUnless(BUILD, "no build is named")
    def test_the_installed_tool_finds_the_page(self):
        subprocess.run(["cmake", "--install", BUILD, "--prefix", self.folder / "moved"], check=True,
                       stdout=subprocess.DEVNULL)
        self.tool = self.folder / "moved/bin/yutils-heap"
        page = self.output("show", "a.json", "--html", "-")
        template = (ROOT / "utils/sdk/heap/page.html").read_text()
        self.assertEqual(page.strip(), template.replace("@HEAP@", json.dumps(BEFORE, separators=(",", ":"))
                                                        .replace("<", "\\u003c")).strip())


if __name__ == "__main__":
    unittest.main()
