#!/usr/bin/env bash
# The writer (its test build, which takes loop devices) against the plain shell way on the
# same file-backed loop device (direct I/O),
# with a 512 MiB image of mixed content (text, zeros, random). Prints ratios, lower is
# better for times. Needs root; not part of ctest.
#   bench/bench_writer.sh [BUILD_DIR]   (default build/writer)
set -euo pipefail
build=${1:-build/writer}
writer=$build/writer/qm-writer-test  # the writer's own code, allowed a loop device
[[ -x $writer ]] || { echo "no $writer: build the writer first" >&2; exit 1; }
if [[ $(id -u) != 0 ]]; then
  echo "SKIPPED: needs root for loop devices"
  exit 0
fi

work=$(mktemp -d /var/tmp/qm-bench-writer-XXXXXX)
loop=
cleanup() {
  [[ -n $loop ]] && losetup -d "$loop"
  rm -rf "$work"
}
trap cleanup EXIT

readonly SEGMENT_MIB=32 SEGMENTS=16  # 512 MiB in all
make_text_segment() {  # realistic compressible text: documentation files, repeated
  find /usr/share/doc /usr/share/common-licenses -type f ! -name '*.gz' -print0 2>/dev/null |
    xargs -0 cat 2>/dev/null | head -c $((SEGMENT_MIB * 1024 * 1024)) >"$work/text" || true  # head closes early
  while [[ $(stat -c %s "$work/text") -lt $((SEGMENT_MIB * 1024 * 1024)) ]]; do
    cat "$work/text" "$work/text" | head -c $((SEGMENT_MIB * 1024 * 1024)) >"$work/text2" || true
    mv "$work/text2" "$work/text"
  done
}
make_image() {
  make_text_segment
  for ((i = 0; i < SEGMENTS; i++)); do
    case $((i % 3)) in
      0) cat "$work/text" ;;
      1) head -c $((SEGMENT_MIB * 1024 * 1024)) /dev/zero || true ;;
      2) head -c $((SEGMENT_MIB * 1024 * 1024)) /dev/urandom || true ;;
    esac
  done >"$work/image.raw"
  gzip -6 -c "$work/image.raw" >"$work/image.gz"
}

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
forget_device_cache() { blockdev --flushbufs "$loop"; }

# Runs the writer, stamping each protocol line with the time it arrived.
timed_writer() {  # extra args...
  forget_device_cache
  "$writer" "$@" "$work/image.gz" "$loop" | while IFS= read -r line; do echo "$(now) $line"; done >"$work/lines"
  grep -q ' DONE$' "$work/lines" || { cat "$work/lines" >&2; exit 1; }
}
phase_seconds() {  # tag: from its "0" line to its last line
  local first last
  first=$(awk -v t="$1" '$2 == t && $3 == 0 { print $1; exit }' "$work/lines")
  last=$(awk -v t="$1" '$2 == t { s = $1 } END { print s }' "$work/lines")
  elapsed "$first" "$last"
}
run_seconds() {  # command...
  local start
  forget_device_cache
  start=$(now)
  "$@" >/dev/null 2>&1
  elapsed "$start" "$(now)"
}

echo "building a 512 MiB image (text, zeros, random)..."
make_image
truncate -s 576M "$work/disk"
loop=$(losetup --find --show --direct-io=on "$work/disk")
echo "image $(stat -c %s "$work/image.raw") bytes, compressed $(stat -c %s "$work/image.gz") bytes, device $loop"
cat "$work/image.raw" "$work/image.gz" >/dev/null  # both inputs start from the page cache

baseline_gzip_dd=$(run_seconds sh -c "gzip -dc '$work/image.gz' | dd of='$loop' bs=4M oflag=direct conv=fsync")
baseline_dd=$(run_seconds dd if="$work/image.raw" of="$loop" bs=4M oflag=direct conv=fsync)
baseline_cmp=$(run_seconds cmp "$work/image.raw" "$loop" -n "$(stat -c %s "$work/image.raw")")

for engine in isal zlib isal zlib; do
  start=$(now)
  timed_writer --inflater=$engine
  whole=$(elapsed "$start" "$(now)")
  check=$(phase_seconds C)
  write=$(phase_seconds P)
  readback=$(phase_seconds V)
  echo "== qm-writer --inflater=$engine: whole ${whole}s, size check ${check}s, write ${write}s, read-back ${readback}s"
  echo "   size check / whole run:           $(ratio "$check" "$whole")  (goal: at most 0.05)"
  echo "   whole run / (gzip -dc | dd):      $(ratio "$whole" "$baseline_gzip_dd")  (baseline ${baseline_gzip_dd}s)"
  echo "   write phase / dd of raw image:    $(ratio "$write" "$baseline_dd")  (baseline ${baseline_dd}s)"
  echo "   read-back / cmp:                  $(ratio "$readback" "$baseline_cmp")  (baseline ${baseline_cmp}s)"
done

forget_device_cache
peak_kib=$( { /usr/bin/time -v "$writer" "$work/image.gz" "$loop" >/dev/null; } 2>&1 |
  awk -F': ' '/Maximum resident set size/ { print $2 }')
echo "== peak RSS of qm-writer: ${peak_kib} KiB ($(ratio "$peak_kib" 65536) of the 64 MiB limit)"
