#!/usr/bin/env bash
# A sample image written by the writer onto a stick that held another, larger partition table
# boots in the firmware it is made for and shows its screen: the stick is a loop device, the
# machine QEMU (scripts/boot-check). Needs root for the loop device; says SKIPPED (exit 77)
# otherwise. The loop device is detached on every way out; boot-check ends its own QEMU.
#   boot_test.sh WRITER BOOT_CHECK IMAGE_DIR NAME
set -uo pipefail
writer=$1 boot_check=$2 images=$3 name=$4

if [[ $(id -u) != 0 ]]; then
  echo "SKIPPED: booting $name needs root (loop device)"
  exit 77
fi

work=$(mktemp -d /var/tmp/qm-boot-XXXXXX)
loop=
cleanup() {
  [[ -n $loop ]] && losetup -d "$loop"
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

# A 64 MiB stick whose GPT claims all of it, so its backup header lies past the image's end.
truncate -s 64M "$work/stick"
sfdisk -q "$work/stick" <<'TABLE' || exit 1
label: gpt
label-id: 3C1D2E4F-5A6B-4C7D-8E9F-A0B1C2D3E4F5
start=2048, type=0FC63DAF-8483-4772-8E79-3D69D8477DE4, name="old"
TABLE
loop=$(losetup -f --show "$work/stick") || exit 1

if ! "$writer" "$images/$name.img.gz" "$loop" >"$work/writer.out" 2>&1; then
  echo "FAIL: the writer did not write $name:"
  tail -5 "$work/writer.out"
  exit 1
fi
"$boot_check" "$loop" "${name%%_*}" --expect "Quillmate sample system: $name" --timeout 60
