#!/bin/bash
# Installs the build into a fresh prefix, then builds and runs a small C
# program against that tree, once with pkg-config and once with CMake.
# Usage: install_tree_test.sh BUILD_DIR CONSUMER_SOURCE_DIR [EXTRA_C_FLAGS]
set -eu
build=$1 consumer=$2 extra=${3:-}
work=$(mktemp -d "$build/install-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "FAIL: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "install"; }

pcdir=$(dirname "$(find "$prefix" -name ksintf.pc | head -n1)")
[ -f "$pcdir/ksintf.pc" ] || fail "no ksintf.pc installed"
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir ksintf)
[ "$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=prefix ksintf)" = "$prefix" ] || fail "pc prefix is not $prefix"
[ -e "$libdir/libksintf.so" ] || fail "pc libdir $libdir has no libksintf.so"
PKG_CONFIG_PATH=$pcdir pkg-config --libs --static ksintf | grep -q -- '-locnet -losupt' ||
    fail "static libs lack -locnet -losupt"

grep -qx "ExecStart=$prefix/sbin/ksd --foreground" "$prefix/lib/systemd/system/ksd.service" ||
    fail "unit ExecStart does not name $prefix/sbin/ksd"

# The libraries' own dependencies (libocnet, libosupt) are found at link and
# run time through the library path, as a packager's build would.
export LD_LIBRARY_PATH=$libdir
export KSINTF_CONN_TYPE="pipe:ks-install-test-$$-absent"

# shellcheck disable=SC2046,SC2086
cc $extra -o "$work/consumer-pc" "$consumer/consumer.c" $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs ksintf) ||
    fail "pkg-config build"
"$work/consumer-pc" || fail "pkg-config consumer run"

cmake -S "$consumer" -B "$work/cbuild" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$extra" \
    -DCMAKE_EXE_LINKER_FLAGS="$extra" >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; fail "find_package"; }
cmake --build "$work/cbuild" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "CMake build"; }
"$work/cbuild/consumer" || fail "CMake consumer run"
echo "installed tree at $prefix works with pkg-config and CMake"
