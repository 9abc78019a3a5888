#!/usr/bin/env bash
# Starts the program in a real window on a virtual X display and checks what it shows:
# the window "Quillmate" with its tabs in order, painted, then a clean exit.
set -euo pipefail
app=$1
# Updates are asked of a loopback port nobody listens on: a test never reaches outside the machine.
out=$(QM_SERVER=http://127.0.0.1:9 QM_REPORT_WINDOW=1 QT_QPA_PLATFORM=xcb timeout 30 xvfb-run -a "$app" 2>/dev/null)
status=$?
echo "$out"
[ "$status" -eq 0 ] || { echo "exit status $status"; exit 1; }
grep -qx 'window: Quillmate' <<<"$out" || { echo "no window titled Quillmate"; exit 1; }
grep -qx 'tabs: Install|Statistics|History|Backup|Account|Settings' <<<"$out" || { echo "tabs missing or out of order"; exit 1; }
grep -q '^first paint after ' <<<"$out" || { echo "the window was never painted"; exit 1; }
