#!/usr/bin/env bash
# Builds the .deb from a finished build, unpacks it into a scratch root and
# checks what a person installing it gets: the three programs, the user
# unit (accepted by systemd-analyze where it exists), the desktop entry, the
# icon, the man pages, the copyright and changelog, and the dependencies;
# lintian's verdict where lintian is installed; then installs below another
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
         usr/share/man/man1/zandrel-syncd.1.gz usr/share/man/man1/zandrel.1.gz usr/share/man/man1/ZandrelSync.1.gz \
         usr/share/doc/zandrelsync/copyright usr/share/doc/zandrelsync/changelog.gz; do
  [ -s "$root/$f" ] || fail "$f is missing from the package"
done
for f in usr/bin/ZandrelSync usr/bin/zandrel-syncd usr/bin/zandrel; do
  [ -x "$root/$f" ] || fail "$f is not executable"
done

grep -qx 'ExecStart=/usr/bin/zandrel-syncd' "$root/$unit" || fail "the unit does not start /usr/bin/zandrel-syncd"
for line in 'NoNewPrivileges=yes' 'ExecReload=kill -HUP $MAINPID' 'RestartPreventExitStatus=2 78' 'StartLimitBurst=5'; do
  grep -qxF "$line" "$root/$unit" || fail "the unit lacks $line"
done
# The man pages are the programs' own help, every subcommand's, and the
# sections a person looks for.
man1="$root/usr/share/man/man1"
zcat "$man1/zandrel-syncd.1.gz" | grep -q -- 'no\\-discovery' || fail "zandrel-syncd.1 lacks the options"
zcat "$man1/zandrel.1.gz" | grep -q 'password' || fail "zandrel.1 lacks the options"
for page in zandrel-syncd zandrel ZandrelSync; do
  for section in FILES 'EXIT STATUS' SECURITY; do
    zcat "$man1/$page.1.gz" | grep -q "^\.SH \"\?$section\"\?\$" || fail "$page.1 has no $section section"
  done
done
for sub in discover identify ls tree get put mkdir rm rmdir mv df; do
  zcat "$man1/zandrel.1.gz" | grep -qx "\.SS $sub" || fail "zandrel.1 does not describe $sub"
done
grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' \
  "$root/usr/share/doc/zandrelsync/copyright" || fail "the copyright file is not machine-readable"
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

# Warnings lintian may give, each with its reason in the README; none today.
allowed_warnings=""
if command -v lintian >/dev/null; then
  if ! out=$(lintian --fail-on error,warning ${allowed_warnings:+--suppress-tags "$allowed_warnings"} "$deb" 2>&1); then
    fail "lintian rejects the package: $out"
  fi
else
  echo "lintian is not installed (scripts/install-deps installs it): the package is not checked by it"
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
