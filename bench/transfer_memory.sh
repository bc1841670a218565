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
PYTHONPATH=bench python3 - "$port" "$file" <<'EOF'
import hashlib, sys
from phone import Phone, long, string
port, path = int(sys.argv[1]), sys.argv[2]
phone = Phone(port)
phone.send(26, long(1) + string(path) + long(0) + b"\x01")
phone.empty_header(26)
phone.exact(phone.number())  # the file's record
md5 = hashlib.md5()
left = 2 << 30
while left:
    chunk = phone.exact(min(left, 1 << 20))
    md5.update(chunk)
    left -= len(chunk)
digest = phone.exact(phone.number()).decode()
end = phone.exact(79)
assert digest == md5.hexdigest(), (digest, md5.hexdigest())
assert end[:8] == long(71), end[:8]
print(f"downloaded 2 GiB, digest {digest} matches")
EOF

report_peak
