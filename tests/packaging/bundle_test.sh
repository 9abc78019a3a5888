#!/usr/bin/env bash
# Installs a build the three ways it ships: as a movable bundle folder, as a system install under
# DESTDIR, and as a Debian package; checks what each holds and that the moved bundle runs.
# usage: bundle_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
cached() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }
version=$(cached QM_APP_VERSION)
key=$(cached QM_UPDATE_PUBKEY | tr A-F a-f)

# The bundle. The trailing slash is how a shell's completion hands the folder over.
app="$work/first/Quillmate Flasher.app"
cmake --install "$build" --prefix "$app/" >/dev/null
for f in bin/quillmate-flasher share/quillmate-flasher/qm-writer bundle.json \
         share/quillmate-flasher/images/{uefi,bios}_{fat32,exfat}.img.gz; do
  [[ -f "$app/$f" ]] || fail "the bundle lacks $f"
done
[[ $(ls "$app/bin") == quillmate-flasher ]] || fail "the bundle's bin/ holds more than the program: $(ls "$app/bin")"
[[ ! -e "$app/share/polkit-1" ]] || fail "the bundle carries a polkit action polkit would never read"
[[ -z $(tail -c1 "$app/bundle.json") ]] || fail "bundle.json lacks its final newline"
python3 - "$app/bundle.json" "$version" "$key" <<'PY' || fail "bundle.json: $(cat "$app/bundle.json")"
import json, sys
with open(sys.argv[1]) as f:
    assert json.load(f) == {"name": "Quillmate Flasher", "version": sys.argv[2], "update_public_key": sys.argv[3]}
PY
search_paths=$(readelf -d "$app/bin/quillmate-flasher" "$app/share/quillmate-flasher/qm-writer" |
  grep -E 'R(UN)?PATH' || true)
! grep -qF -e "$build" -e "$source" <<<"$search_paths" ||
  fail "an installed binary loads from the build tree: $search_paths"

# Moved elsewhere, it still runs and finds its own files.
mkdir "$work/second"
mv "$app" "$work/second/"
app="$work/second/Quillmate Flasher.app"
mkdir -m 700 "$work/run"
out=$(cd "$work" && HOME="$work/home" XDG_RUNTIME_DIR="$work/run" QT_QPA_PLATFORM=offscreen \
  "$app/bin/quillmate-flasher" --shot "$work/shots") ||
  fail "the moved bundle's program failed: $out"
written=$(sed -n 's/^\([0-9]*\) image(s) written to .*/\1/p' <<<"$out")
pngs=$(find "$work/shots" -name '*.png' | wc -l)
[[ -n $written && $written -gt 0 && $written -eq $pngs ]] || fail "screenshots: '$out', $pngs PNG file(s)"
writer="$app/share/quillmate-flasher/qm-writer"
[[ $("$writer" 2>&1) == *usage:* ]] || fail "the moved bundle's writer does not run"
# The writer installed is the one that refuses a file, which the test build takes (the installed
# writer's other refusals are the writer tests'); the test build is not installed at all.
printf 'keep' >"$work/victim"
if "$writer" "$app/share/quillmate-flasher/images/uefi_fat32.img.gz" "$work/victim" >/dev/null 2>&1 ||
   [[ $(cat "$work/victim") != keep ]]; then
  fail "the installed writer took a regular file"
fi
[[ -z $(find "$app" -name 'qm-writer-test*') ]] || fail "the test writer was installed"

# A system install gets the polkit action naming the writer where it is, and no bundle.json.
DESTDIR="$work/root" cmake --install "$build" --prefix /usr >/dev/null
[[ ! -e "$work/root/usr/bundle.json" ]] || fail "a /usr install got a bundle.json"
grep -qF '>/usr/share/quillmate-flasher/qm-writer<' \
  "$work/root/usr/share/polkit-1/actions/org.quillmate.flasher.policy" ||
  fail "the polkit action does not name /usr/share/quillmate-flasher/qm-writer"

# The Debian package.
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" 2>&1 ||
  fail "cpack: $(cat "$work/cpack.log")"
deb=$(echo "$work"/deb/quillmate-flasher_*.deb)
[[ -f $deb ]] || fail "no package in $work/deb"
[[ $(dpkg-deb -f "$deb" Package) == quillmate-flasher && $(dpkg-deb -f "$deb" Version) == "${version//-/\~}" ]] ||
  fail "package is $(dpkg-deb -f "$deb" Package) $(dpkg-deb -f "$deb" Version)"
depends=$(dpkg-deb -f "$deb" Depends)
[[ ", $depends," == *", pkexec,"* && $depends == *libqt6widgets6* ]] ||
  fail "Depends lacks pkexec or the Qt libraries: $depends"
listing=$(dpkg-deb -c "$deb")
for f in usr/bin/quillmate-flasher usr/share/quillmate-flasher/qm-writer \
         usr/share/applications/quillmate-flasher.desktop usr/share/icons/hicolor/scalable/apps/quillmate-flasher.svg \
         usr/share/polkit-1/actions/org.quillmate.flasher.policy usr/share/quillmate-flasher/images/uefi_fat32.img.gz; do
  grep -q " \./$f\$" <<<"$listing" || fail "the package lacks /$f"
done
! grep -qE 'bundle\.json|qm-server' <<<"$listing" || fail "the package carries a bundle.json or the account service"
if command -v desktop-file-validate >/dev/null; then
  desktop-file-validate "$source/packaging/quillmate-flasher.desktop" || fail "the desktop entry does not validate"
fi
echo "bundle, system install and package: PASS"
