#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds the consumer program against it twice,
# through the CMake package and through pkg-config; each runs a keeper on a blank image.
# Arguments: the build folder, the source folder, the project's version, and the compiler flags
# the consumer needs (the sanitizers, when the library was built with them).
set -euo pipefail
build=$1 source=$2 version=$3 flags=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libpostclone.so' | head -1)")
soname=$(readelf -d "$libdir/libpostclone.so" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libpostclone.so.${version%.*}" ] || { echo "SONAME is '$soname'"; exit 1; }
[ -f "$libdir/libpostclone.a" ] || { echo "no static library in $libdir"; exit 1; }
[ "$("$prefix/bin/postclone" --version)" = "postclone $version" ]
truncate -s 4M "$work/blank.img"

cmake -S "$source/tests/package/consumer" -B "$work/by-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/by-cmake" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/by-cmake/consumer" "$work/blank.img"

export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion postclone)" = "$version" ]
# shellcheck disable=SC2046 # the flags are words
g++ $flags -o "$work/by-pkg-config" "$source/tests/package/consumer/consumer.cpp" $(pkg-config --cflags --libs postclone)
LD_LIBRARY_PATH=$libdir "$work/by-pkg-config" "$work/blank.img"
