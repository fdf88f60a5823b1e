#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Compares the binary interface of libraries with the kept one of 1.0: additions are allowed.

Usage: tests/abi.py [--keep] LIBRARY...

The libraries have debug information. abi/NAME-BITS.abi.xz is what abidw (package abigail-tools) has
written of a library; --keep writes it anew, which only a new major version does. Without abidiff the
status is 77, which ctest shows as skipped.
"""
import lzma, pathlib, shutil, subprocess, sys, tempfile

FOLDER = pathlib.Path(__file__).resolve().parent / "abi"


def kept(library):
    bits = 64 if pathlib.Path(library).read_bytes()[4] == 2 else 32
    return FOLDER / f"{pathlib.Path(library).name.split('.')[0].removeprefix('lib')}-{bits}.abi.xz"


def keep(library):
    written = subprocess.run(["abidw", "--no-show-locs", "--no-corpus-path", "--no-comp-dir-path", library],
                             check=True, capture_output=True).stdout
    kept(library).write_bytes(lzma.compress(written, preset=9))


def differs(library, scratch):
    before = pathlib.Path(scratch) / kept(library).stem
    before.write_bytes(lzma.decompress(kept(library).read_bytes()))
    done = subprocess.run(["abidiff", "--no-added-syms", "--suppressions", FOLDER / "allowed.suppr", before, library], capture_output=True, text=True)
    print(done.stdout + done.stderr, end="")
    print(f"{kept(library).stem}: {'DIFFERS' if done.returncode else 'the interface of 1.0 is there'}")
    return done.returncode != 0


if not shutil.which("abidiff"):
    print("SKIPPED: the binary interface is not compared, since abidiff (package abigail-tools) is missing")
    sys.exit(77)
if sys.argv[1] == "--keep":
    for each in sys.argv[2:]:
        keep(each)
else:
    with tempfile.TemporaryDirectory() as scratch:
        sys.exit(any([differs(each, scratch) for each in sys.argv[1:]]))
