# Shared by the memory benchmarks: re-runs the calling script inside a private
# network namespace, makes a temporary $HOME, starts zandrel-syncd there and
# reports its peak resident memory. Source it with the build folder as $1.
build=${1:-build}
daemon=$build/bin/zandrel-syncd
budget_kib=$((64 * 1024))

if [ -z "${ZANDREL_IN_PRIVATE_NET:-}" ]; then
  [ -x "$daemon" ] || { echo "$(basename "$0"): build $daemon first" >&2; exit 2; }
  export ZANDREL_IN_PRIVATE_NET=1
  exec unshare -rn sh -c 'ip link set lo up; ip route add 224.0.0.0/4 dev lo; exec bash "$0" "$@"' "$0" "$@"
fi

home=$(mktemp -d)
pid=
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$home"
}
trap cleanup EXIT

# Starts the daemon in $home and sets $port once it serves.
start_daemon() {
  local out=$home/daemon.out
  HOME=$home "$daemon" --no-discovery >"$out" 2>&1 &
  pid=$!
  port=
  for _ in $(seq 100); do
    port=$(sed -n 's/.*serving on port \([0-9]*\).*/\1/p' "$out")
    [ -n "$port" ] && return 0
    kill -0 "$pid" 2>/dev/null || { cat "$out" >&2; exit 1; }
    sleep 0.1
  done
  echo "$(basename "$0"): the server did not start" >&2
  exit 1
}

# Prints the daemon's peak resident memory; fails at the budget.
report_peak() {
  local hwm
  hwm=$(awk '/^VmHWM:/ {print $2}' "/proc/$pid/status")
  echo "zandrel-syncd peak resident memory (VmHWM): $((hwm / 1024)) MiB ($hwm KiB); budget 64 MiB"
  [ "$hwm" -lt "$budget_kib" ]
}
