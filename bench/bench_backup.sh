#!/usr/bin/env bash
# The backup run against the plain shell way, on a drive of 5,000 files and about 500 MB as the
# deck writes them (many documents, long version histories), and putting that writing back onto
# an empty stick against cp -r + sync. As root the drive is a FAT file
# system on a loop device (ext4 when the kernel has no vfat; it says so), mounted afresh and
# with every cache dropped before each timed step, for the program and its baseline alike.
# Without root: a plain folder and warm caches, said so. Prints ratios, lower is better.
#   bench/bench_backup.sh [BUILD_DIR]   (default build/release)
set -euo pipefail
build=${1:-build/release}
app=$build/app/shell/quillmate-flasher
deck=$build/tools/qm-deck/qm-deck
for tool in "$app" "$deck"; do
  [[ -x $tool ]] || { echo "no $tool: build quillmate-flasher and qm-deck first" >&2; exit 1; }
done

work=$(mktemp -d /var/tmp/qm-bench-backup-XXXXXX)
drive="$work/Bench drive"
stick="$work/New stick"
loop= loop2=
cleanup() {
  if [[ -n $loop ]]; then
    mountpoint -q "$drive" && umount "$drive"
    losetup -d "$loop"
  fi
  if [[ -n $loop2 ]]; then
    mountpoint -q "$stick" && umount "$stick"
    losetup -d "$loop2"
  fi
  rm -rf "$work"
}
trap cleanup EXIT
export HOME=$work/home QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME" "$drive" "$stick" "$work/dest"

root=0
[[ $(id -u) == 0 ]] && root=1
fs=folder
if ((root)); then
  truncate -s 1200M "$work/drive.img"
  loop=$(losetup --find --show "$work/drive.img")
  if mkfs.vfat -F 32 -n QUILLMATE "$loop" >/dev/null 2>&1 && mount -t vfat "$loop" "$drive" 2>/dev/null; then
    fs=vfat
  else
    echo "NOTE: this kernel cannot mount vfat; the drive is ext4 on the loop device instead"
    mkfs.ext4 -q -F "$loop"
    mount "$loop" "$drive"
    fs=ext4
  fi
  # The empty stick the writing is put back onto, of the same kind.
  truncate -s 1200M "$work/stick.img"
  loop2=$(losetup --find --show "$work/stick.img")
  if [[ $fs == vfat ]]; then mkfs.vfat -F 32 "$loop2" >/dev/null; mount -t vfat "$loop2" "$stick"
  else mkfs.ext4 -q -F "$loop2"; mount "$loop2" "$stick"; fi
else
  echo "NOTE: not root: the drive is a plain folder and caches stay warm (no remount, no drop_caches)"
fi

# Before each timed step: the drive mounted afresh and the page cache emptied, so the program
# and its baseline both start from the disk.
cold() {
  ((root)) || return 0
  sync
  umount "$drive"
  if [[ $fs == vfat ]]; then mount -t vfat "$loop" "$drive"; else mount "$loop" "$drive"; fi
  echo 3 >/proc/sys/vm/drop_caches
  # The programs themselves loaded again (the program's libraries and the baseline's tools), so
  # that what is timed is the drive's reads, not the loading of code.
  "$app" --backup-check "$work" >/dev/null
  cp --version >/dev/null; sha256sum --version >/dev/null; find --version >/dev/null; xargs --version >/dev/null
}

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
timed() {  # command...: wall seconds; the command's output kept in $work/last
  local start
  start=$(now)
  "$@" >"$work/last" 2>&1 || { cat "$work/last" >&2; echo "failed: $*" >&2; exit 1; }
  elapsed "$start" "$(now)"
}
said() { echo "   the program said: $(head -1 "$work/last")"; }
hash_tree() { (cd "$1" && find . -type f -print0 | xargs -0 sha256sum >/dev/null); }

# ---- the drive -------------------------------------------------------------------------------
# The deck's own documents and histories, then long manuscripts with growing versions in the
# same layout (.qmv/<document>/<nnnn-date hour>.md), then small versions up to 5,000 files.
echo "building the drive ($fs)..."
"$deck" make "$drive" --seed 11 --docs 560 --force >/dev/null
find /usr/share/common-licenses /usr/share/doc -type f ! -name '*.gz' -print0 2>/dev/null |
  xargs -0 cat 2>/dev/null | head -c $((4 * 1024 * 1024)) >"$work/text" || true
