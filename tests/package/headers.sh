#!/usr/bin/env bash
# Compiles each public header alone, twice over. That of the candidate needs nobody's headers but this library's.
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
    if printf '#include <kx/velmor/candidate.h>\n' | "$compiler" -std=c++17 -M -I . -x c++ - | grep zookeeper/; then
        echo "candidate.h includes the client library's headers" >&2
        exit 1
    fi
    echo "$compiler: ${#headers[@]} headers"
done
