#!/bin/sh
# Installs the build into a fresh prefix, then builds and runs a small C
# program against it twice: through pkg-config and through find_package.
set -eu
build=$1
work=$(mktemp -d /tmp/quarvel-install-XXXXXX)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
test -x "$work/prefix/bin/quarvel"
"$work/prefix/bin/quarvel" --version | grep -q '^quarvel '
test -f "$work/prefix/share/man/man1/quarvel.1"
bash -n "$work/prefix/share/bash-completion/completions/quarvel"
cat >"$work/probe.c" <<'C'
#include <quarvel/quarvel.h>
#include <quarvel/scan.h>
#include <stdio.h>
int main(void) {
    QuarvelScanOptions o;
    QuarvelDefaultOptions(&o);
    if (QuarvelScanVersion() != QUARVEL_SCAN_VERSION || o.size != sizeof o) return 1;
    if (Mirror(NULL) != NULL) return 1;
    puts("probe ok");
    return 0;
}
C
pc=$(find "$work/prefix" -name quarvel.pc)
lib=$(dirname "$(dirname "$pc")")
export PKG_CONFIG_PATH=$(dirname "$pc")
cc -o "$work/probe-pc" "$work/probe.c" $(pkg-config --cflags --libs quarvel)
LD_LIBRARY_PATH="$lib" "$work/probe-pc" | grep -q "probe ok"
mkdir "$work/cm"
cp "$work/probe.c" "$work/cm/"
cat >"$work/cm/CMakeLists.txt" <<'C'
cmake_minimum_required(VERSION 3.20)
project(probe C)
find_package(Quarvel REQUIRED)
add_executable(probe probe.c)
target_link_libraries(probe PRIVATE Quarvel::quarvel)
C
cmake -S "$work/cm" -B "$work/cm/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cm/build" >/dev/null
"$work/cm/build/probe" | grep -q "probe ok"
echo "install check passed"
