#!/usr/bin/env bash
# Builds the service of docs/guide.md against an installed tree, as the guide says, and runs it through what its test
# does to it.
# Usage: service.sh <build directory> <library directory, relative> <directory to work in> <compiler> <guide.md>
#     <test of the guide>
set -euo pipefail

work=$3
rm -rf "$work"
mkdir -p "$work/source"
cmake --install "$1" --prefix "$work/prefix" >/dev/null

# block <language> <part of it>: the first block of the guide in that language that has this part.
block() {
    awk -v begin="\`\`\`$1" -v wanted="$2" '
        inside && $0 == "```" { if (index(text, wanted)) { printf "%s", text; exit } inside = 0 }
        inside { text = text $0 "\n" }
        $0 == begin { inside = 1; text = "" }' "$guide"
}
guide=$5
block cpp 'int main(' >"$work/source/reports.cpp"
block cmake 'find_package(velmor' >"$work/source/CMakeLists.txt"
cd "$work"
cmake -S source -B build -G Ninja -D CMAKE_PREFIX_PATH="$work/prefix" -D CMAKE_CXX_COMPILER="$4" --log-level=WARNING
cmake --build build
LD_LIBRARY_PATH=$work/prefix/$2 VELMOR_GUIDE_PROGRAM=$work/build/reports "$6" --gtest_filter='Guide.*Restart*'
