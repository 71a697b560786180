#!/usr/bin/env bash
# Makes the Debian packages of a build, looks into them and builds programs against what they unpack to.
# Usage: debian.sh <build directory> <library directory, relative> <directory to work in> <compiler>
set -euo pipefail

here=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
build=$1
libraries=$2
work=$3
rm -rf "$work"
mkdir -p "$work"
cpack --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" || {
    cat "$work/cpack.log" >&2
    exit 1
}

runtime=("$work"/libvelmor0_*.deb)
development=("$work"/libvelmor-dev_*.deb)
program=("$work"/velmor_*.deb)
packages=("$work"/*.deb)
if ((${#packages[@]} != 3)) || ! [[ -f ${runtime[0]} && -f ${development[0]} && -f ${program[0]} ]]; then
    ls "$work" >&2
    exit 1
fi

# wants <package> <field> <regular expression>
wants() {
    local value
    value=$(dpkg-deb --field "$1" "$2")
    if ! [[ $value =~ $3 ]]; then
        echo "$(basename "$1"): $2 is \"$value\", should match \"$3\"" >&2
        exit 1
    fi
}
version=$(dpkg-deb --field "${runtime[0]}" Version)
wants "${runtime[0]}" Depends 'libzookeeper-mt2'
wants "${runtime[0]}" Depends 'libstdc\+\+6 \(>='
wants "${runtime[0]}" Depends 'libc6 \(>='
wants "${runtime[0]}" Section '^libs$'
wants "${development[0]}" Depends "libvelmor0 \(= $version\)"
wants "${development[0]}" Depends 'libzookeeper-mt-dev'
wants "${development[0]}" Depends 'libspdlog-dev'
wants "${development[0]}" Section '^libdevel$'
for library in libzookeeper-mt2 libspdlog libsystemd0 libprometheus-cpp-core libcpp-httplib; do
    wants "${program[0]}" Depends "(^|, )$library"
done
wants "${program[0]}" Section '^admin$'
# It has the library in itself, and nothing that only the build needs.
if [[ $(dpkg-deb --field "${program[0]}" Depends) =~ libvelmor|boost ]]; then
    echo "velmor depends on $(dpkg-deb --field "${program[0]}" Depends)" >&2
    exit 1
fi

for package in "${packages[@]}"; do
    dpkg-deb --extract "$package" "$work/$(basename "${package%%_*}")"
done
there() {
    if ! [[ -e $work/$1 || -L $work/$1 ]]; then
        echo "missing: $1" >&2
        exit 1
    fi
}
there "libvelmor0/usr/$libraries/libvelmor.so.0"
there libvelmor0/usr/share/doc/libvelmor0/copyright
there "libvelmor-dev/usr/$libraries/libvelmor.so"
there "libvelmor-dev/usr/$libraries/libvelmor.a"
there "libvelmor-dev/usr/$libraries/libvelmor_logging.a"
there "libvelmor-dev/usr/$libraries/pkgconfig/velmor.pc"
there "libvelmor-dev/usr/$libraries/cmake/velmor/velmorConfig.cmake"
there libvelmor-dev/usr/share/doc/libvelmor-dev/copyright
there libvelmor-dev/usr/include/kx/velmor/candidate.h
there velmor/usr/bin/velmor
there velmor/usr/share/man/man1/velmor.1.gz
there velmor/usr/share/bash-completion/completions/velmor
there velmor/usr/share/zsh/vendor-completions/_velmor
there velmor/usr/share/doc/velmor/examples/velmor-example.service
there velmor/usr/share/doc/velmor/copyright
there velmor/usr/share/doc/velmor/changelog.Debian.gz
"$work/velmor/usr/bin/velmor" --version
if find "$work/libvelmor0" -name '*.h' -o -name '*.a' -o -name '*.so' | grep .; then
    echo "what only compilers need is in the package that programs need" >&2
    exit 1
fi
if find "$work/libvelmor-dev" -path '*/source/*' -o -name '*_test.*' | grep .; then
    echo "what is not public is in a package" >&2
    exit 1
fi

if command -v lintian >/dev/null; then
    # Nobody answers for the packages under an address.
    lintian --no-cfg --allow-root --suppress-tags bogus-mail-host,bogus-mail-host-in-debian-changelog \
        --fail-on error "${packages[@]}"
fi

mkdir "$work/both"
for package in "${packages[@]}"; do
    dpkg-deb --extract "$package" "$work/both"
done
"$here/program.sh" "$work/both/usr" "$work/both/usr/$libraries" "$work/program" "$4"
