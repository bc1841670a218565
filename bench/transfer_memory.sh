#!/usr/bin/env bash
# Peak resident memory of zandrel-syncd while a phone downloads a 2 GiB file
# with the digest on: the transfer must hold one chunk at a time and the
# digest must be computed in blocks, so the peak stays far below the file.
#
#   bench/transfer_memory.sh [BUILD_DIR]      (default: build)
#
# Runs in a private network namespace with a temporary $HOME (the file is
# sparse, so it takes no disk). Prints the server's VmHWM and fails when it
# reaches the 64 MiB budget.
set -euo pipefail
cd "$(dirname "$0")/.."
source bench/daemon.sh "$@"

file=$home/big.bin
truncate -s 2G "$file"

start_daemon

# A minimal phone: one download command (count 1, path, offset 0, digest on),
# then the empty header, the record, the data, the digest and the end marker.
python3 - "$port" "$file" <<'EOF'
import hashlib, socket, struct, sys
port, path = int(sys.argv[1]), sys.argv[2]
salt = "0E991F413708B1AE61C724F430F5965779D826E8E537CED914D3279314E25930518FFE"
hashword = hashlib.md5((salt + "Sesamely").encode()).hexdigest().upper()

def string(s):
    b = s.encode()
    return struct.pack("<q", len(b)) + b

s = socket.create_connection(("127.0.0.1", port))
payload = string(hashword) + struct.pack("<q", 1) + string(path) + struct.pack("<q", 0) + b"\x01"
s.sendall(bytes([26]) + struct.pack("<q", len(payload)) + payload)

def exact(n):
    buf = bytearray()
    while len(buf) < n:
        chunk = s.recv(min(n - len(buf), 1 << 20))
        if not chunk:
            sys.exit("transfer_memory: the server closed the connection")
        buf += chunk
    return bytes(buf)

def number():
    return struct.unpack("<q", exact(8))[0]

header = exact(18)
assert header[0] == 26 and header[1] == 0, header
record = exact(number())
md5 = hashlib.md5()
left = 2 << 30
while left:
    chunk = s.recv(min(left, 1 << 20))
    if not chunk:
        sys.exit("transfer_memory: the server closed the connection mid-file")
    md5.update(chunk)
    left -= len(chunk)
digest = exact(number()).decode()
end = exact(79)
assert digest == md5.hexdigest(), (digest, md5.hexdigest())
assert end[:8] == struct.pack("<q", 71), end[:8]
print(f"downloaded 2 GiB, digest {digest} matches")
EOF

report_peak
