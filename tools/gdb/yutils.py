# SPDX-License-Identifier: MIT
"""Printers and commands for gdb: the objects, the heap, the log, errors and locks of yutils.

    (gdb) source tools/gdb/yutils.py      an installed library brings it along, and gdb loads it
    (gdb) print text                      String, Vector, AVLTree, Ref, Time, UID, locks, events
    (gdb) help yutils                     heap, color, block, log, errors, locks

Everything is read as data; nothing is called in the process. So all of it works on a live process, on
a core file of either pointer size, on a library without symbols, and on a damaged heap. The places of
the fields come from the tables `yutils_layout` and `ysys_layout` of the libraries, and the objects are
reached from their exported roots (utils/sdk/base/layout.h). Printers of values also need the program's
own debug information; the commands need none.

A head is the address of a block's head word, a word is that of 32 bits; see utils/sdk/alloc.h.
"""
import array
import collections
import itertools
import json
import os
import re
import sys
import time

import gdb
import gdb.printing
import gdb.types

VERSION = 1
RUN = 1 << 20  # bytes that a walk reads at once


# --- The libraries in the process ---


def address_of(symbol):
    """The address of a symbol; None if there is none."""
    try:
        return int(gdb.parse_and_eval("(unsigned long)&%s" % symbol))
    except gdb.error:
        return None


def read(address, count):
    """Bytes of the process. Raises gdb.MemoryError."""
    return bytes(gdb.selected_inferior().read_memory(address, count)) if count else b""


class Library:
    """The layout table of a library, and reads of fields by its names."""

    def __init__(self, name):
        self.name = name
        at = address_of(name + "_layout")
        if at is None:
            raise gdb.GdbError("lib%s is not loaded: there is no symbol %s_layout" % (name, name))
        try:
            entry = read(at, 32)
            self.order = "little" if entry[28] else "big"
            self.values = {}
            while entry[0]:
                text = entry[:28].rstrip(b"\0").decode("ascii")
                self.values[text] = int.from_bytes(entry[28:], self.order)
                at += 32
                entry = read(at, 32)
        except (gdb.MemoryError, UnicodeDecodeError):
            raise gdb.GdbError("lib%s is not loaded: its table %s_layout is not in memory" % (name, name))
        if self.values.get("version") != VERSION:
            raise gdb.GdbError("lib%s has a layout of version %s, this script reads version %d"
                               % (name, self.values.get("version"), VERSION))
        self.pointer_size = self.values["pointer"]

    def __getitem__(self, name):
        if name not in self.values:
            raise gdb.GdbError("the layout table of lib%s has no %s" % (self.name, name))
        return self.values[name]

    def __contains__(self, name):
        return name in self.values

    def number(self, address, count):
        return int.from_bytes(read(address, count), self.order)

    def word(self, address, field=None):
        return self.number(address + (self[field] if field else 0), 4)

    def signed(self, address, field):
        return (self.word(address, field) ^ 0x80000000) - 0x80000000

    def flag(self, address, field):
        return self.number(address + self[field], 1) != 0

    def pointer(self, address, field=None):
        return self.number(address + (self[field] if field else 0), self.pointer_size)

    def words(self, data):
        """The 32-bit words of some bytes."""
        return self.numbers(data, "I")

    def pointers(self, data):
        return self.numbers(data, "Q" if self.pointer_size == 8 else "I")

    def numbers(self, data, code):
        if self.order == sys.byteorder:
            return memoryview(data).cast(code)
        swapped = array.array(code, data)
        swapped.byteswap()
        return swapped

    def root(self, name):
        """The address of the object of a root. None if the library has no such root."""
        return self.link("%s_root_%s" % (self.name, name))

    def link(self, symbol):
        """The pointer that a symbol names. None if there is no such symbol."""
        if not gdb.selected_inferior().pid:
            raise gdb.GdbError("there is no process and no core file")
        at = address_of(symbol)
        return None if at is None else self.pointer(at)

    def text(self, address, limit=200):
        """The text at an address, up to its NUL; its bytes beyond ASCII as escapes."""
        if not address:
            return "(null)"
        found = b""
        while b"\0" not in found and len(found) < limit:
            step = 64 - (address + len(found)) % 64  # never into a page that need not be there
            found += read(address + len(found), step)
        shown, ended, _ = found[:limit].partition(b"\0")
        shown = "".join(c if c.isprintable() else "\\x%02x" % ord(c) for c in shown.decode("latin-1"))
        return shown if ended else shown + "..."


_libraries = {}


def library(name="yutils"):
    """The library's table, read once."""
    if name not in _libraries:
        _libraries[name] = Library(name)
    return _libraries[name]


def forget(_=None):
    _libraries.clear()


for change in ("new_objfile", "clear_objfiles", "exited"):
    if hasattr(gdb.events, change):
        getattr(gdb.events, change).connect(forget)


def limit_of_elements():
    """The number of rows that `set print elements` allows."""
    limit = gdb.parameter("print elements")
    return sys.maxsize if limit is None or limit == 0 else limit


def count_of(number, noun):
    return "%d %s%s" % (number, noun, "" if number == 1 else "s")


def type_names(address):
    """The mangled names of an object's class and of its bases, by the data of its type."""
    lib = library()
    with_base = address_of("_ZTVN10__cxxabiv120__si_class_type_infoE")
    info = lib.pointer(lib.pointer(address) - lib.pointer_size)
    names = []
    while info and len(names) < 32:
        names.append(lib.text(lib.pointer(info + lib.pointer_size), 1000).lstrip("*"))
        has_base = with_base and lib.pointer(info) == with_base + 2 * lib.pointer_size
        info = lib.pointer(info + 2 * lib.pointer_size) if has_base else 0
    return names


def class_of(address):
    """The class of an object with virtual operations, as C++ spells it."""
    try:
        name = type_names(address)[0]
        shown = gdb.execute("demangle -- _ZTS" + name, to_string=True).strip()
        return shown.replace("typeinfo name for ", "")
    except (gdb.error, IndexError):
        return "an object of an unknown class"


