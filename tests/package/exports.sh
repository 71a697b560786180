#!/usr/bin/env bash
# Compares what the shared library shows with packaging/exports.txt, and what it asks of the process that loads it.
# Usage: exports.sh <libvelmor.so> <exports.txt> [--write]
set -euo pipefail

library=$1
listed=$2
# Bytes decide the order, whatever the language of the machine.
export LC_ALL=C

# Constructors and destructors come twice or thrice, under one name.
actual=$(nm --dynamic --defined-only --demangle "$library" |
    sed -E 's/^[0-9a-f]* . //; s/@@?VELMOR_0$//; /^VELMOR_0$/d' | sort -u)
if [[ ${3-} == --write ]]; then
    printf '%s\n' "$actual" >"$listed"
    exit 0
fi
if ! diff "$listed" <(printf '%s\n' "$actual"); then
    echo "The shared library shows something else (>) than $listed says (<)." >&2
    echo "Is that meant? Then: tests/package/exports.sh $library $listed --write" >&2
    exit 1
fi

asked=$(nm --dynamic --undefined-only "$library" | sed -E 's/^ *[A-Za-z] //' | grep '^_ZN\?K\?2kx' | sort | c++filt |
    sed -E 's/\(.*//')
wanted=$'kx::logging::ForceLockHandlers\nkx::logging::LogMessage\nkx::logging::g_minLogLevel'
if [[ $(sort <<<"$asked") != "$wanted" ]]; then
    printf 'The shared library asks the process for other functions than the three entry points of the logging:\n%s\n' \
        "$asked" >&2
    exit 1
fi
echo "$(wc -l <<<"$actual") symbols are shown, as listed; three are asked for"
