#!/usr/bin/env bash
# Installs a build into a prefix of its own and builds programs against that.
# Usage: install.sh <build directory> <library directory, relative> <directory to work in> <compiler>
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
work=$3
rm -rf "$work"
cmake --install "$1" --prefix "$work/prefix" >/dev/null

# It must not matter where the tree was when it was installed.
mv "$work/prefix" "$work/moved"
if grep -rIl -e "$1" -e "$work/prefix" "$work/moved"; then
    echo "these files name places that only this machine has" >&2
    exit 1
fi

# The program runs where it is, by itself. A build may be without it.
if [[ -e $work/moved/bin/velmor && $("$work/moved/bin/velmor" --version) != "velmor "* ]]; then
    echo "the program says: $("$work/moved/bin/velmor" --version)" >&2
    exit 1
fi
"$here/program.sh" "$work/moved" "$work/moved/$2" "$work/program" "$4"
