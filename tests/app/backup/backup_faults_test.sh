#!/usr/bin/env bash
# Backup runs as a user starts them (`quillmate-flasher --backup-run DRIVE DEST`) when things go
# wrong: the destination fills up, the run is killed outright, files change under it, a file
# cannot be read, the drive holds links and special files. After each, every row of the
# manifest must still match its copy. Needs root for its tmpfs and loop mounts; says SKIPPED
# (exit 77) otherwise. Everything it mounts or attaches is undone on every way out.
#   backup_faults_test.sh APP QM_DECK CASE
set -uo pipefail
app=$1 deck=$2 case=$3

if [[ $(id -u) != 0 ]]; then
  echo "SKIPPED: $case needs root (tmpfs and loop mounts)"
  exit 77
fi

work=$(mktemp -d /var/tmp/qm-backup-faults-XXXXXX)
chmod 755 "$work"
mounts=() loops=() helpers=()
cleanup() {
  local p m l
  for p in "${helpers[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null; done
  for ((m = ${#mounts[@]} - 1; m >= 0; m--)); do umount "${mounts[m]}" 2>/dev/null || umount -l "${mounts[m]}"; done
  for l in "${loops[@]}"; do losetup -d "$l"; done
  rm -rf "$work"
}
trap cleanup EXIT

failed=0
fail() { echo "FAIL: $*"; failed=1; }
mount_here() {  # mount args... (the mount point last)
  mount "$@" && mounts+=("${!#}")
}

export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_CACHE_HOME=$work/home/.cache QT_QPA_PLATFORM=offscreen
mkdir -p "$HOME"

# Runs a backup with a time limit; its exit status in $rc, its output in $work/out.
run_backup() {  # [--as USER] drive dest [--verify]
  local as=()
  [[ $1 == --as ]] && { as=(setpriv --reuid="$2" --regid="$(id -g "$2")" --clear-groups); shift 2; }
  timeout -s KILL "${limit:-60}" "${as[@]}" "$app" --backup-run "$@" >"$work/out" 2>"$work/err"
  rc=$?
  [[ $rc == 137 ]] && fail "the run did not end within ${limit:-60} s"
  ((rc >= 128)) && { fail "the run died with exit status $rc"; cat "$work/err"; }
  return 0
}
failure_lines() { grep '^  UNVERIFIED: ' "$work/out"; }

# The exit status says what the output says: 1 exactly when a failure or an error was printed.
expect_status_matches_output() {
  if failure_lines >/dev/null || grep -q '^Backup failed: ' "$work/out"; then
    [[ $rc == 1 ]] || fail "failures printed but exit status $rc"
  else
    [[ $rc == 0 ]] || { fail "exit status $rc without a failure printed"; cat "$work/out"; }
  fi
}

# Every row of the manifest is whole and matches its copy: same SHA-256, same size; no path twice.
check_manifest() {  # folder
  local folder=$1 m=$1/.quillmate-backup line
  local re=$'^([0-9a-f]{64})\t([0-9]+)\t(-?[0-9]+)\t([0-9]+)\t(.+)$'
  [[ -s $m ]] || return 0  # no run got as far as saving one
  [[ $(tail -c 1 "$m" | od -An -tx1 | tr -d ' ') == 0a ]] || fail "the manifest ends mid-line"
  while IFS= read -r line; do
    [[ $line == '#'* ]] && continue
    [[ $line =~ $re ]] || { fail "malformed manifest row: $line"; continue; }
    printf '%s  ./%s\n' "${BASH_REMATCH[1]}" "${BASH_REMATCH[5]}" >&3
    printf './%s\t%s\n' "${BASH_REMATCH[5]}" "${BASH_REMATCH[2]}" >&4
  done <"$m" 3>"$work/rows.sha" 4>"$work/rows.size"
  [[ -z $(cut -f1 "$work/rows.size" | sort | uniq -d) ]] || fail "a path has two rows"
  (cd "$folder" && sha256sum --quiet --strict -c "$work/rows.sha" 2>&1) | sed 's/^/  /' >"$work/mismatch"
  [[ -s $work/mismatch ]] && { fail "copies that do not match their rows:"; head -5 "$work/mismatch"; }
  (cd "$folder" && find . -type f -printf '%p\t%s\n') >"$work/found.size"
  awk -F'\t' 'NR == FNR { size[$1] = $2; next } !($1 in size) || size[$1] != $2 { print "  " $0 }' \
    "$work/found.size" "$work/rows.size" >"$work/badsize"
  [[ -s $work/badsize ]] && { fail "rows whose copy has another size:"; head -5 "$work/badsize"; }
  [[ -s $work/mismatch || -s $work/badsize ]] || echo "  manifest: $(wc -l <"$work/rows.sha") rows, each matching its copy"
}

# After a clean run: every file of the drive that a backup copies has a row with its hash (and so a copy).
check_complete() {  # drive folder
  [[ -s $2/.quillmate-backup ]] || { fail "no manifest after a clean run"; return; }
  check_manifest "$2"
  (cd "$1" && find . -type f ! -path './.qm/*' ! -name stats.db ! -name stats.bak ! -name settings.cfg \
    ! -name autosave.md ! -name .DS_Store ! -name '.quillmate-backup*' -print0 | xargs -0 -r sha256sum) |
    LC_ALL=C sort >"$work/drive.sha"
  local missing
  missing=$(LC_ALL=C sort "$work/rows.sha" | LC_ALL=C comm -23 "$work/drive.sha" -)
  [[ -z $missing ]] || { fail "drive files without a matching row:"; head -5 <<<"$missing"; }
}

folder_of() { echo "$2/Quillmate/$(basename "$1")"; }

make_drive() {  # dir docs
  "$deck" make "$1" --seed 3 --docs "$2" >/dev/null || fail "qm-deck make failed"
}

# Sets the case's drive (a deck drive with DOCS documents), dest (an empty folder) and folder.
setup() {  # docs
  drive=$work/Drive dest=$work/dest
  folder=$(folder_of "$drive" "$dest")
  make_drive "$drive" "$1"
  mkdir "$dest"
}

# Extra version files of size KiB in the deck's layout: .qmv/<document>/<nnnn-yyyy-mm-dd hh>.md
add_versions() {  # drive count kib
  local doc i
  doc=$(find "$1/.qmv" -mindepth 1 -maxdepth 1 -type d | sort | head -1)
  for ((i = 0; i < $2; i++)); do
    head -c $(($3 * 1024)) /dev/urandom >"$doc/$(printf '%04d' $((500 + i)))-2025-06-$(printf '%02d' $((i % 28 + 1))) 10.md"
  done
}

# ---- the cases ----------------------------------------------------------------------------------

# A 2 MiB tmpfs that fills up: failures, exit 1, the rows saved still true; with room again the
# next run completes.
case_full_destination() {
  local drive dest folder
  setup 6
  add_versions "$drive" 6 700
  mount_here -t tmpfs -o size=2m tmpfs "$dest" || return
  run_backup "$drive" "$dest"
  [[ $rc == 1 ]] || fail "exit status $rc on a full destination"
  failure_lines >/dev/null || fail "no UNVERIFIED line on a full destination"
  failure_lines | grep -q "(the disk holding the backup folder is full)" || fail "no line says the disk is full"
  echo "  full: $(failure_lines | wc -l) failure lines, e.g.: $(failure_lines | head -1)"
  check_manifest "$folder"
  mount -o remount,size=64m "$dest" || fail "remount"
  run_backup "$drive" "$dest"
  [[ $rc == 0 ]] || { fail "exit status $rc with room again"; cat "$work/out"; }
  check_complete "$drive" "$folder"
}

# Killed outright at seeded random moments on a drive large enough for a run to take a while.
# Before each run a few big files grow, so runs replace copies the manifest already names; the
# moments are spread over the time such a run takes when left alone.
case_killed() {
  local drive dest folder pid delay landed=0 i start took
  setup 40
  add_versions "$drive" 24 6144
  mapfile -d '' big < <(find "$drive/.qmv" -name '05*' -size +1M -print0 | sort -z)
  RANDOM=20250611
  grow_some() { local k; for k in 1 2 3 4; do head -c 300000 /dev/urandom >>"${big[RANDOM % ${#big[@]}]}"; done; }
  run_backup "$drive" "$dest"
  [[ $rc == 0 ]] || fail "exit status $rc on the first run"
  grow_some
  start=$(date +%s%N)
  run_backup "$drive" "$dest"
  took=$((($(date +%s%N) - start) / 1000000))
  echo "  a run after a few files grew takes ${took} ms"
  for ((i = 1; i <= 8; i++)); do
    grow_some
    # Within the first 60 % of a measured run: runs vary with the machine's load, and a kill
    # after the end tests nothing.
    delay=$(awk -v r=$RANDOM -v t="$took" 'BEGIN { printf "%.3f", (10 + (r % 1000) / 1000 * 0.6 * t) / 1000 }')
    "$app" --backup-run "$drive" "$dest" >"$work/out" 2>"$work/err" &
    pid=$!
    sleep "$delay"
    kill -KILL "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    rc=$?
    if [[ $rc == 137 ]]; then
      ((landed++))
    else
      ((rc >= 128)) && fail "run $i died by itself with exit status $rc"
    fi
    echo "  run $i: killed after ${delay}s: $([[ $rc == 137 ]] && echo mid-run || echo "it had ended ($rc)")"
    check_manifest "$folder"
  done
  ((landed >= 3)) || fail "only $landed of 8 kills landed mid-run: the drive is too small to test this"
  limit=90 run_backup "$drive" "$dest"
  [[ $rc == 0 ]] || { fail "exit status $rc on the final run"; cat "$work/out"; }
  check_complete "$drive" "$folder"
  local left
  left=$(find "$folder" -name '.quillmate-partial' | wc -l)
  ((left == 0)) || echo "  note: $left partial copies from killed runs are still in the folder"
}

# Files deleted, grown, cut short, replaced and added while the run reads the drive.
case_interference() {
  local drive dest folder i mutator
  setup 30
  mkdir "$drive/Churn"
  for ((i = 0; i < 60; i++)); do head -c $((1024 * (256 + i * 37 % 2048))) /dev/urandom >"$drive/Churn/file $i.md"; done
  for round in 1 2; do
    : >"$work/changes"
    (
      RANDOM=$((777 + round))
      while :; do
        f="$drive/Churn/file $((RANDOM % 60)).md"
        case $((RANDOM % 5)) in
          0) rm -f "$f" ;;
          1) head -c 65536 /dev/urandom >>"$f" ;;
          2) [[ -f $f ]] && truncate -s %2 "$f" ;;
          3) head -c 200000 /dev/urandom >"$f.new" && mv "$f.new" "$f" ;;
          4) head -c 100000 /dev/urandom >"$drive/Churn/new $RANDOM.md" ;;
        esac
        echo -n . >>"$work/changes"
        sleep 0.002
      done
    ) &
    mutator=$!
    helpers+=("$mutator")
    run_backup "$drive" "$dest"
    kill "$mutator"
    wait "$mutator" 2>/dev/null
    echo "  run with $(stat -c %s "$work/changes") changes under it: exit $rc, $(failure_lines | wc -l) failure lines"
    expect_status_matches_output
    check_manifest "$folder"
  done
  run_backup "$drive" "$dest"
  [[ $rc == 0 ]] || { fail "exit status $rc once the files stood still"; cat "$work/out"; }
  check_complete "$drive" "$folder"
}

