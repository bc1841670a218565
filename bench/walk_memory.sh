#!/usr/bin/env bash
# Peak resident memory of zandrel-syncd while a phone lists a tree of 100,000
# files with digests on: records go out as they are built, so the peak must
# not grow with the tree.
#
#   bench/walk_memory.sh [BUILD_DIR]      (default: build)
#
# Runs in a private network namespace with a temporary $HOME. Prints the
# server's VmHWM and fails when it reaches the 64 MiB budget.
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/daemon.sh "$@"

tree=$home/tree
python3 - "$tree" <<'EOF'
import os, sys
root = sys.argv[1]
for d in range(100):
    folder = os.path.join(root, f"d{d:03}")
    os.makedirs(folder)
    for f in range(1000):
        with open(os.path.join(folder, f"f{f:04}.txt"), "w") as out:
            out.write(f"{d}/{f}\n")
EOF

start_daemon

# A minimal phone: one walk command with digests, then records until the
# 62-byte end marker (the only record whose body is 54 bytes).
PYTHONPATH=bench python3 - "$port" "$tree" <<'EOF'
import sys
from phone import Phone, string
port, path = int(sys.argv[1]), sys.argv[2]
phone = Phone(port)
phone.send(24, string(path) + b"\x01")
phone.empty_header(24)
records = 0
while True:
    length = phone.number()
    phone.exact(length)
    if length == 54:
        break
    records += 1
print(f"walked {records} records")
EOF

report_peak
