#!/bin/sh
# Writes a help2man include: the hand-written sections, then a SUBCOMMANDS
# section with each subcommand the program's --help lists under
# "Subcommands:" or "Commands:", and that subcommand's own --help as it
# prints it. The man pages follow the programs as subcommands come and go.
# Usage: subcommands.sh <program> <sections.h2m> <output>
set -eu
program=$1
sections=$2
out=$3
names=$("$program" --help | awk '
  /^(Sub)?[Cc]ommands:[[:space:]]*$/ { inside = 1; next }
  inside && /^[[:space:]]*$/ { inside = 0 }
  inside && /^  [a-z]/ { print $1 }')
cp "$sections" "$out"
[ -n "$names" ] || exit 0
{
  echo "[SUBCOMMANDS]"
  for name in $names; do
    echo ".SS $name"
    echo ".nf"
    # Backslashes are roff escapes, and a line opening with . or ' a request.
    "$program" "$name" --help | sed -e 's/\\/\\e/g' -e "s/^\([.']\)/\\\\\&\1/"
    echo ".fi"
  done
} >>"$out"
