#!/usr/bin/env bash
# Writes PNG screenshots of the settings window, the open tray menu, the
# about, activity and Phones windows into <build-dir>/screenshots, under a virtual X
# server, in private network and mount namespaces, with a throwaway home
# folder; then the settings window with a wrapped status line once more at
# 1.5x scale (settings-port-in-use-1.5x.png), where crowded layouts show first.
# Usage: tools/screenshots/screenshots.sh [build-dir]
set -euo pipefail

build=$(cd "${1:-build}" && pwd)
tool="$build/bin/shell_screenshots"
out="$build/screenshots"
[ -x "$tool" ] || { echo "screenshots: $tool is not built" >&2; exit 1; }
command -v xvfb-run >/dev/null || { echo "screenshots: xvfb-run is missing (package xvfb)" >&2; exit 1; }

mkdir -p "$out"
scaled=$(mktemp -d)
trap 'rm -rf "$scaled"' EXIT

# Two example addresses on lo stand in for a LAN, and the host is named, so
# the window shows what a person on a home network would see. The home is a
# throwaway tmpfs at a path that reads like a person's (the activity window
# shows it), large enough that the example's kept items fit their share.
render() { # <out-dir> <scale>
  unshare -rnum sh -c '
    mount -t tmpfs -o size=8g tmpfs /home && mkdir /home/ana && mkdir -m 0700 /home/ana/.run
    ip link set lo up
    ip route add 224.0.0.0/4 dev lo
    ip addr add 192.168.1.23/24 dev lo
    ip addr add 10.0.0.5/24 dev lo
    hostname studio-desktop
    exec env HOME=/home/ana XDG_CONFIG_HOME=/home/ana/.config XDG_STATE_HOME=/home/ana/.local/state \
      XDG_RUNTIME_DIR=/home/ana/.run QT_QPA_PLATFORM=xcb QT_SCALE_FACTOR="$3" \
      LANG=C.UTF-8 xvfb-run -a -s "-screen 0 1280x1024x24 -dpi 96" "$1" "$2"
  ' sh "$tool" "$1" "$2"
}
render "$out" 1
render "$scaled" 1.5
mv "$scaled/settings-port-in-use.png" "$out/settings-port-in-use-1.5x.png"
echo "wrote $out/settings-port-in-use-1.5x.png"
