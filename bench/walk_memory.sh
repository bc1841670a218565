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
build=${1:-build}
daemon=$build/bin/zandrel-syncd
budget_kib=$((64 * 1024))

if [ -z "${ZANDREL_IN_PRIVATE_NET:-}" ]; then
  [ -x "$daemon" ] || { echo "walk_memory: build $daemon first" >&2; exit 2; }
  export ZANDREL_IN_PRIVATE_NET=1
  exec unshare -rn sh -c 'ip link set lo up; ip route add 224.0.0.0/4 dev lo; exec "$0" "$@"' "$0" "$@"
fi

home=$(mktemp -d)
out=$home/daemon.out
pid=
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$home"
}
trap cleanup EXIT

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

HOME=$home "$daemon" --no-discovery >"$out" 2>&1 &
pid=$!
port=
for _ in $(seq 100); do
  port=$(sed -n 's/.*serving on port \([0-9]*\).*/\1/p' "$out")
  [ -n "$port" ] && break
  kill -0 "$pid" 2>/dev/null || { cat "$out" >&2; exit 1; }
  sleep 0.1
done
[ -n "$port" ] || { echo "walk_memory: the server did not start" >&2; exit 1; }

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

hwm=$(awk '/^VmHWM:/ {print $2}' "/proc/$pid/status")
echo "zandrel-syncd peak resident memory (VmHWM): $((hwm / 1024)) MiB ($hwm KiB); budget 64 MiB"
[ "$hwm" -lt "$budget_kib" ]