expect_unreadable() {  # name
  [[ $rc == 1 ]] || fail "exit status $rc with $1 unreadable"
  grep -qxF "  UNVERIFIED: $1 (could not read it on the drive)" "$work/out" ||
    { fail "no '$1 (could not read it on the drive)' line"; cat "$work/out" "$work/err"; }
}

# Three honest ways a file cannot be read: a run by a user the file's permissions shut out;
# and, as root, an ext4 drive whose metadata was damaged with debugfs and dd so that either the
# file's first bytes read but the rest fails with EIO, or the file's entry is listed but its
# inode cannot be looked at (EUCLEAN). The kernel here has no vfat, hence ext4.
case_unreadable() {
  local drive dest folder loop img=$work/drive.img ind
  # Permissions, for a user who is not root.
  setup 3
  head -c 5000 /dev/urandom >"$drive/Locked.md"
  chmod 000 "$drive/Locked.md"
  chmod -R a+rX "$work/home"
  chown nobody "$dest"
  run_backup --as nobody "$drive" "$dest"
  expect_unreadable Locked.md
  [[ ! -e $folder/Locked.md ]] || fail "a copy of Locked.md was made"
  check_manifest "$folder"

  # A read error past the first 48 KiB: the file's indirect block points outside the disk.
  truncate -s 32M "$img"
  mkfs.ext4 -q -F -O ^extent,^has_journal,^64bit -b 4096 "$img" || return
  loop=$(losetup --find --show "$img") && loops+=("$loop") || return
  mkdir "$work/Damaged drive" "$work/dest2"
  mount_here "$loop" "$work/Damaged drive" || return
  make_drive "$work/Damaged drive" 3
  head -c 100000 /dev/urandom >"$work/Damaged drive/Torn.md"
  head -c 100000 /dev/urandom >"$work/Damaged drive/Broken inode.md"
  umount "$work/Damaged drive" && unset 'mounts[-1]'
  ind=$(debugfs -R "stat \"/Torn.md\"" "$loop" 2>/dev/null | grep -o '(IND):[0-9]*' | cut -d: -f2)
  [[ -n $ind ]] || { fail "no indirect block for Torn.md"; return; }
  printf '\x00\x09\x3d\x00' | dd of="$loop" bs=1 seek=$((ind * 4096)) conv=notrunc status=none
  debugfs -w -R "sif \"/Broken inode.md\" block[2] 4000000" "$loop" >/dev/null 2>&1
  sync
  mount_here -o errors=continue "$loop" "$work/Damaged drive" || return
  run_backup "$work/Damaged drive" "$work/dest2"
  expect_unreadable Torn.md
  expect_unreadable "Broken inode.md"
  folder=$(folder_of "$work/Damaged drive" "$work/dest2")
  [[ ! -e $folder/Torn.md ]] || fail "a copy of Torn.md was left in place"
  check_manifest "$folder"
}

