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
python3 - "$port" "$tree" <<'EOF'
import hashlib, socket, struct, sys
port, path = int(sys.argv[1]), sys.argv[2]
salt = "0E991F413708B1AE61C724F430F5965779D826E8E537CED914D3279314E25930518FFE"
hashword = hashlib.md5((salt + "Sesamely").encode()).hexdigest().upper()

def string(s):
    b = s.encode()
    return struct.pack("<q", len(b)) + b

s = socket.create_connection(("127.0.0.1", port))
payload = string(hashword) + string(path) + b"\x01"
s.sendall(bytes([24]) + struct.pack("<q", len(payload)) + payload)
stream = s.makefile("rb")

def exact(n):
    b = stream.read(n)
    if len(b) != n:
        sys.exit("walk_memory: the server closed the connection")
    return b

header = exact(18)
assert header[0] == 24 and header[1] == 0, header
records = 0
while True:
    length = struct.unpack("<q", exact(8))[0]
    exact(length)
    if length == 54:
        break
    records += 1
print(f"walked {records} records")
EOF

report_peak
