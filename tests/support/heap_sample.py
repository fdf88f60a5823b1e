#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Snapshots of heaps that no process had: for the tests of the page and of yutils-heap, and to try both.

A sample depends on the seed alone. `changed` frees some of its blocks and allocates others, as a process
does between two snapshots.

Usage: tests/support/heap_sample.py BLOCKS [SEED] >sample.json
"""
import json, random, sys

BUSY, FREE, PAGE, COUNTED_PAGE, GAP = range(5)
NAMES = {0: "", 3: "parser", 5: "a <b>&amp;</b>\u001b[31m\u202e", 7: "cache", 9: "index", 12: "log",
         17: "", 21: "pictures", 22: "undo", 30: "fonts", 41: "réseau", 63: "names"}


def sample(blocks, seed=1):
    """A snapshot with about this many blocks. Neighbours mostly have one colour, as in real heaps."""
    pick = random.Random(seed)
    colors, chain, offset, color = list(NAMES), [], 0, 0
    while len(chain) < blocks:
        if pick.random() < .3:
            color = pick.choices(colors, range(len(colors), 0, -1))[0]
        if pick.random() < .04:
            offset = add_page(chain, offset, color, pick)
        else:
            kind = pick.choices((BUSY, FREE, GAP), (80, 19, .6))[0]
            size = pick.choice((1 << 20, 3 << 20)) if kind == GAP else 8 * int(pick.lognormvariate(4.5, 1) + 4)
            offset = add(chain, offset, size, color, kind, pick)
    return with_totals({"version": 1, "pointer": 8, "process": 1234, "time": "2026-11-23T15:00:00Z",
                        "whole": True, "first": "0x7f20c0de0408", "chain": chain})


def add(chain, offset, size, color, kind, pick):
    block = [offset, size, color if kind < PAGE else 0, kind]
    if kind == BUSY:
        block.append((b"Key %05d <&>\0\xff" % pick.randrange(99999)).hex())
    chain.append(block)
    return offset + size


def add_page(chain, offset, color, pick):
    """A page of 10240 bytes with small blocks of one size, mostly of one colour."""
    size = 1 << pick.randrange(5, 10)
    add(chain, offset, 10240, 0, pick.choices((PAGE, COUNTED_PAGE), (9, 1))[0], pick)
    for i in range((10240 - 12) // size):
        kind = BUSY if pick.random() < .7 else FREE
        add(chain, offset + 8 + i * size, size, color if pick.random() < .9 else 9, kind, pick)
    return offset + 10240


def with_totals(snapshot):
    """Adds the sums that the chain implies."""
    chain, colors = snapshot["chain"], []
    for color, name in NAMES.items():
        sizes = [b[1] for b in chain if b[2] == color and b[3] == BUSY]
        colors.append({"color": color, "name": name or None, "held": sum(sizes), "peakSeen": sum(sizes) * 5 // 4,
                       "blocks": len(sizes), "largest": max(sizes, default=0),
                       "free": sum(b[1] for b in chain if b[2] == color and b[3] == FREE)})
    small = set_of_small(chain)
    pages = {kind: sum(b[1] for b in chain if b[3] == kind) for kind in (PAGE, COUNTED_PAGE)}
    held = sum(c["held"] for c in colors)
    snapshot.update(held=held, free=sum(c["free"] for c in colors), colors=colors,
                    allocated=held + pages[COUNTED_PAGE],
                    pages=sum(pages.values()) - sum(chain[i][1] for i in small))
    return snapshot


def set_of_small(chain):
    """The indices of the blocks inside pages."""
    small, end = set(), 0
    for i, (offset, size, _, kind, *_) in enumerate(chain):
        if offset < end:
            small.add(i)
        if kind in (PAGE, COUNTED_PAGE):
            end = offset + size
    return small


def changed(snapshot, share=.1, seed=2):
    """The same process later: that share of its blocks is freed or, if it was free, allocated."""
    pick, chain = random.Random(seed), []
    for offset, size, color, kind, *hexes in snapshot["chain"]:
        if kind in (BUSY, FREE) and pick.random() < share:
            kind = FREE if kind == BUSY else BUSY
            hexes, color = ["6e6577"] if kind == BUSY else [], pick.choice((7, 9, 21))
        chain.append([offset, size, color, kind, *hexes])
    return with_totals({**snapshot, "time": "2026-11-23T15:00:09Z", "chain": chain})


def page_with(snapshot, template):
    """The page's text with the snapshot in it, as the library writes it."""
    return template.replace("@HEAP@", json.dumps(snapshot).replace("<", "\\u003c"))


if __name__ == "__main__":
    json.dump(sample(int(sys.argv[1]), int(sys.argv[2]) if len(sys.argv) > 2 else 1), sys.stdout)
