#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds the README's example program against it
# twice, through the CMake package and through pkg-config; each runs a keeper with every switch off
# on a blank image and one with the disk-id step on an MBR disk.
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
# The installed tool is linked against the installed library, and finds it without help.
loaded=$(realpath -ms "$(ldd "$prefix/bin/postclone" | awk '/libpostclone/ { print $3 }')")
[ "$loaded" = "$libdir/libpostclone.so.${version%.*}" ] || { echo "postclone loads libpostclone from '$loaded'"; exit 1; }
[ "$("$prefix/bin/postclone" --version)" = "postclone $version" ]
[ -f "$prefix/share/man/man1/postclone.1" ] || { echo "no man page installed"; exit 1; }
[ -f "$prefix/share/bash-completion/completions/postclone" ] || { echo "no bash completion installed"; exit 1; }
program=$source/tests/package/consumer/clone-finish.cpp
# The README shows the program whole; it must be this one.
diff <(awk '/^```cpp$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$source/README.md") "$program" ||
  { echo "the README's example program differs from $program"; exit 1; }

truncate -s 4M "$work/blank.img"
truncate -s 4M "$work/mbr.img"
printf 'label: dos\n,\n' | sfdisk -q "$work/mbr.img"
ptuuid() { blkid -p -o value -s PTUUID "$1"; }

# Every switch off on a blank image: nothing runs, nothing fails. Slot 0 on an MBR disk: a new
# signature, which blkid sees, printed as the change.
check()
{
  local consumer=$1 before after
  LD_LIBRARY_PATH=$libdir "$consumer" "$work/blank.img" >"$work/out"
  if grep '^slot ' "$work/out" | grep -qv 'result [01]$'; then
    echo "$consumer ran a step with every switch off:"; cat "$work/out"; exit 1
  fi
  before=$(ptuuid "$work/mbr.img")
  LD_LIBRARY_PATH=$libdir "$consumer" "$work/mbr.img" 0 >"$work/out"
  after=$(ptuuid "$work/mbr.img")
  grep -qx 'slot 0: result 3' "$work/out" && grep -qx "disk id $before -> $after" "$work/out" && [ "$before" != "$after" ] ||
    { echo "$consumer did not change the disk id $before (now $after):"; cat "$work/out"; exit 1; }
}

cmake -S "$source/tests/package/consumer" -B "$work/by-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/by-cmake" >/dev/null
check "$work/by-cmake/clone-finish"

export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion postclone)" = "$version" ]
# shellcheck disable=SC2046 # the flags are words
g++ $flags -o "$work/by-pkg-config" "$program" $(pkg-config --cflags --libs postclone)
check "$work/by-pkg-config"
