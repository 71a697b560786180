#!/usr/bin/env bash
# Builds programs against an installed tree in every way that there is, with nothing of this one, and runs them.
# Usage: program.sh <prefix> <library directory> <directory to build in> <compiler>
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
prefix=$1
libraries=$2
build=$3
compiler=$4
rm -rf "$build"
mkdir -p "$build"
# Programs lie where nothing of the source tree is beside them.
cp -r "$here/program" "$build/source"
cd "$build"

echo "== find_package"
cmake -S source -B cmake -G Ninja -D CMAKE_PREFIX_PATH="$prefix" -D CMAKE_CXX_COMPILER="$compiler" \
    -D CMAKE_CXX_FLAGS="-Wall -Wextra -Werror" --log-level=WARNING
found=$(sed -n 's/^velmor_DIR:PATH=//p' cmake/CMakeCache.txt)
if [[ $found != "$libraries/cmake/velmor" ]]; then
    echo "found another installation: $found" >&2
    exit 1
fi
cmake --build cmake
programs=(cmake/program_*)

echo "== pkg-config"
export PKG_CONFIG_PATH=$libraries/pkgconfig
read -ra own <<<"$(pkg-config --cflags --libs velmor)"
read -ra default <<<"$(pkg-config --cflags --libs velmor velmor-logging-default)"
"$compiler" -std=c++17 -Wl,-rpath,"$libraries" source/program.cpp source/own_logging.cpp "${own[@]}" \
    -o program_pkg_config_own_logging
"$compiler" -std=c++17 -Wl,-rpath,"$libraries" source/program.cpp "${default[@]}" -o program_pkg_config_shared
# A linker prefers shared libraries of one name; whoever wants the archive names its file.
read -ra archive <<<"$(pkg-config --static --cflags --libs velmor | sed 's/-lvelmor /-l:libvelmor.a /')"
"$compiler" -std=c++17 source/program.cpp source/own_logging.cpp "${archive[@]}" -o program_pkg_config_static
programs+=(program_pkg_config_*)

export LD_LIBRARY_PATH=$libraries
for program in "${programs[@]}"; do
    [[ -x $program && ! -d $program ]] || continue
    echo "== $program"
    "./$program"
    loads=no
    if [[ $(objdump -p "$program") =~ NEEDED\ *libvelmor\.so\.0 ]]; then
        loads=yes
    fi
    case $program in
        *static | *program_logging) wanted=no ;;
        *) wanted=yes ;;
    esac
    if [[ $loads != "$wanted" ]]; then
        echo "$program loads the shared library: $loads, should be: $wanted" >&2
        exit 1
    fi
done
