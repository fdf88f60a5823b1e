#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""The page of utils/sdk/heap in a browser: each case opens a sample and acts as a reader does.

Exits with 77, which ctest reports as skipped, if there is no browser.
"""
import json, pathlib, random, sys, tempfile, unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests" / "support"))
import heap_sample, web_browser
from heap_sample import BUSY, FREE, GAP

TEMPLATE = (ROOT / "utils/sdk/heap/page.html").read_text()
SAMPLE = heap_sample.sample(3000)
FIRST = int(SAMPLE["first"], 16)
SMALL = heap_sample.set_of_small(SAMPLE["chain"])
BY_ADDRESS = {FIRST + block[0]: block for block in SAMPLE["chain"]}


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = web_browser.Browser()
        cls.addClassCleanup(cls.browser.close)
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)

    def show(self, snapshot=SAMPLE, **window):
        path = self.file("page.html", heap_sample.page_with(snapshot, TEMPLATE))
        self.browser.open(path, **window)

    def file(self, name, text):
        (self.folder / name).write_text(text)
        return str(self.folder / name)

    def compare_with(self, path):
        self.browser.type("#file", path)
        self.browser.run("return new Promise((done) => setTimeout(done, 300))")

    def details(self):
        """The facts about the block, by their names."""
        return dict(self.browser.run("return [...document.querySelectorAll('#details dt')].map("
                                     "(each) => [each.innerText, each.nextSibling.innerText])"))

    def names(self):
        return self.browser.run("return [...ui.rows.rows].map((row) => row.cells[0].innerText)")

    def test_the_file_is_small_and_refers_to_nothing(self):
        self.assertLess(len(TEMPLATE.encode()), 40000)
        self.assertEqual(TEMPLATE.count("@HEAP@"), 1)
        for outside in ("http:", "https:", "innerHTML", "src=", "@import", "url("):
            self.assertNotIn(outside, TEMPLATE)

    def test_the_table_is_sorted_and_names_are_texts(self):
        self.show()
        expected = sorted(SAMPLE["colors"], key=lambda c: -c["held"])
        names = self.names()
        self.assertEqual(len(names), len(expected))
        for name, color in zip(names, expected):
            if (color["name"] or "?").isalnum():
                self.assertEqual(name, color["name"])
        self.assertIn(r"a <b>&amp;</b>\u{1b}[31m\u{202e}", names)
        shown = self.browser.run("return [...ui.rows.rows].map((row) => row.cells[5].innerText)")
        self.assertEqual([int(text.replace(",", "")) for text in shown], [c["blocks"] for c in expected])
        self.assertFalse(self.browser.run("return document.querySelector('#rows b')"))

    def point_at_cells(self, count, pick):
        """Points at cells; for each the block that is shown, the facts about it, and the bytes of the cell."""
        cell_bytes, columns, pitch, row, left, top, gutter, hidden = self.browser.run(
            "const box = ui.cells.getBoundingClientRect();"
            "return [_cellBytes, _columns, _pitch, topRow(), box.left, box.top, _gutter, ui.scroll.scrollTop % _pitch]")
        for _ in range(count):
            x, y = pick.randrange(columns), pick.randrange(1, 30)
            self.browser.point(left + gutter + (x + .5) * pitch, top + (y + .5) * pitch - hidden)
            facts, begin = self.details(), ((row + y) * columns + x) * cell_bytes
            yield BY_ADDRESS[int(facts["Address"], 16)], facts, begin, begin + cell_bytes

    def test_a_cell_shows_the_block_that_lies_there(self):
        self.show()
        pick, met = random.Random(3), set()
        for block, _, begin, end in self.point_at_cells(10, pick):
            share = {}
            for each in SAMPLE["chain"]:
                if each[3] in (BUSY, FREE) and end_of(each) > begin and end_of(each) - size_of(each) < end:
                    bytes_here = min(end_of(each), end) - max(end_of(each) - size_of(each), begin)
                    share[each[2]] = share.get(each[2], 0) + bytes_here
            if block[3] in (BUSY, FREE):
                self.assertEqual(share[block[2]], max(share.values()))
        for _ in range(4):
            self.browser.click("#in")
        for block, facts, begin, end in self.point_at_cells(20, pick):
            met.add(block[3])
            self.assertTrue(end_of(block) - size_of(block) < end and begin < end_of(block))
            if block[3] == BUSY:
                self.assertEqual(facts["First bytes"].replace(" ", ""), block[4])
                self.assertEqual(facts["As text"][:4], "Key ")
            self.assertEqual(facts["Size"].split()[0].replace(",", ""), str(block[1]))
        self.assertLessEqual({BUSY, FREE}, met)

    def test_keys_go_through_all_blocks_in_order(self):
        self.show()
        self.browser.type("#scroll", "\ue011")  # Home
        offsets = []
        for _ in range(40):
            offsets.append(int(self.details()["Address"], 16) - FIRST)
            self.browser.type("#scroll", "\ue014")  # right
        pieces = [block[0] for block in SAMPLE["chain"]]
        self.assertEqual([o for o in offsets if offsets.count(o) == 1][:20],
                         [p for p in pieces[:40] if offsets.count(p) == 1][:20])

    def test_a_colour_is_singled_out_and_let_go(self):
        self.show()
        count = ("const [r, g, b] = _rows.find((row) => row.name === given[0]).rgb;"
                 "const {data} = ui.cells.getContext('2d').getImageData(0, 0, ui.cells.width, ui.cells.height);"
                 "let found = 0; for (let i = 0; i < data.length; i += 4)"
                 "  if (data[i] === r && data[i + 1] === g && data[i + 2] === b) found++; return found")
        everything = self.browser.run(count, "log")
        self.browser.click("#rows button[title=parser]")
        self.assertEqual(self.browser.run("return ui.rows.querySelectorAll('[aria-pressed=true]').length"), 1)
        self.assertEqual(self.browser.run(count, "log"), 0)
        self.assertGreater(self.browser.run(count, "parser"), 0)
        self.browser.type("#scroll", "\ue014")
        self.assertEqual(self.browser.text("#details h3"), "parser")
        self.browser.type("#scroll", "\ue00c")  # Escape
        self.assertEqual(self.browser.run(count, "log"), everything)

    def test_an_address_is_found_in_the_smallest_block_that_contains_it(self):
        self.show()
        small = max(SMALL)
        for offset, size, *_ in (SAMPLE["chain"][small], SAMPLE["chain"][7], SAMPLE["chain"][-1]):
            for byte, text in ((5, "byte 5 of"), (-4, "bookkeeping before"), (size - 9, None)):
                self.browser.run("ui.address.value = ''")
                self.browser.type("#address", f"{FIRST + offset + byte:#x}\n")
                facts = self.details()
                self.assertEqual(int(facts["Address"], 16), FIRST + offset)
                self.assertIn(text or f"byte {size - 9:,} of", facts["Found"])
        self.browser.run("ui.address.value = ''")
        self.browser.type("#address", "0x10\n")
        self.assertIn("No block contains 0x10", self.browser.text("#error"))

    def test_two_snapshots_show_what_is_new_and_gone(self):
        after = heap_sample.changed(SAMPLE)
        held = lambda s: {c["name"] or f"colour {c['color']}" if c["color"] else "(none)": c["held"] for c in s["colors"]}
        grown = {name: held(after)[name] - size for name, size in held(SAMPLE).items()}
        busy = [{tuple(b[:3]) for b in s["chain"] if b[3] == BUSY} for s in (SAMPLE, after)]
        for name, text in (("b.json", json.dumps(after)), ("b.html", heap_sample.page_with(after, TEMPLATE))):
            self.show()
            self.compare_with(self.file(name, text))
            legend = self.browser.text("#legend")
            self.assertIn(f"new: {len(busy[1] - busy[0]):,} blocks", legend)
            self.assertIn(f"gone: {len(busy[0] - busy[1]):,} blocks", legend)
            growths = [grown[name] for name in self.names() if name in grown]
            self.assertEqual(growths, sorted(growths, reverse=True))
            self.assertGreater(len(growths), 10)
            self.browser.click("#close")
        self.assertIn("busy", self.browser.text("#legend"))
        self.compare_with(self.file("bad.json", '{"version":1,"colors":[],"chain":[[8,1,0,0],[0,1,0,0]]}'))
        self.assertIn("block 1 of the chain is out of order", self.browser.text("#error"))

    def test_free_memory_makes_neither_bars_nor_cells_smaller(self):
        offset, size, *_ = max(SAMPLE["chain"], key=lambda block: block[0] + block[1])
        roomy = {**SAMPLE, "chain": [*SAMPLE["chain"], [offset + size, 1 << 30, 0, 1]],
                 "colors": [{**c, "free": c["free"] + (c["color"] == 0) * (1 << 30)} for c in SAMPLE["colors"]]}
        seen = []
        for snapshot in SAMPLE, roomy:
            self.show(snapshot)
            seen.append(self.browser.run(
                "return [ui.scale.textContent, [...ui.rows.querySelectorAll('.track')].map("
                "(track) => track.firstChild.offsetWidth / track.offsetWidth)]"))
        self.assertEqual(*seen)
        self.assertGreater(max(seen[0][1]), .5)
        self.assertIn("free at the end, shortened by 1024.0 MiB", self.browser.text("#legend"))

    def test_it_fits_a_phone_in_light_and_dark(self):
        for scheme in ("light", "dark"):
            self.show({**SAMPLE, "process": "x" * 200}, width=360, height=740, scheme=scheme)
            self.assertTrue(self.browser.run("const {scrollWidth, clientWidth} = document.scrollingElement;"
                                             "return scrollWidth <= clientWidth && innerWidth === 360"))
            self.browser.run("ui.scroll.scrollIntoView()")
            left, top = self.browser.run("const box = ui.cells.getBoundingClientRect(); return [box.left, box.top]")
            self.browser.point(left + 15, top + 15, "pointerDown", "pointerUp")
            self.assertIn(int(self.details()["Address"], 16), BY_ADDRESS)

    def test_damage_is_announced(self):
        self.show({**SAMPLE, "whole": False})
        self.assertIn("is damaged", self.browser.text("#damage"))
        self.show({**SAMPLE, "chain": []})
        self.assertEqual(self.browser.text("#damage") + self.browser.text("#error"), "")


def size_of(block):
    return 4096 if block[3] == GAP else block[1]


def end_of(block):
    """The end of a block in the map, in which a gap takes at most 4096 bytes."""
    gaps = [gap for gap in SAMPLE["chain"] if gap[3] == GAP and gap[0] <= block[0]]
    return block[0] + block[1] - sum(gap[1] - 4096 for gap in gaps)


if __name__ == "__main__":
    if web_browser.missing():
        print(f"SKIPPED: the page was not tested, there is no {' and no '.join(web_browser.missing())}")
        sys.exit(77)
    unittest.main()
