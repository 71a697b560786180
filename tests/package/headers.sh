#!/usr/bin/env bash
# Compiles each public header alone, twice over.
# Usage: headers.sh <include directory> <compiler>...
set -euo pipefail

include=$1
shift
cd "$include"
mapfile -t headers < <(find kx -name '*.h' | sort)
((${#headers[@]} > 10))
for compiler in "$@"; do
    for header in "${headers[@]}"; do
        printf '#include <%s>\n#include <%s>\n' "$header" "$header" |
            "$compiler" -std=c++17 -Wall -Wextra -Wshadow -Wconversion -Werror -fsyntax-only -I . -x c++ -
    done
    echo "$compiler: ${#headers[@]} headers"
done
