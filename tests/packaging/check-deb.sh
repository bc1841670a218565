#!/usr/bin/env bash
# Builds the .deb from a finished build, unpacks it into a scratch root and
# checks what a person installing it gets: the three programs, the user
# unit (accepted by systemd-analyze where it exists), the desktop entry, the
# icon, the man pages and the dependencies; then installs below another
# prefix and checks the unit there.
# Usage: check-deb.sh <build-dir>
set -uo pipefail

build=$(cd "$1" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

if ! cpack -G DEB --config "$build/CPackConfig.cmake" -B "$scratch/out" >"$scratch/cpack.log" 2>&1; then
  cat "$scratch/cpack.log" >&2
  echo "FAIL: cpack could not build the package" >&2
  exit 1
fi
deb=$(ls "$scratch"/out/*.deb 2>/dev/null | head -1)
[ -n "$deb" ] || { echo "FAIL: cpack wrote no .deb" >&2; exit 1; }
root="$scratch/root"
dpkg-deb -x "$deb" "$root" || { echo "FAIL: dpkg-deb cannot unpack $deb" >&2; exit 1; }

unit=usr/lib/systemd/user/zandrel-syncd.service
for f in usr/bin/ZandrelSync usr/bin/zandrel-syncd usr/bin/zandrel "$unit" \
         usr/share/applications/ZandrelSync.desktop usr/share/icons/hicolor/scalable/apps/zandrelsync.svg \
         usr/share/man/man1/zandrel-syncd.1.gz usr/share/man/man1/zandrel.1.gz; do
  [ -s "$root/$f" ] || fail "$f is missing from the package"
done
for f in usr/bin/ZandrelSync usr/bin/zandrel-syncd usr/bin/zandrel; do
  [ -x "$root/$f" ] || fail "$f is not executable"
done

grep -qx 'ExecStart=/usr/bin/zandrel-syncd' "$root/$unit" || fail "the unit does not start /usr/bin/zandrel-syncd"
grep -qx 'NoNewPrivileges=yes' "$root/$unit" || fail "the unit does not forbid new privileges"
# The man pages are the programs' own help.
zcat "$root/usr/share/man/man1/zandrel-syncd.1.gz" | grep -q -- 'no\\-discovery' || fail "zandrel-syncd.1 lacks the options"
zcat "$root/usr/share/man/man1/zandrel.1.gz" | grep -q 'password' || fail "zandrel.1 lacks the options"
"$root/usr/bin/zandrel-syncd" --version | grep -q '^zandrel-syncd ' || fail "the packaged zandrel-syncd does not run"

depends=$(dpkg-deb -f "$deb" Depends)
for lib in libqt6widgets6 libqt6dbus6 libqt6svg6 libssl3 libplist3 libfmt9 libutf8proc2 qt6-qpa-plugins; do
  [[ "$depends" == *"$lib"* ]] || fail "Depends lacks $lib: $depends"
done

if command -v systemd-analyze >/dev/null; then
  # Verified with the program and the man page it names taken from the
  # unpacked package (man is asked for the page when it is there).
  mkdir -p "$scratch/unit"
  sed "s|^ExecStart=/usr/bin/|ExecStart=$root/usr/bin/|" "$root/$unit" >"$scratch/unit/zandrel-syncd.service"
  command -v man >/dev/null || sed -i '/^Documentation=/d' "$scratch/unit/zandrel-syncd.service"
  if ! out=$(MANPATH="$root/usr/share/man" systemd-analyze verify "$scratch/unit/zandrel-syncd.service" 2>&1); then
    fail "systemd-analyze rejects the unit: $out"
  elif [ -n "$out" ]; then
    fail "systemd-analyze warns about the unit: $out"
  fi
else
  echo "systemd-analyze is not installed: the unit is not verified"
fi

# Below another prefix the unit goes where the user manager looks for it
# there, and names the program where it went.
local="$scratch/local"
if cmake --install "$build" --prefix "$local" >/dev/null 2>&1; then
  grep -qx "ExecStart=$local/bin/zandrel-syncd" "$local/share/systemd/user/zandrel-syncd.service" \
    || fail "cmake --install --prefix does not put a unit for $local/bin/zandrel-syncd in share/systemd/user"
else
  fail "cmake --install --prefix failed"
fi

echo "package: $(basename "$deb"), $(dpkg-deb -c "$deb" | grep -vc '/$') files"
[ "$failures" -eq 0 ]
