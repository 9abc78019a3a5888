#!/usr/bin/env python3
"""Writes the seed corpus of fuzz_statsdb: drives made by qm-deck, packed as the fuzz target's
even mode reads them, and plaintext records with a full ring for its odd mode.
Usage: make_statsdb_seeds.py PATH-TO-qm-deck OUTPUT-FOLDER"""
import os, random, struct, subprocess, sys, tempfile

deck, out = sys.argv[1], sys.argv[2]
os.makedirs(out, exist_ok=True)

def read(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except FileNotFoundError:
        return b""

for state in ["--full-ring", "--newer-bak", "--torn-db", "--only-bak", "--foreign-key"]:
    with tempfile.TemporaryDirectory() as d:
        subprocess.run([deck, "make", d, "--force", "--docs", "0", state], check=True, stdout=subprocess.DEVNULL)
        key, db, bak = read(d + "/.qm/drive.key"), read(d + "/stats.db"), read(d + "/stats.bak")
        with open(os.path.join(out, "deck" + state[1:] + ".bin"), "wb") as f:
            f.write(b"\0" + key.ljust(120, b"\0") + struct.pack("<H", len(db)) + db + bak)

def record(rng, ring_next, ring_used, days):
    head = struct.pack("<9I", 12, 3600, 900, 4321, 25000, 300, 120, 48, 3) + bytes(range(32))
    tail = struct.pack("<7I", min(days), max(days), 3, 9, len(days), ring_next, ring_used)
    ring = b"".join(struct.pack("<3I", d, rng.randrange(1, 5000), rng.randrange(1, 9000)) for d in days)
    return head + tail + ring.ljust(1024 * 12, b"\0")

rng = random.Random(7)
full = [16000 + 2 * i for i in range(1024)]
full[500], full[501] = full[501], full[500]  # a late entry
top = [0xFFFFFFFF - 3 * i for i in range(1024)]  # days near the end of the calendar
for name, body in [("full-ring", record(rng, 7, 1024, full)), ("top-days", record(rng, 0, 1024, top)),
                   ("bad-indices", record(rng, 5000, 70000, full[:40] + full[:40]))]:
    with open(os.path.join(out, "record-" + name + ".bin"), "wb") as f:
        f.write(b"\1" + body)