def task_text(task):
    """A task id as people see it: the thread number of the system, and that of gdb."""
    number = task & ((1 << library("ysys")["task.numberBits"]) - 1)
    for thread in gdb.selected_inferior().threads():
        if thread.ptid[1] == number:
            return "task %d (thread %d)" % (number, thread.num)
    return "task %d" % number


# --- Arenas ---

Damage = collections.namedtuple("Damage", "text before")


class Arena:
    """A MemoryAllocator or a MemoryBank: its fields, its chain of blocks, its pages."""

    def __init__(self, address, kind, title):
        self.lib = lib = library()
        self.address, self.kind, self.title = address, kind, title
        self.is_process = title == PROCESS
        self.first = lib.pointer(address, kind + ".firstHead")
        self.end = lib.pointer(address, kind + ".endHead")
        self.is_cut = lib.flag(address, kind + ".cut")
        self.free = lib.word(address, kind + ".free")
        self.allocated = lib.word(address, kind + ".allocated")
        self.shift = lib["block.colorShift"]
        self.mask = lib["block.sizeMask"]
        colors = 1 << (32 - self.shift)
        self.colors, self.free_colors = (list(lib.words(read(address + lib[kind + field], 4 * colors)))
                                         for field in (".colors", ".freeColors"))
        self.damages = []
        self.run_at, self.run = 0, b""
        self.gaps = gap_heads(lib) if self.is_process else set()
        if not self.first:
            raise gdb.GdbError("%s has no memory: nothing was allocated yet" % title)

    def bytes_at(self, address, count):
        """Bytes, from the run that was read last if it has them."""
        at = address - self.run_at
        if 0 <= at and at + count <= len(self.run):
            return self.run[at:at + count]
        return read(address, count)

    def load(self, head):
        """Reads the run of bytes from a head on: less if the memory after it is not there, as in a
        gap."""
        last = self.end + 4 if not self.is_cut else head + RUN
        count = max(4, min(RUN, last - head) & ~3)
        while True:
            try:
                self.run_at, self.run = head, read(head, count)
                return self.lib.words(self.run)
            except gdb.MemoryError:
                if count <= 4:
                    raise gdb.GdbError("the memory at 0x%x cannot be read: the core lacks it, or the "
                                       "walk was led astray" % head)
                count = max(4, count // 2 & ~3)

    def describe(self, head, word):
        size, color = word & self.mask, word >> self.shift
        state = "busy, colour %s" % color_text(self.lib, color) if word & 1 else "free"
        kind = ", a page" if self.page_of(head, word) else ""
        if head in self.gaps:
            kind = ", a gap between chunks"
        return "0x%x, %d bytes, %s%s" % (head + self.lib["block.memory"], size, state, kind)

    def damage(self, what, before):
        self.damages.append(Damage(what, before))

    def chain(self):
        """Yields head and head word of each block of the chain in ascending order, pages and gaps
        among them. Records the damage that it meets, and ends where the way on is lost."""
        mask, end, least = self.mask, self.end, self.lib[self.kind + ".leastFree"]
        last = end if not self.is_cut else sys.maxsize
        align, tail_size, seam = self.lib["block.align"], self.lib["block.tail"], self.lib["block.seam"]
        head, base, limit, words, before = self.first, 0, 0, (), None
        while head != end:
            if not base <= head < limit:
                words, base = self.load(head), head
                limit = base + 4 * len(words)
            word = words[(head - base) >> 2]
            size = word & mask
            following = head + size
            if size % align or not size or following > last or (
                    not word & 1 and (word > mask or size < least)):
                if not (self.is_cut and word == seam):
                    self.bad_head(head, word, before)
                return
            if following <= limit:
                tail = words[((following - base) >> 2) - 1]
            else:
                tail = self.lib.word(following - tail_size)
            if tail | 1 != size + 1:
                self.damage("block %s: its tail is 0x%08x, expected 0x%08x: its last bytes were "
                            "overwritten" % (self.describe(head, word), tail, size + 1), before)
            yield head, word
            before = head, word
            head = following
        if not self.is_cut and self.lib.word(end) != seam:
            self.damage("the end marker at 0x%x is 0x%08x, expected 0x%08x"
                        % (end, self.lib.word(end), seam), before)

    def bad_head(self, head, word, before):
        self.damage("block 0x%x: its head word is 0x%08x (%d bytes, %s, colour %d), which no block "
                    "there can have; the blocks after it cannot be reached"
                    % (head + self.lib["block.memory"], word, word & self.mask,
                       "busy" if word & 1 else "free", word >> self.shift), before)

    def page_of(self, head, word):
        """The page that a block of the chain is; None if it is another block."""
        lib, size = self.lib, word & self.mask
        if self.kind != "arena" or word != size | 1 or size < lib["page.bytes"]:
            return None
        memory = head + lib["block.memory"]
        mark = lib.words(self.bytes_at(memory, 4))[0]
        for name in "page.mark", "page.countedMark":
            group = mark ^ ((lib[name] ^ memory) & 0xfffffff8)
            if 1 <= group <= 5:
                is_counted = name == "page.countedMark"
                usable = lib["page.bytes"] if is_counted else size - 2 * lib["block.memory"]
                return Page(self, head, word, 1 << (group + lib["page.class"]), usable, is_counted)
        return None

    def blocks(self):
        """Yields head, word and page of each block; small ones follow the page that they lie in."""
        for head, word in self.chain():
            if head in self.gaps:
                continue
            page = self.page_of(head, word)
            yield head, word, page
            if page:
                for small, small_word in zip(page.heads, page.words):
                    yield small, small_word, page


class Page:
    """A block of the chain that is cut into small blocks of one size."""

    def __init__(self, arena, head, word, size, usable, is_counted):
        self.arena, self.head, self.word = arena, head, word
        self.size, self.is_counted = size, is_counted
        first = head + 2 * arena.lib["block.memory"]
        count = (usable - arena.lib["block.memory"]) // size
        self.heads = range(first, first + count * size, size)
        self.data = arena.bytes_at(first, count * size)
        self.words = arena.lib.words(self.data)[::size // 4].tolist()

    def count(self, busy):
        """Returns the number of free blocks, and adds the busy ones to the counts by colour."""
        arena, free, bad = self.arena, 0, set()
        for word, times in collections.Counter(self.words).items():
            if word & arena.mask == self.size and word & 1:
                busy[word >> arena.shift, self.size] += times
            elif word == self.size:
                free += times
            else:
                bad.add(word)
        if bad:
            self.report_heads(bad)
        if free:
            self.check_links()
        return free

    def before(self, index):
        return (self.heads[index - 1], self.words[index - 1]) if index else (self.head, self.word)

    def damage(self, index, what):
        memory = self.arena.lib["block.memory"]
        self.arena.damage("small block 0x%x of %d bytes in the page 0x%x: %s"
                          % (self.heads[index] + memory, self.size, self.head + memory, what),
                          self.before(index))

    def report_heads(self, bad):
        for index, word in enumerate(self.words):
            if word in bad:
                self.damage(index, "its head word is 0x%08x (%d bytes, %s, colour %d), expected 0x%08x if "
                            "it is free, and 0x%08x with its colour if it is busy"
                            % (word, word & self.arena.mask, "busy" if word & 1 else "free",
                               word >> self.arena.shift, self.size, self.size + 1))

    def check_links(self):
        """The first bytes of a free small block lead to the head of another one, or are zero."""
        arena, memory, align = self.arena, self.arena.lib["block.memory"], self.arena.lib["block.align"]
        if arena.is_cut:
            return
        all_words = arena.lib.pointers(self.data[memory:] + bytes(memory))
        links = all_words[::self.size // arena.lib.pointer_size]
        for index, (word, link) in enumerate(zip(self.words, links)):
            if word == self.size and link and (link % align != memory
                                               or not arena.first <= link < arena.end):
                self.damage(index, "it is free, and its link is 0x%x, which leads to no block: it was "
                            "written to after it was freed" % link)


PROCESS = "the process allocator"


def gap_heads(lib):
    """The heads of the gap blocks of the process allocator, from the pages of its notes."""
    heads, page = set(), lib.root("gaps")
    while page:
        count = lib.word(page, "gapPage.count")
        heads |= set(lib.pointers(read(page + lib["gapPage.heads"], count * lib.pointer_size)))
        page = lib.pointer(page, "gapPage.next")
    return heads


def name_bytes(lib, color):
    """The name of a colour; empty if it has none."""
    data = read(lib.root("colorNames") + color * lib["color.nameRoom"], lib["color.nameRoom"])
    return data.partition(b"\0")[0]


def color_name(lib, color):
    """The name as people see it: its bytes that are not UTF-8 as escapes."""
    return name_bytes(lib, color).decode("utf-8", "backslashreplace")


def color_text(lib, color):
    name = color_name(lib, color)
    return "%d (%s)" % (color, name) if name else "%d" % color


def process_address():
    """The address of the process allocator; 0 before its first use."""
    lib = library()
    return lib.pointer(lib.root("processArena"), "lateImmortal.object")


def process_arena():
    if not process_address():
        raise gdb.GdbError("there is no process allocator yet: nothing was allocated")
    return Arena(process_address(), "arena", PROCESS)


def address_in(expression):
    """The address that an expression is, or that of the object that it names."""
    value = gdb.parse_and_eval(expression)
    if value.type.code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
        value = value.referenced_value()
    if value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        if value.address is None:
            raise gdb.GdbError("%s is not in memory" % expression)
        value = value.address
    return int(value) & ((1 << 8 * library().pointer_size) - 1)


def arena_at(expression):
    """The arena that the expression names; that of the process if it is empty."""
    if not expression:
        return process_arena()
    address = address_in(expression)
    if address and address == process_address():
        return process_arena()
    names = type_names(address) if address else []
    for name, kind in ("N5Utils15MemoryAllocatorE", "arena"), ("N5Utils10MemoryBankE", "bank"):
        if name in names:
            return Arena(address, kind, "%s 0x%x" % (class_of(address), address))
    raise gdb.GdbError("0x%x is no MemoryAllocator and no MemoryBank" % address)


def split_arena(argument):
    """X in ARENA: the two parts."""
    what, _, where = (" " + argument + " ").partition(" in ")
    return what.strip(), where.strip()


# --- Commands ---


class Command(gdb.Command):
    """A command whose failures are lines, never the script's own calls."""

    def __init__(self, word, *options):
        super().__init__(word, gdb.COMMAND_DATA, *options)

    def invoke(self, argument, _):
        try:
            self.run(argument.strip())
        except gdb.GdbError:
            raise
        except KeyboardInterrupt:
            raise gdb.GdbError("interrupted")
        except (gdb.MemoryError, gdb.error) as failure:
            raise gdb.GdbError("yutils: %s" % failure)
        except Exception as failure:
            raise gdb.GdbError("yutils: the script failed: %s: %s" % (type(failure).__name__, failure))


class Yutils(Command):
    """Commands for programs that use yutils; nothing is called in the process."""

    def __init__(self):
        super().__init__("yutils", gdb.COMPLETE_COMMAND, True)

    def run(self, argument):
        if argument:
            raise gdb.GdbError("there is no command yutils %s; see help yutils" % argument)
        gdb.execute("help yutils")


class Heap(Command):
    """Shows the memory of each colour, and whether the heap is whole.
Usage: yutils heap [--json] [EXPRESSION]

Walks over all blocks of the process allocator, or of the MemoryAllocator or MemoryBank that
EXPRESSION names or is the address of. For each colour the table has the bytes and the number of
busy blocks, the largest, and "the same" if the allocator has counted as many bytes, else the
bytes that it has counted. A difference in a colour is no damage: after adjustColorMemory, and
after a block of colour 0 got a colour, the allocator's count is another.

A damaged block is named with what was found, what was expected, and the block before it, which
is the one that was written past its end as a rule. If the process was stopped in the middle of an
operation of the allocator, a difference is not damage either.

With --json it prints the snapshot that the library's writeHeap writes: the sums and every block, for
the page and for yutils-heap. "whole" is false if anything is damaged; the blocks after a damaged head
are missing then. The process allocator's peaks seen are the library's, those of another arena are
what it holds."""

    def __init__(self):
        super().__init__("yutils heap", gdb.COMPLETE_EXPRESSION)

    def run(self, argument):
        option, _, expression = argument.partition(" ")
        if option == "--json":
            HeapJson(arena_at(expression.strip())).show()
        else:
            HeapTable(arena_at(argument)).show()


class HeapTable:
    """The sums over an arena's blocks, and the table of them."""

    def __init__(self, arena):
        self.arena, self.free, self.gap_bytes, self.gaps = arena, 0, 0, 0
        self.free_blocks, self.pages, self.page_bytes, self.page_rests = 0, 0, 0, 0
        self.counted_pages, self.counted_bytes = 0, 0
        busy = collections.Counter()  # by colour and size
        mask, shift, least = arena.mask, arena.shift, arena.lib["page.bytes"]
        for head, word in arena.chain():
            size = word & mask
            if not word & 1:
                self.free += size
                self.free_blocks += 1
            elif head in arena.gaps:
                self.gaps += 1
                self.gap_bytes += size
            else:
                page = arena.page_of(head, word) if size >= least else None
                if page:
                    self.add_page(page, busy)
                else:
                    busy[word >> shift, size] += 1
        self.sum(busy)

    def add_page(self, page, busy):
        size = page.word & self.arena.mask
        self.pages += 1
        self.page_bytes += size
        self.page_rests += size - len(page.heads) * page.size
        if page.is_counted:
            self.counted_pages += 1
            self.counted_bytes += size
        free = page.count(busy)
        self.free += free * page.size
        self.free_blocks += free

    def sum(self, busy):
        self.held, self.blocks, self.largest = ([0] * len(self.arena.colors) for _ in range(3))
        for (color, size), times in busy.items():
            self.held[color] += size * times
            self.blocks[color] += times
            self.largest[color] = max(self.largest[color], size)

    @staticmethod
    def compare(walked, counted):
        return "the same" if walked & 0xffffffff == counted else "%d" % counted

    def show(self):
        arena = self.arena
        print("%s, %d-bit" % (arena.title, 8 * arena.lib.pointer_size))
        row = "%6s %12s %9s %10s  %-12s %s"
        print((row % ("colour", "bytes", "blocks", "largest", "counted", "name")).rstrip())
        for color, counted in enumerate(arena.colors):
            own = self.held[color] + (self.counted_bytes if color == 0 else 0)
            if own or counted:
                print((row % (color, self.held[color], self.blocks[color], self.largest[color],
                              self.compare(own, counted), color_name(arena.lib, color))).rstrip())
        allocated = sum(self.held) + self.counted_bytes
        row = "%6s %12d %9d %10s  %s"
        print(row % ("busy", sum(self.held), sum(self.blocks), max(self.largest),
                     self.compare(allocated, arena.allocated)))
        print(row % ("free", self.free, self.free_blocks, "", self.compare(self.free, arena.free)))
        if arena.kind == "arena":
            print(row % ("pages", self.page_bytes, self.pages, "", self.pages_text()))
        if self.gaps:
            print(row % ("gaps", self.gap_bytes, self.gaps, "", "not the arena's"))
        self.show_verdict(allocated)

    def pages_text(self):
        if not self.counted_pages:
            return ""
        return "%d of them counted in colour 0, %d bytes" % (self.counted_pages, self.counted_bytes)

    def show_verdict(self, allocated):
        arena = self.arena
        agrees = (self.compare(allocated, arena.allocated) == "the same"
                  and self.compare(self.free, arena.free) == "the same")
        for found in arena.damages[:limit_of_elements()]:
            print("DAMAGE: " + found.text)
            print("        the block before: %s" % (arena.describe(*found.before) if found.before
                                                    else "none, it is the first of the chain"))
        if arena.damages:
            print("The heap is damaged: %s." % count_of(len(arena.damages), "finding"))
        elif arena.is_cut:
            print("The chain was cut: the blocks of other chunks are not in the table. The rest is whole.")
        elif agrees:
            print("The heap is whole.")
        else:
            print("Every block is sound, but the totals are not the sums of the blocks.")


class HeapJson:
    """An arena in the form of utils/sdk/heap/json_form.cpp, in ASCII alone."""

    SHOWN_BYTES = 16
    NO_UTF8 = {0xdc00 + byte: byte for byte in range(128, 256)}  # as json_form.cpp writes such a byte

    def __init__(self, arena):
        self.arena, self.lib, self.table = arena, arena.lib, HeapTable(arena)
        self.memory, self.label = arena.lib["block.memory"], arena.lib[arena.kind + ".label"]

    def show(self):
        gdb.write(json.dumps(self.totals(), separators=(",", ":"))[:-1] + ',"chain":[')
        rows, mark = self.rows(), "\n"
        for some in iter(lambda: list(itertools.islice(rows, 10000)), []):
            gdb.write(mark + ",\n".join(some))
            mark = ",\n"
        gdb.write("]}\n")

    def totals(self):
        arena, table = self.arena, self.table
        return {"version": 1, "pointer": self.lib.pointer_size, "process": gdb.selected_inferior().pid,
                "time": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(self.moment())),
                "held": sum(table.held), "free": arena.free, "allocated": arena.allocated,
                "pages": table.page_rests, "whole": not arena.damages, "colors": self.colors(),
                "first": "0x%x" % (arena.first + self.memory)}

    @staticmethod
    def moment():
        """The time of the core file; else the present time."""
        core = re.search(r"^Local core dump file:\n\s*`(.*)', file type",
                         gdb.execute("info target", to_string=True), re.MULTILINE)
        return os.path.getmtime(core.group(1)) if core else time.time()

    def colors(self):
        table, peaks = self.table, self.peaks()
        entries = ({"color": color, "name": self.name(color), "held": table.held[color],
                    "peakSeen": peaks[color], "blocks": table.blocks[color],
                    "largest": table.largest[color], "free": self.arena.free_colors[color]}
                   for color in range(len(peaks)))
        return [each for each in entries
                if each["name"] or each["held"] or each["peakSeen"] or each["free"]]

    def name(self, color):
        name = name_bytes(self.lib, color).decode("utf-8", "surrogateescape")
        return name.translate(self.NO_UTF8) or None

    def peaks(self):
        """The peaks that the library has seen, or what is held now if that is more."""
        at = self.lib.root("peaks") if self.arena.is_process else None
        if not at:
            return self.table.held
        now = list(self.arena.colors)
        now[0] = now[0] - self.table.counted_bytes & 0xffffffff
        return list(map(max, now, self.lib.words(read(at, 4 * len(now)))))

    def rows(self):
        """Yields the elements of the chain as texts."""
        arena = self.arena
        for head, word in arena.chain():
            size = word & arena.mask
            page = arena.page_of(head, word) if head not in arena.gaps else None
            if page:
                yield "[%d,%d,0,%d]" % (head - arena.first, size, 3 if page.is_counted else 2)
                data, step = page.data, page.size
                for at, small, small_word in zip(range(0, len(data), step), page.heads, page.words):
                    yield self.row(small, small_word, step, data[at:at + 32])
            elif head in arena.gaps:
                yield "[%d,%d,%d,4]" % (head - arena.first, size, word >> arena.shift)
            else:
                yield self.row(head, word, size, arena.bytes_at(head, min(32, size)))

    def row(self, head, word, size, data):
        """A block that is no page and no gap; `data` are its first bytes, from the head word on."""
        at, memory = head - self.arena.first, self.memory
        if word & 1:
            shown = data[memory:min(memory + self.SHOWN_BYTES, size - memory)]
            return '[%d,%d,%d,0,"%s"]' % (at, size, word >> self.arena.shift, shown.hex())
        label = int.from_bytes(data[self.label:self.label + 4], self.lib.order)
        return "[%d,%d,%d,1]" % (at, size, label % len(self.arena.colors))


class Color(Command):
    """Lists the busy blocks of a colour, small ones too.
Usage: yutils color N [in EXPRESSION]

N is a number from 0 to 63, or the name of a colour. EXPRESSION is an arena as for yutils heap.
As many blocks are listed as `set print elements` allows."""

    def __init__(self):
        super().__init__("yutils color")

    def run(self, argument):
        what, where = split_arena(argument)
        if not what:
            raise gdb.GdbError("yutils color needs the number of a colour, from 0 to 63")
        arena = arena_at(where)
        color = self.number_of(arena, what)
        shown, total, size_sum, limit = 0, 0, 0, limit_of_elements()
        for head, word, page in arena.blocks():
            if not word & 1 or word >> arena.shift != color or (page and head == page.head):
                continue
            total += 1
            size_sum += word & arena.mask
            if shown < limit:
                shown += 1
                print("0x%x  %9d bytes%s" % (head + arena.lib["block.memory"], word & arena.mask,
                                             ", small" if page else ""))
        if shown < total:
            print("... and %d more" % (total - shown))
        print("Colour %s has %s of %d bytes in all."
              % (color_text(arena.lib, color), count_of(total, "busy block"), size_sum))
        for found in arena.damages:
            print("DAMAGE: " + found.text)

    @staticmethod
    def number_of(arena, what):
        names = [color_name(arena.lib, color) for color in range(len(arena.colors))]
        if what in names:
            return names.index(what)
        color = int(gdb.parse_and_eval(what))
        if not 0 <= color < len(arena.colors):
            raise gdb.GdbError("there is no colour %d; colours are 0 to %d" % (color, len(names) - 1))
        return color


class BlockAt(Command):
    """Shows the block that an address lies in, and its neighbours.
Usage: yutils block ADDRESS [in EXPRESSION]

ADDRESS may be any byte of the block. EXPRESSION is an arena as for yutils heap."""

    def __init__(self):
        super().__init__("yutils block", gdb.COMPLETE_EXPRESSION)

    def run(self, argument):
        what, where = split_arena(argument)
        if not what:
            raise gdb.GdbError("yutils block needs an address")
        arena, wanted = arena_at(where), address_in(what)
        before, found = None, None
        for head, word in arena.chain():
            if found:
                return self.show(arena, wanted, found, before, (head, word))
            if head <= wanted < head + (word & arena.mask):
                found = head, word
                page = arena.page_of(head, word)
                if page and wanted in range(page.heads[0], page.heads[-1] + page.size):
                    return self.show_small(arena, wanted, page)
            else:
                before = head, word
        if not found:
            raise gdb.GdbError("0x%x lies in no block of %s" % (wanted, arena.title))
        self.show(arena, wanted, found, before, None)

    def show_small(self, arena, wanted, page):
        index = (wanted - page.heads[0]) // page.size
        blocks = list(zip(page.heads, page.words))
        self.show(arena, wanted, blocks[index], page.before(index) if index else None,
                  blocks[index + 1] if index + 1 < len(blocks) else None)
        print("page    0x%x, %d bytes, cut into %d blocks of %d" %
              (page.head + arena.lib["block.memory"], page.word & arena.mask, len(blocks), page.size))

    @staticmethod
    def show(arena, wanted, found, before, after):
        byte = wanted - found[0] - arena.lib["block.memory"]
        place = "byte %d of its memory" % byte if byte >= 0 else "in its head word"
        print("block   %s; 0x%x is %s" % (arena.describe(*found), wanted, place))
        print("before  %s" % (arena.describe(*before) if before else "none"))
        print("after   %s" % (arena.describe(*after) if after else "none"))
        for damage in arena.damages:
            print("DAMAGE: " + damage.text)


class LogOf(Command):
    """Shows the hub of the log: its settings, classes, sinks, counters and categories.
Usage: yutils log

For each class of messages the number that has passed, and the sink. For each category whether its
debug messages pass, and up to which level."""

    def __init__(self):
        super().__init__("yutils log")

    def run(self, _):
        lib = library()
        hub = lib.link("_ZN5Utils3Log7theLog_E")
        if not hub:
            raise gdb.GdbError("there is no hub yet: nothing was logged")
        print("Log 0x%x: level %d, debug messages of new categories %s, verbosity %d"
              % (hub, lib.signed(hub, "log.level"), self.on_off(lib.flag(hub, "log.enabled")),
                 lib.word(hub, "log.verbosity")))
        print("%-16s %9s  %s" % ("class", "messages", "sink"))
        start, count = vector_at(lib, hub + lib["log.classes"])
        for at in range(start, start + count * lib["class.bytes"], lib["class.bytes"]):
            print("%-16s %9d  %s" % (lib.text(lib.pointer(at, "class.name")), lib.word(at, "class.count"),
                                     self.sink_text(lib, lib.pointer(at, "class.sink"))))
        print("%-16s %9s  %s  %s" % ("category", "debug", "level", "verbosity"))
        start, count = vector_at(lib, hub + lib["log.categories"])
        for at in lib.pointers(read(start, count * lib.pointer_size)):
            print("%-16s %9s %6d %10d" % (lib.text(lib.pointer(at, "category.name")),
                                          self.on_off(lib.flag(at, "category.enabled")),
                                          lib.signed(at, "category.level"),
                                          lib.word(at, "category.verbosity")))

    @staticmethod
    def on_off(flag):
        return "on" if flag else "off"

    @staticmethod
    def sink_text(lib, sink):
        if not sink:
            return "none"
        return "%s 0x%x, held %s" % (class_of(sink), sink, count_of(lib.word(sink, "object.refCount"), "time"))


def vector_at(lib, address):
    """The address of a vector's elements, and their number."""
    count = lib.word(address, "vector.size")
    if count > lib.word(address, "vector.capacity"):
        raise gdb.GdbError("the Vector at 0x%x is damaged: size %d, capacity %d"
                           % (address, count, lib.word(address, "vector.capacity")))
    return lib.pointer(address, "vector.data"), count


def tree_nodes(lib, root):
    """The nodes of an AVLTree in order. Raises GdbError if links lead in a circle."""
    seen, above, node = set(), [], root
    left, right = lib["node.left"], lib["node.right"]
    while above or node:
        while node:
            if node in seen:
                raise gdb.GdbError("damaged AVLTree: a link leads to the node 0x%x for the second time" % node)
            seen.add(node)
            above.append(node)
            node = lib.pointer(node + left)
        node = above.pop()
        yield node
        node = lib.pointer(node + right)


class Errors(Command):
    """Shows the last error of each task, and the listeners for errors.
Usage: yutils errors"""

    def __init__(self):
        super().__init__("yutils errors")

    def run(self, _):
        lib = library()
        texts = self.texts(lib)
        tree = lib.pointer(lib.root("lastErrors"), "lateImmortal.object")
        nodes = list(tree_nodes(lib, lib.pointer(tree))) if tree else []
        print("%-24s %s" % ("task", "last error") if nodes else "No task has a last error.")
        for node in nodes:
            task, code = lib.pointer(node, "lastError.task"), lib.word(node, "lastError.code")
            print("%-24s 0x%08x %s" % (task_text(task), code, texts.get(code, "(no text)")))
        listeners = lib.pointer(lib.root("listeners"))
        start, count = vector_at(lib, listeners) if listeners else (0, 0)
        for at in lib.pointers(read(start, count * lib.pointer_size)):
            print("listener 0x%x, %s" % (at, class_of(at)))
        if not count:
            print("No listener is registered.")

    @staticmethod
    def texts(lib):
        tree = lib.pointer(lib.root("errorTexts"))
        return {lib.word(node, "errorText.code"): lib.text(lib.pointer(node, "errorText.text"))
                for node in (tree_nodes(lib, lib.pointer(tree)) if tree else ())}


# --- System objects: locks and events ---


class SystemObject:
    """A lock or an event of the system layer, by its handle."""

    ROOTS = (("mutexes", "mutex"), ("sections", "criticalSection"), ("events", "event"),
             ("cooperativeEvents", "cooperativeEvent"))
    NAMES = {"mutex": "mutex", "criticalSection": "critical section", "event": "event",
             "cooperativeEvent": "cooperative event"}

    def __init__(self, lib, kind, handle, at):
        self.lib, self.kind, self.handle, self.name = lib, kind, handle, self.NAMES[kind]
        self.waits = "no task waits"
        is_lock = kind in ("mutex", "criticalSection")
        self.at = at + lib["lockSlot.object" if is_lock else "eventSlot.object"]
        self.state = self.lock_state() if is_lock else self.event_state()

    @classmethod
    def all(cls):
        """Yields the live objects of all kinds."""
        lib = library("ysys")
        for root, kind in cls.ROOTS:
            table = lib.root(root)
            for index in range(lib.word(table, "table.used")):
                at = cls.slot(lib, table, index)
                handle = lib.word(at, "slot.word")
                if handle >> lib["handle.kindShift"] == lib["kind." + kind]:
                    yield cls(lib, kind, handle, at)

    @classmethod
    def of(cls, handle):
        """The object of a handle; None if it is stale or no handle of a lock or an event."""
        lib = library("ysys")
        index = handle & lib["handle.indexMask"]
        for root, kind in cls.ROOTS:
            table = lib.root(root)
            if (handle >> lib["handle.kindShift"] == lib["kind." + kind]
                    and index < lib.word(table, "table.used")):
                at = cls.slot(lib, table, index)
                if lib.word(at, "slot.word") == handle:
                    return cls(lib, kind, handle, at)
        return None

    @staticmethod
    def slot(lib, table, index):
        shift = lib["table.segmentShift"]
        segment = lib.pointer(table + lib["table.segments"] + (index >> shift) * lib.pointer_size)
        return segment + (index & ((1 << shift) - 1)) * lib["slot.bytes"]

    def lock_state(self):
        word, sleepers = self.lib.word(self.at, "lock.word"), self.lib["lock.sleepers"]
        if not word:
            return "free"
        times = self.lib.word(self.at, "lock.again") + 1
        self.waits = "tasks may wait" if word & sleepers else "no task waits"
        return "held by %s, %s, %s" % (task_text(word & ~sleepers), count_of(times, "time"), self.waits)

    def event_state(self):
        lib = self.lib
        state = lib.number(self.at + lib["event.state"], 8)
        waiting, lower = state >> 32, state & 0xffffffff
        self.waits = "%s %s" % (count_of(waiting, "task") if waiting else "no task",
                                "wait" if waiting > 1 else "waits")
        if lib.flag(self.at, "event.manualReset"):
            return "manual-reset, %s, %s" % ("set" if lower & 1 else "clear", self.waits)
        is_coop = self.kind == "cooperativeEvent"
        is_set = lower > (0 if is_coop else waiting)
        text = "auto-reset, %s, %s" % ("set" if is_set else "clear", self.waits)
        taker = lib.word(self.at, "event.taker") if is_coop else 0
        if lib.flag(self.at, "event.isTicket"):
            text += ", free" if is_set else ", taken by %s" % task_text(taker) if taker else ""
        return text

    def row(self):
        return "%-10d  %-17s  %s" % (self.handle, self.name, self.state)


def handle_text(handle):
    found = SystemObject.of(handle)
    return found.state if found else "its handle 0x%08x is stale" % handle


HANDLES = {"Utils::Mutex": "mutex.handle", "Utils::CriticalSection": "section.handle",
           "Utils::WaitableEvent": "waitableEvent.handle", "Utils::YtLightBLock": "lightLock.event",
           "Utils::YtHeavyBLock": "heavyLock.section"}


class Locks(Command):
    """Shows the locks and events: owner, number of entries, waiting tasks.
Usage: yutils locks [EXPRESSION]

Without EXPRESSION all that are alive, with the numbers that the log has for them, as many as `set
print elements` allows. EXPRESSION is a Mutex, CriticalSection, WaitableEvent, YtLightBLock or
YtHeavyBLock, a pointer to one, or a number from the table.

Of a mutex and a critical section the system layer knows that tasks wait, not how many; of an event
it counts them. A task that has just arrived spins for a moment and is not among them. The ticket
of a YtLightBLock is a cooperative event."""

    def __init__(self):
        super().__init__("yutils locks", gdb.COMPLETE_EXPRESSION)

    def run(self, argument):
        if argument:
            return self.show_one(argument)
        found = SystemObject.all()
        print("%-10s  %-17s  %s" % ("number", "kind", "state"))
        for each in itertools.islice(found, limit_of_elements()):
            print(each.row())
        rest = sum(1 for _ in found)
        if rest:
            print("... and %d more" % rest)

    @staticmethod
    def show_one(argument):
        value = gdb.parse_and_eval(argument)
        type_ = value.type.strip_typedefs()
        if type_.code in (gdb.TYPE_CODE_PTR, gdb.TYPE_CODE_REF):
            type_ = type_.target().strip_typedefs()
        name = type_.unqualified().name
        if name == "Utils::Lock":
            name = class_of(address_in(argument))
        if name in HANDLES:
            handle = library().word(address_in(argument), HANDLES[name])
        elif type_.code == gdb.TYPE_CODE_INT:
            handle = int(value)
        else:
            raise gdb.GdbError("%s is no lock, no event and no number of one" % argument)
        found = SystemObject.of(handle)
        if not found:
            raise gdb.GdbError("there is no lock or event %d: the handle is stale, or of another kind" % handle)
        print(found.row())


# --- Printers ---


class Printer:
    """A printer whose failures are texts in place of the value."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        try:
            return self.text()
        except (gdb.GdbError, gdb.error, gdb.MemoryError) as failure:
            return "<%s>" % failure
        except Exception as failure:
            return "<the script failed: %s>" % failure

    def field_address(self, name):
        return int(self.value[name]) & ((1 << 8 * library().pointer_size) - 1)


class PrinterOfMany(Printer):
    """A printer with children, which end where they cannot be read."""

    def children(self):
        try:
            yield from self.each()
        except (gdb.GdbError, gdb.error, gdb.MemoryError):
            return


class StringPrinter(Printer):
    def text(self):
        return text_value(self.field_address("rep_"))


def text_value(rep, start=0, count=None):
    """The text of a StringRep, or of a range of it, which gdb shows as it shows any text."""
    lib = library()
    if not rep:
        return '""'
    size, capacity = lib.word(rep, "stringRep.size"), lib.word(rep, "stringRep.capacity")
    text = lib.pointer(rep, "stringRep.text")
    if size >= 0x80000000 or (size and size > capacity):
        return "<damaged String: size %d, capacity %d>" % (size, capacity)
    count = size - start if count is None else count
    if start + count > size:
        return "<damaged SubString: bytes %d to %d of %d>" % (start, start + count, size)
    if not count:
        return '""'
    pointer = gdb.Value(text + start).cast(gdb.lookup_type("char").pointer())
    return pointer.lazy_string(length=count)


class SubStringPrinter(Printer):
    def text(self):
        lib, rep = library(), self.field_address("rep_")
        if not rep:
            return '""'
        return text_value(lib.pointer(rep, "subStringRep.string"), lib.word(rep, "subStringRep.index"),
                          lib.word(rep, "subStringRep.size"))


class VectorPrinter(PrinterOfMany):
    def sizes(self):
        return int(self.value["size_"]), int(self.value["capacity_"])

    def text(self):
        size, capacity = self.sizes()
        if size > capacity:
            return "<damaged Vector: size %d, capacity %d>" % (size, capacity)
        return "Vector of %d, capacity %d" % (size, capacity)

    def each(self):
        size, capacity = self.sizes()
        for i in range(size if size <= capacity else 0):
            yield "[%d]" % i, self.value["data_"][i]

    def display_hint(self):
        return "array"


class Entry:
    """The key and the value of a node, by the types of a tree."""

    def __init__(self, tree_type, node):
        key, value = tree_type.template_argument(0), tree_type.template_argument(1)
        at = self.aligned(node + library()["node.entry"], key)
        self.key = self.object(key, at)
        self.value = self.object(value, self.aligned(at + key.sizeof, value))

    @staticmethod
    def aligned(address, type_):
        unit = max(1, type_.strip_typedefs().alignof)
        return (address + unit - 1) // unit * unit

    @staticmethod
    def object(type_, address):
        return gdb.Value(address).cast(type_.unqualified().pointer()).dereference()


class TreePrinter(PrinterOfMany):
    COUNTED = 10000

    def nodes(self):
        return tree_nodes(library(), self.field_address("root_"))

    def text(self):
        count = sum(1 for _ in itertools.islice(self.nodes(), self.COUNTED + 1))
        return "AVLTree of %s" % (count if count <= self.COUNTED else "more than %d" % self.COUNTED)

    def each(self):
        type_ = self.value.type.strip_typedefs()
        for i, node in enumerate(self.nodes()):
            entry = Entry(type_, node)
            yield "k%d" % i, entry.key
            yield "v%d" % i, entry.value

    def display_hint(self):
        return "map"


class IterPrinter(PrinterOfMany):
    def text(self):
        return "AVLTreeIter" if self.field_address("pos_") else "AVLTreeIter at no entry"

    def each(self):
        node = self.field_address("pos_")
        if node:
            entry = Entry(self.value.type.strip_typedefs(), node)
            yield "key", entry.key
            yield "value", entry.value


class WalkPrinter(PrinterOfMany):
    def text(self):
        return "AVLTree::Walk" if self.field_address("node_") else "AVLTree::Walk at the end"

    def each(self):
        if self.field_address("node_"):
            entry = self.value["node_"].cast(self.value.type.strip_typedefs().template_argument(2).pointer())
            yield "key", entry["key_"]
            yield "value", entry["value_"]


def count_offset(type_, start=0):
    """The offset of the reference count in a class. The class Object may be known by name alone."""
    name = type_.unqualified().strip_typedefs().name
    for base in ("Utils::Countable", "countable"), ("Utils::Object", "object"):
        if name == base[0]:
            return start + library()[base[1] + ".refCount"]
    for field in type_.strip_typedefs().fields():
        if field.is_base_class:
            found = count_offset(field.type, start + field.bitpos // 8)
            if found is not None:
                return found
    return None


class RefPrinter(PrinterOfMany):
    def object(self):
        pointer = self.value["ptr_"]
        try:
            return pointer.cast(pointer.dynamic_type).dereference()
        except (gdb.error, gdb.MemoryError):
            return pointer.dereference()

    def text(self):
        at = self.field_address("ptr_")
        if not at:
            return "empty Ref"
        static = self.value["ptr_"].type.target()
        offset = count_offset(static)
        offset = library()["object.refCount"] if offset is None else offset
        return "Ref to %s 0x%x, held %s" % (self.object().type.unqualified(), at,
                                            count_of(library().word(at + offset), "time"))

    def each(self):
        if self.field_address("ptr_"):
            yield "object", self.object()


class TimePrinter(Printer):
    def text(self):
        steps = int(self.value["value_"])
        digits = str((abs(steps) & 0xffff) * 10 ** 16 >> 16).zfill(16).rstrip("0")
        return "%s%d%s" % ("-" if steps < 0 else "", abs(steps) >> 16, "." + digits if digits else "")


class UidPrinter(Printer):
    def text(self):
        words = [int(self.value[name]) for name in ("machineNum_", "timeBits_", "tickBits_")]
        return "%08X%08X%X" % tuple(words) if any(words) else "0"


class NullLockPrinter(Printer):
    def text(self):
        return "a lock that never blocks"


class HandlePrinter(Printer):
    """A lock or an event that has a handle and no other state."""

    def text(self):
        type_ = self.value.type.strip_typedefs().unqualified()
        field = [name for name in ("handle_", "event_", "section_") if gdb.types.has_field(type_, name)]
        return "%s, %s" % (type_.name.rpartition("::")[2], handle_text(int(self.value[field[0]])))


class LightLockPrinter(Printer):
    def text(self):
        count, owner = int(self.value["count_"]), int(self.value["owner_"])
        name = library().text(self.field_address("name_"))
        event = SystemObject.of(int(self.value["event_"]))
        if not event:
            return "YtLightBLock \"%s\", its handle is stale" % name
        held = "held by %s, %s" % (task_text(owner), count_of(count, "time")) if count > 0 else "free"
        return "YtLightBLock \"%s\", %s, %s" % (name, held, event.waits)


def printers():
    found = gdb.printing.RegexpCollectionPrettyPrinter("yutils")
    for name, pattern, printer in (
            ("String", "String", StringPrinter), ("SubString", "SubString", SubStringPrinter),
            ("Vector", "Vector<.*>", VectorPrinter), ("Walk", "AVLTreeWalk<.*>", WalkPrinter),
            ("AVLTree", "AVLTree<.*>", TreePrinter), ("AVLTreeIter", "AVLTreeIter<.*>", IterPrinter),
            ("Ref", "Ref<.*>", RefPrinter), ("Time", "Time", TimePrinter), ("UID", "UID", UidPrinter),
            ("YtBLock", "YtBLock|Utils::YtReadWriteBLock", NullLockPrinter),
            ("Lock", "Mutex|Utils::CriticalSection|Utils::YtHeavyBLock", HandlePrinter),
            ("WaitableEvent", "WaitableEvent", HandlePrinter),
            ("YtLightBLock", "YtLightBLock", LightLockPrinter)):
        found.add_printer(name, "^Utils::(%s)$" % pattern.replace("|Utils::", "|"), printer)
    return found


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
for command in (Yutils, Heap, Color, BlockAt, LogOf, Errors, Locks):
    command()
