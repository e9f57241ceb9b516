#!/usr/bin/env bash
# The quick start as a newcomer meets it: a bare Debian 12 root (minbase with
# git and ca-certificates, nothing else), this checkout cloned into it with
# shared/ beside it, and README.md's two quick-start lines run in it exactly as
# written, as root. The first must build and leave ksd running and ready (a
# ksctl in the root must reach it); the second must exit 0.
#   .ci/fresh-root.sh            (needs root, unshare, and Debian's mirror)
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d /tmp/ks-fresh.XXXXXX)
root=$work/root
run_pgid=

cleanup() {
  [ -n "$run_pgid" ] && kill -TERM -- "-$run_pgid" 2>/dev/null && sleep 2 && kill -KILL -- "-$run_pgid" 2>/dev/null
  # The root's mounts live in private namespaces; never delete through one.
  if grep -q " $root/" /proc/mounts; then echo "fresh: $root still has mounts; left in place"; else rm -rf "$work"; fi
}
trap cleanup EXIT

mapfile -t lines < <(awk '/^```/{n++; next} n==1' "$src/README.md")
[ ${#lines[@]} -eq 2 ] || { echo "fresh: README.md's quick start must be exactly two lines" >&2; exit 1; }
run_cmd=${lines[0]} test_cmd=${lines[1]}

command -v mmdebstrap >/dev/null || apt-get install -y -qq mmdebstrap >/dev/null
mirror=()
[ -f /etc/apt/sources.list.d/debian.sources ] && mirror=(/etc/apt/sources.list.d/debian.sources)
start=$(date +%s)
mmdebstrap --quiet --variant=minbase --include=git,ca-certificates bookworm "$root" "${mirror[@]}" \
  >"$work/mmdebstrap.log" 2>&1 || { cat "$work/mmdebstrap.log"; echo "fresh: could not make the root" >&2; exit 1; }
cp /etc/resolv.conf "$root/etc/resolv.conf"
git clone -q "$src" "$root/src/main"
[ -d "$src/../shared" ] && cp -a "$src/../shared" "$root/src/shared"
echo "== fresh root made in $(( $(date +%s) - start ))s"

# Runs CMD in the root with proc, dev, sys and a tmpfs /tmp, in a mount
# namespace of its own, with the environment of a root login.
inside() {
  unshare --mount --fork bash -c '
    r=$1; mount -t proc proc "$r/proc"; mount --rbind /dev "$r/dev"; mount --rbind /sys "$r/sys"
    mount -t tmpfs tmpfs "$r/tmp"
    exec chroot "$r" /usr/bin/env -i HOME=/root LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
      PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin bash -c "cd /src/main && $2"' _ "$root" "$1"
}

echo "== README line 1 in the fresh root: $run_cmd"
start=$(date +%s)
export -f inside; export root
setsid bash -c 'inside "$1"' _ "$run_cmd" >"$work/run.log" 2>&1 &
run_pgid=$!
ready=
while kill -0 "$run_pgid" 2>/dev/null && [ $(( $(date +%s) - start )) -lt 2400 ]; do
  if grep -q 'ksd: ready' "$work/run.log"; then ready=yes; break; fi
  sleep 5
done
if [ -z "$ready" ]; then
  tail -n 60 "$work/run.log"; echo "fresh: README line 1 did not leave a ready ksd" >&2; exit 1
fi
echo "== README line 1: ksd ready after $(( $(date +%s) - start ))s"
inside "./build/tools/ksctl/ksctl status" || { tail -n 30 "$work/run.log"; echo "fresh: ksctl cannot reach the ksd of line 1" >&2; exit 1; }
kill -TERM -- "-$run_pgid"
wait "$run_pgid" 2>/dev/null || true
run_pgid=

echo "== README line 2 in the fresh root: $test_cmd"
start=$(date +%s)
if ! inside "$test_cmd" >"$work/test.log" 2>&1; then
  grep -E -A30 'The following tests FAILED|Error|error:' "$work/test.log" | tail -n 120
  echo "fresh: README line 2 failed after $(( $(date +%s) - start ))s" >&2; exit 1
fi
grep -E 'tests passed|Total Test time' "$work/test.log"
echo "== README line 2 passed in $(( $(date +%s) - start ))s"
