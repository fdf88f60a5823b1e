#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Tries each way to use the library: installed, packaged, from a build tree, as a subproject.

Usage: tests/ways.py BUILD PACKAGES SUBPROJECT COMPILER

BUILD is a complete 64-bit build, PACKAGES one of the preset `packages`, SUBPROJECT one of ways/project as
32-bit if the compiler can, with the library as a subproject. Each row of WAYS is a list of commands for
sh, in a folder of its own; all must succeed, and the program must print the line of ways/project/use.cpp.
"""
import os, pathlib, shutil, subprocess, sys, tempfile, time

TESTS = pathlib.Path(__file__).resolve().parent
BUILD, PACKAGES, SUBPROJECT, CXX = sys.argv[1:]
HAS_32 = "-m32" in (pathlib.Path(SUBPROJECT) / "CMakeCache.txt").read_text()

# Shell functions that the rows use.
COMMON = r"""
set -eu
user() { cmake -G Ninja -S "$TESTS/ways/project" -B build -DCMAKE_CXX_COMPILER="$CXX" "$@"; }
well() { test "$("$@")" = "used well"; }
refused() { if "$@" >out 2>&1; then echo "not refused: $*"; exit 1; fi; }
no() { if "$@"; then echo "unexpected: $*"; exit 1; fi; }
pc() { PKG_CONFIG_PATH=$1/pkgconfig pkg-config --cflags --libs "$2"; }
compile() { $CXX -Wall -Wextra -Werror -std=c++17 "$TESTS/ways/project/use.cpp" "$@" -o use; }
leaves() { (cd "$1" && find . ! -type d | sort) >left; diff - left; }
"""
WAYS = {
    "find_package, moved": "user -DCMAKE_PREFIX_PATH=$P; cmake --build build; well build/use",
    "find_package, static": """
        user -DCMAKE_PREFIX_PATH=$P -DLIBRARY=yutils_static "-DFIND=1.0;REQUIRED;COMPONENTS;static"
        cmake --build build; well build/use
        readelf -d build/use >log; no grep yutils log""",
    "find_package, refused": """
        refused user -DCMAKE_PREFIX_PATH=$P "-DFIND=REQUIRED;COMPONENTS;nonsense"
        grep -q 'no component `nonsense`' out
        refused user -DCMAKE_PREFIX_PATH=$P "-DFIND=2.0;REQUIRED"; grep -q 'version: 1.0' out""",
    "find_package, build tree": "user -Dyutils_DIR=$BUILD; cmake --build build; well build/use",
    "pkg-config, moved": """
        compile $(pc $P/$LIB yutils); well env LD_LIBRARY_PATH=$P/$LIB ./use
        compile $(pc $P/$LIB yutils-static); well ./use
        compile -static $(pc $P/$LIB yutils-static); well ./use""",
    "pkg-config, 32 bits beside 64": """
        cmake --install $SUBPROJECT --prefix $P >log
        compile -m32 $(pc $P/$LIB32 yutils); well env LD_LIBRARY_PATH=$P/$LIB32 ./use
        compile -m32 $(pc $P/$LIB32 yutils-static); well ./use
        user -DCMAKE_PREFIX_PATH=$P -DCMAKE_CXX_FLAGS=-m32 -DCMAKE_LIBRARY_ARCHITECTURE=i386-linux-gnu
        cmake --build build; well build/use
        compile $(pc $P/$LIB yutils); well env LD_LIBRARY_PATH=$P/$LIB ./use""",
    "pkg-config, DESTDIR": """
        DESTDIR=$PWD/root cmake --install $BUILD --prefix /opt/y >log
        Y=$(dirname $(find root -name libyutils.a)); compile $(pc $Y yutils); well env LD_LIBRARY_PATH=$Y ./use
        no grep -rIlF -e $BUILD -e $PWD root""",
    "plain compiler": """
        compile -I$P/include/yutils -L$P/$LIB -lyutils -lysys -Wl,-rpath,$P/$LIB; well ./use""",
    "make": """
        printf 'use: %s/ways/project/use.cpp\n\t$(CXX) $(CPPFLAGS) $< $(LDLIBS) -o $@\n' $TESTS >Makefile
        make CPPFLAGS="$(PKG_CONFIG_PATH=$P/$LIB/pkgconfig pkg-config --cflags yutils)" \\
          LDLIBS="$(PKG_CONFIG_PATH=$P/$LIB/pkgconfig pkg-config --libs yutils)" CXX="$CXX -std=c++17"
        well env LD_LIBRARY_PATH=$P/$LIB ./use""",
    "meson": """
        cp $TESTS/ways/project/use.cpp .; printf '%s\n' "project('user', 'cpp', default_options: 'cpp_std=c++17')" \\
          "executable('use', 'use.cpp', dependencies: dependency('yutils', method: 'pkg-config'))" >meson.build
        PKG_CONFIG_PATH=$P/$LIB/pkgconfig CXX="$CXX" meson setup build; ninja -C build
        well env LD_LIBRARY_PATH=$P/$LIB build/use""",
    "static library, symbols": """
        $CXX -shared -Wl,--whole-archive $P/$LIB/libyutils.a -Wl,--no-whole-archive -o all.so
        cat $TESTS/yutils.exports $TESTS/ysys.exports >exports; $TESTS/exports.sh ./all.so exports
        nm $P/$LIB/libyutils.a >log; no grep ' u ' log; nm -D --defined-only all.so | grep -v ' A ' >log
        no grep -v 'Utils\\|Y[If]\\|y\\(utils\\|sys\\)_\\| _assert\\|A$\\|Calls$' log""",
    "components, uninstall": """
        cmake --install $PACKAGES --prefix $PWD/lib --component lib >log
        leaves lib <<END