# Links, a FIFO, a socket and a device node on the drive: none followed, opened or copied, and
# the run does not wait on the FIFO. The drive's own files never travel either.
case_special_files() {
  local drive dest folder marker=outside-$RANDOM$RANDOM
  setup 3
  mkdir "$work/outside" "$drive/Sub"
  echo "$marker" >"$work/outside/secret.txt"
  ln -s "$work/outside/secret.txt" "$drive/Link to secret.md"
  ln -s ../../../outside/secret.txt "$drive/.qmv/$(ls "$drive/.qmv" | head -1)/0099-2025-01-01 10.md"
  ln -s "$work/outside" "$drive/Linked folder"
  ln -s /nonexistent "$drive/Dangling.md"
  mkfifo "$drive/Pipe.md"
  mknod "$drive/Zero.md" c 1 5
  python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' "$drive/Socket.md" 2>/dev/null ||
    echo "  (no python3: no socket on the drive)"
  for f in settings.cfg autosave.md .DS_Store Sub/.DS_Store Sub/autosave.md; do echo never >"$drive/$f"; done
  echo kept >"$drive/Sub/Kept.md"
  limit=20 run_backup "$drive" "$dest"
  expect_status_matches_output
  echo "  exit $rc: $(head -1 "$work/out")"
  ! grep -rqs -- "$marker" "$dest" || fail "the file outside the drive was copied"
  local f
  for f in "Link to secret.md" "Linked folder" Dangling.md Pipe.md Zero.md Socket.md settings.cfg autosave.md \
    .DS_Store Sub/.DS_Store Sub/autosave.md stats.db stats.bak .qm; do
    [[ ! -e $folder/$f && ! -L $folder/$f ]] || fail "$f was copied"
    cut -f5- "$folder/.quillmate-backup" 2>/dev/null | grep -qxF "$f" && fail "$f has a manifest row"
  done
  [[ $(cat "$folder/Sub/Kept.md" 2>/dev/null) == kept ]] || fail "Sub/Kept.md was not copied"
  check_manifest "$folder"
}

# A folder bound into itself, as a corrupt file system's folder cycle looks: the run ends, says
# so, and copies everything else.
case_folder_loop() {
  local drive dest folder
  setup 3
  mkdir -p "$drive/Sub/Again"
  echo kept >"$drive/Sub/Kept.md"
  mount_here --bind "$drive/Sub" "$drive/Sub/Again" || return
  limit=20 run_backup "$drive" "$dest"
  [[ $rc == 1 ]] || fail "exit status $rc on a folder that leads back into itself"
  failure_lines | grep -qF "Sub/Again (this folder leads back into itself" || { fail "no line names the loop"; cat "$work/out"; }
  [[ $(cat "$folder/Sub/Kept.md" 2>/dev/null) == kept ]] || fail "Sub/Kept.md was not copied"
  check_manifest "$folder"
}

declare -F "case_$case" >/dev/null || { echo "unknown case $case"; exit 2; }
echo "== $case"
"case_$case"
((failed)) && exit 1
echo "PASS: $case"
