#!/usr/bin/env bash
# Resident memory of zandrel-syncd around one 100 MB password string: a
# string of N bytes may cost about N plus a fixed amount at its peak, and once
# the session is idle again the memory must return to near its baseline.
#
#   bench/string_memory.sh [BUILD_DIR]      (default: build)
#
# Runs in a private network namespace with a temporary $HOME, logging off.
# Prints the baseline, the peak (VmHWM) and the resident memory once the
# session is idle, and fails when the peak passes 1.5 x the string or the resident
# memory afterwards stays more than 8 MiB above the baseline.
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/daemon.sh "$@"

start_daemon
rss() { awk "/^$1:/ {print \$2}" "/proc/$pid/status"; }

# One connection first, so that the session machinery's own memory counts
# in the baseline.
PYTHONPATH=bench python3 - "$port" <<'EOF2'
import sys
from phone import Phone, long
phone = Phone(int(sys.argv[1]))
phone.send(17, b"")
phone.exact(19)
EOF2
sleep 0.5
base=$(rss VmRSS)

# Start sync carrying a wrong 100 MB password, twice over (a second string
# must not find the first one's memory still held): each time a code-16
# packet, then the usual 19-byte answer. The last session stays open, idle,
# while the memory is read.
after=$(PYTHONPATH=bench python3 - "$port" "$pid" <<'EOF2'
import sys, time
from phone import Phone, long
port, pid = int(sys.argv[1]), sys.argv[2]
size = 100 * 1000 * 1000
block = b"x" * (1 << 20)
for _ in range(2):
    phone = Phone(port)
    phone.stream.write(bytes([17]) + long(8 + size) + long(size))
    left = size
    while left:
        n = min(left, len(block))
        phone.stream.write(block[:n])
        left -= n
    phone.stream.flush()
    header = phone.exact(18)
    assert header[0] == 16, header
    phone.exact(19)
time.sleep(0.5)
with open(f"/proc/{pid}/status") as status:
    print([l.split()[1] for l in status if l.startswith("VmRSS:")][0])
EOF2
)
peak=$(rss VmHWM)
echo "100 MB password string: baseline $((base / 1024)) MiB, peak $((peak / 1024)) MiB," \
  "after $((after / 1024)) MiB (peak - baseline = $(((peak - base) / 1024)) MiB; after - baseline = $(((after - base) / 1024)) MiB)"
[ $((peak - base)) -lt $((100 * 1000 * 1000 * 3 / 2 / 1024)) ] && [ $((after - base)) -lt $((8 * 1024)) ]