./$LIB/libysys.so.1
./$LIB/libysys.so.1.0.0
./$LIB/libyutils.so.1
./$LIB/libyutils.so.1.0.0
END
        cmake --install $PACKAGES --prefix $PWD/doc --component doc >log; test -f doc/share/doc/yutils/README.md
        cmake --install $PACKAGES --prefix $PWD/gdb --component gdb >log; gdb/bin/yutils-heap --help >log
        cmake --install $PACKAGES --prefix $PWD/dev --component dev >log; test ! -e dev/share
        cmake --install $PACKAGES --prefix $PWD/all >log; cmake --build $PACKAGES --target uninstall
        for each in lib doc gdb dev all; do leaves $each </dev/null; done; find . -name yutils | leaves dev""",
    "subproject": """
        cmake --install $SUBPROJECT --prefix $PWD/all --component Unspecified >log; echo ./bin/use | leaves all
        well $SUBPROJECT/use
        user -DSUBPROJECT=$TESTS/..; no grep 'file(INSTALL' build/yutils/cmake_install.cmake""",
    "Debian packages": """
        cp $PACKAGES/CPackConfig.cmake .; cpack -B $PWD
        for each in *.deb *.ddeb; do dpkg-deb -x $each root; done; D=root/usr/$LIB
        test "$(echo *deb)" = "$(for each in -dev -gdb 1-dbgsym 1; do echo libyutils${each}_1.0.0_amd64.*deb; done | paste -sd ' ')"
        readelf -d $D/libyutils.so.1 >log; no grep RUNPATH log; test $(stat -c %s $D/libysys.so.1.0.0) -lt 80000
        compile $(pc $D yutils); well env LD_LIBRARY_PATH=$D ./use
        lintian --allow-root --fail-on error *.deb""",
}
NEEDS = {"meson": "meson", "Debian packages": "lintian"}


def attempt(name, script, environment, scratch):
    folder = pathlib.Path(scratch) / name.replace(" ", "-").replace(",", "")
    folder.mkdir()
    begin = time.monotonic()
    done = subprocess.run(["sh", "-xc", COMMON + script], cwd=folder, env=environment, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    print(f"{'works' if done.returncode == 0 else 'FAILS':6} {name} ({time.monotonic() - begin:.1f} s)", flush=True)
    if done.returncode:
        print(done.stdout)
    return done.returncode == 0


def skipped(name):
    if name in NEEDS and not shutil.which(NEEDS[name]):
        return f"{NEEDS[name]} is missing"
    return "no 32-bit compiler" if "32 bits" in name and not HAS_32 else None


with tempfile.TemporaryDirectory() as scratch:
    prefix = pathlib.Path(scratch) / "moved"
    environment = {**os.environ, "TESTS": TESTS, "BUILD": BUILD, "PACKAGES": PACKAGES, "LC_ALL": "C",
                   "SUBPROJECT": SUBPROJECT, "CXX": CXX, "P": prefix}
    subprocess.run(["cmake", "--install", PACKAGES, "--prefix", f"{scratch}/first"], check=True,
                   stdout=subprocess.DEVNULL)
    os.rename(f"{scratch}/first", prefix)
    find = lambda root: str(next(pathlib.Path(root).rglob("libyutils.a")).parent.relative_to(root))
    environment["LIB"], environment["LIB32"] = find(prefix), "lib/i386-linux-gnu"
    wrong = 0
    for name, script in WAYS.items():
        if reason := skipped(name):
            print(f"SKIPS  {name}: {reason}")
        else:
            wrong += not attempt(name, script, environment, scratch)
sys.exit(f"{wrong} ways fail" if wrong else 0)