while (($(stat -c %s "$work/text") < 4 * 1024 * 1024)); do cat "$work/text" "$work/text" >"$work/text2"; mv "$work/text2" "$work/text"; done
text_of() {  # bytes seed: text cut from the sample at a place the seed picks
  local bytes=$1 at=$(($2 * 7919 % (3 * 1024 * 1024)))
  while ((bytes > 0)); do
    local n=$((bytes < 1024 * 1024 ? bytes : 1024 * 1024))
    dd if="$work/text" bs=64K iflag=skip_bytes,count_bytes skip="$at" count="$n" status=none
    bytes=$((bytes - n))
  done
}
for ((m = 1; m <= 50; m++)); do
  doc="Manuscript $m.md"
  mkdir -p "$drive/.qmv/$doc"
  for ((k = 1; k <= 10; k++)); do
    text_of $((k * 150 * 1024)) $((m * 10 + k)) >"$drive/.qmv/$doc/$(printf '%04d' "$k")-2025-0$((k % 9 + 1))-1$((m % 10)) 1$((k % 10)).md"
  done
  text_of $((10 * 150 * 1024)) $((m * 10 + 10)) >"$drive/$doc"
done
files=$(find "$drive" -type f | wc -l)
for ((i = files; i < 5000; i++)); do
  text_of $((2000 + i % 7000)) "$i" >"$drive/.qmv/Manuscript $((i % 50 + 1)).md/$(printf '%04d' $((100 + i)))-2025-10-01 12.md"
done
sync
echo "drive: $(find "$drive" -type f | wc -l) files, $(du -sm "$drive" | cut -f1) MB, on $fs"

# ---- (a) first run against cp -r and sha256sum of both trees --------------------------------
cold
base_first=$(timed sh -c "cp -r '$drive' '$work/cp-copy' && cd '$drive' && find . -type f -print0 | xargs -0 sha256sum >/dev/null && cd '$work/cp-copy' && find . -type f -print0 | xargs -0 sha256sum >/dev/null && sync")
rm -rf "$work/cp-copy"
sync
cold
first=$(timed /usr/bin/time -f %M -o "$work/first.rss" "$app" --backup-run "$drive" "$work/dest")
folder=$work/dest/Quillmate/$(basename "$drive")
[[ -s $folder/.quillmate-backup ]] || { echo "the first run made no manifest" >&2; exit 1; }
echo "== first run: ${first}s (the program's own flush included)"
said
echo "   / (cp -r + sha256sum of both trees + sync):  $(ratio "$first" "$base_first")  (baseline ${base_first}s, goal <= 0.80)"

# ---- (b) unchanged rerun against find over the drive -----------------------------------------
for state in cold warm; do
  [[ $state == cold ]] && cold
  base_find=$(timed find "$drive" -type f)
  [[ $state == cold ]] && cold
  rerun=$(timed "$app" --backup-run "$drive" "$work/dest")
  echo "== unchanged rerun, $state caches: ${rerun}s (goal < 0.2 s)"
  said
  echo "   / find over the drive:                        $(ratio "$rerun" "$base_find")  (baseline ${base_find}s)"
done

# ---- (c) --verify against sha256sum of the copies --------------------------------------------
cold
base_verify=$(timed hash_tree "$folder")
cold
verify=$(timed "$app" --backup-run "$drive" "$work/dest" --verify)
echo "== --verify: ${verify}s, caches dropped before it and before its baseline"
said
echo "   / sha256sum of every copy:                    $(ratio "$verify" "$base_verify")  (baseline ${base_verify}s, goal <= 0.50)"

# ---- (d) the writing put back onto an empty stick against cp -r + sync -------------------------
empty_stick() { find "$stick" -mindepth 1 -delete; sync; }
cold
base_restore=$(timed sh -c "cp -r '$folder/.' '$stick/' && sync")
empty_stick
cold
restore=$(timed "$app" --restore-run "$folder" "$stick")
echo "== putting the writing back onto an empty stick: ${restore}s (every file verified from the disk)"
said
echo "   / cp -r + sync:                               $(ratio "$restore" "$base_restore")  (baseline ${base_restore}s)"

# ---- (e) peak memory -------------------------------------------------------------------------
/usr/bin/time -f %M -o "$work/idle.rss" "$app" --backup-check /tmp >/dev/null 2>&1
first_kib=$(tail -1 "$work/first.rss")
idle_kib=$(tail -1 "$work/idle.rss")
echo "== peak RSS of the first run: ${first_kib} KiB"
echo "   / idle (--backup-check /tmp, ${idle_kib} KiB):   $(ratio "$first_kib" "$idle_kib")"
echo "   / the 64 MiB limit:                           $(ratio "$first_kib" 65536)"
