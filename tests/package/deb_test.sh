#!/usr/bin/env bash
# The Debian packages `make deb` built: lintian finds no error, the dependencies name the libraries
# the code links, and unpacked into an empty root (dpkg -x) the tool runs against the unpacked
# library, its man page renders and its completion works.
# Arguments: the folder `make deb` wrote, the project's version, the build's postclone, this folder.
# Exits 77 (skipped) when no package was built from this tree: run `make deb` (make test does).
set -euo pipefail
debs=$1 version=$2 built=$3 here=$4
arch=$(dpkg --print-architecture)
tool=$debs/postclone_${version}_$arch.deb
library=$debs/libpostclone${version%.*}_${version}_$arch.deb
dev=$debs/libpostclone-dev_${version}_$arch.deb
if [ ! -f "$tool" ]; then
  echo "no postclone_${version}_$arch.deb in $debs: run make deb"
  exit 77
fi
# make test builds the packages from the tree it tests; packages of another tree say nothing of it.
if [ "$(cat "$debs/tree-id" 2>/dev/null)" != "$("$here/../../scripts/tree-id")" ]; then
  echo "the packages in $debs were built from another state of the tree: run make deb"
  exit 77
fi

if ! findings=$(lintian --fail-on error "$tool" "$library" "$dev" 2>&1); then
  echo "lintian reports errors:"
  echo "$findings"
  exit 1
fi

field() { dpkg-deb -f "$1" "$2"; }
for deb in "$tool" "$library" "$dev"; do
  [ "$(field "$deb" Version)" = "$version" ] || { echo "$deb is version $(field "$deb" Version)"; exit 1; }
done
depends=$(field "$library" Depends)
for runtime in libext2fs2 libntfs-3g libarchive13 liblzma5 liblz4-1; do
  grep -q "$runtime" <<<"$depends" || { echo "libpostclone does not depend on $runtime: $depends"; exit 1; }
done
grep -q "libpostclone${version%.*} " <<<"$(field "$tool" Depends)" || { echo "postclone does not depend on the library"; exit 1; }

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for deb in "$tool" "$library" "$dev"; do dpkg -x "$deb" "$root"; done
libdir=$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
postclone=$root/usr/bin/postclone
export LD_LIBRARY_PATH=$libdir
resolved=$(ldd "$postclone" | awk '/libpostclone/ { print $3 }')
[ "$resolved" = "$libdir/libpostclone.so.${version%.*}" ] || { echo "postclone loads libpostclone from '$resolved'"; exit 1; }
[ "$("$postclone" --version)" = "postclone $version" ]
diff <("$built" --list-steps) <("$postclone" --list-steps)

"$here/man_page_test.sh" "$postclone" "$root/usr/share/man/man1/postclone.1.gz"
"$here/completion_test.sh" "$postclone" "$root/usr/share/bash-completion/completions/postclone"
