# SPDX-License-Identifier: MIT
"""heap_sums.py JSON COLOUR:NAME...: compares the parts of a snapshot of the heap with each other.

A name is in hex; its bytes that are no UTF-8 become the characters with the same numbers. Prints for
each colour its number and the bytes held and free, then the totals.
"""
import codecs, json, sys

codecs.register_error("bytes", lambda e: ("".join(map(chr, e.object[e.start:e.end])), e.end))

snapshot = json.load(open(sys.argv[1], encoding="utf-8"))
names = {int(color): bytes.fromhex(name).decode(errors="bytes")
         for color, name in (each.split(":") for each in sys.argv[2:])}
BUSY, FREE, PAGE, COUNTED, GAP = range(5)
assert snapshot["version"] == 1 and snapshot["whole"] is True
blocks = {color: [] for color in range(64)}
free = pages = counted = last = page_end = 0
for offset, size, color, kind, *hexes in snapshot["chain"]:
    assert len(hexes) == (kind == BUSY) and all(len(text) <= 32 for text in hexes)
    assert offset >= last, "blocks overlap or are not in order"
    assert offset == last or last < page_end, "bytes are missing"
    if kind in (PAGE, COUNTED):
        pages += size
        counted += size * (kind == COUNTED)
        last, page_end = offset, offset + size
        continue
    pages -= size * (offset < page_end)
    if kind == BUSY:
        blocks[color].append(size)
    free += size * (kind == FREE)
    last = offset + size
for each in snapshot["colors"]:
    sizes = blocks.pop(each["color"])
    assert (each["held"], each["blocks"], each["largest"]) == (sum(sizes), len(sizes), max(sizes, default=0))
    assert each["peakSeen"] >= each["held"]
    assert (each["name"] or "") == names.pop(each["color"], ""), each
    print(each["color"], each["held"], each["free"])
assert not names and not any(blocks.values()), "a colour is missing"
assert snapshot["held"] == sum(each["held"] for each in snapshot["colors"])
assert snapshot["held"] == snapshot["allocated"] - counted
assert (snapshot["free"], snapshot["pages"]) == (free, pages), (free, pages)
print(snapshot["pointer"], snapshot["allocated"], snapshot["free"], counted)
