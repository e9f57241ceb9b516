#!/bin/bash
# Installs the build into a fresh prefix and uses it the way a stranger to
# the build would, with a clean environment (no LD_LIBRARY_PATH, no
# ldconfig): the installed ksd serves, a C program built with pkg-config
# creates a job, one built with CMake finds it, a Java program loads the
# natives through the installed jar alone, the installed ksctl lists it and
# a task it schedules runs.
# Usage: install_tree_test.sh BUILD_DIR CONSUMER_SOURCE_DIR [EXTRA_C_FLAGS]
set -eu
build=$1 consumer=$2 extra=${3:-}
work=$(mktemp -d "$build/install-test.XXXXXX")
ksd_pid=
trap '[ -n "$ksd_pid" ] && kill "$ksd_pid" 2>/dev/null; rm -rf "$work"' EXIT
prefix=$work/prefix

fail() { echo "FAIL: $*" >&2; [ -f "$work/ksd.log" ] && cat "$work/ksd.log" >&2; exit 1; }
# Only what a login shell would have, plus where the test's ksd listens.
clean_env=(env -i PATH=/usr/bin:/bin HOME="$work" OSUPT_LOG_LEVEL=0 KSINTF_CONN_TYPE="pipe:$work/ksd.sock")
clean() { "${clean_env[@]}" "$@"; }

cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "install"; }

pcdir=$(dirname "$(find "$prefix" -name ksintf.pc | head -n1)")
[ -f "$pcdir/ksintf.pc" ] || fail "no ksintf.pc installed"
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir ksintf)
[ "$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=prefix ksintf)" = "$prefix" ] || fail "pc prefix is not $prefix"
if [ -f "$build/java/ksintf.jar" ]; then
    [ -f "$prefix/share/doc/ksa/javadoc/index.html" ] || fail "no Javadoc under share/doc/ksa"
fi

"${clean_env[@]}" "$prefix/sbin/ksd" --foreground --pipe "$work/ksd.sock" --state-dir "$work/state" 2>"$work/ksd.log" &
ksd_pid=$!
for _ in $(seq 100); do [ -S "$work/ksd.sock" ] && break; sleep 0.1; done
[ -S "$work/ksd.sock" ] || fail "installed ksd did not listen"

name=install-check-$$
# shellcheck disable=SC2046,SC2086
clean cc $extra -o "$work/consumer-pc" "$consumer/consumer.c" \
    $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs ksintf) || fail "pkg-config build"
id=$(clean "$work/consumer-pc" create "$name") || fail "pkg-config consumer run"

clean cmake -S "$consumer" -B "$work/cbuild" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$extra" \
    -DCMAKE_EXE_LINKER_FLAGS="$extra" >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; fail "find_package"; }
clean cmake --build "$work/cbuild" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "CMake build"; }
[ "$(clean "$work/cbuild/consumer" lookup "$name")" = "$id" ] || fail "CMake consumer did not find job $id"

# The JVM cannot host a sanitizer runtime that is not first in the process.
if [ -z "$extra" ] && command -v javac >/dev/null; then
    jar=$prefix/share/java/ksintf.jar
    javac -d "$work/java" -cp "$jar" "$consumer/java/Consumer.java" || fail "javac"
    [ "$(clean java -cp "$jar:$work/java" Consumer "$name")" = "$id" ] ||
        fail "Java did not load the natives of $prefix through its jar"
    [ "$(clean java -Djava.library.path="$libdir" -cp "$jar:$work/java" Consumer "$name")" = "$id" ] ||
        fail "Java did not load the natives from java.library.path"
fi

clean "$prefix/bin/ksctl" --pipe "$work/ksd.sock" job list | grep -q "$name" || fail "installed ksctl does not list $name"
# A task run proves the installed ksd finds its program starter in libexec.
when=$(date -d '+2 seconds' '+%Y-%m-%d %H:%M:%S')
clean "$prefix/bin/ksctl" --pipe "$work/ksd.sock" task schedule "$name" /usr/bin/touch -a "$work/ran" --at "$when" \
    >/dev/null || fail "installed ksctl could not schedule a task"
for _ in $(seq 100); do [ -e "$work/ran" ] && break; sleep 0.1; done
[ -e "$work/ran" ] || fail "the installed ksd did not run a task"
echo "installed tree at $prefix serves C (pkg-config, CMake), Java and ksctl with a clean environment"
