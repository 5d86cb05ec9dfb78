#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages (source and binary) from a copy of the source
# tree, so that nothing the build makes lands in the tree itself.
# Usage: build-debs.sh SOURCE_DIR OUT_DIR
# OUT_DIR receives the packages, the .changes and .buildinfo files; the copy
# and its build directory stay in OUT_DIR/kela-shared-VERSION.  KELA_JOBS
# sets the parallel jobs (2 by default).
set -euo pipefail
src=$(cd "$1" && pwd)
mkdir -p "$2"
out=$(cd "$2" && pwd)
for tool in dpkg-buildpackage dh dpkg-parsechangelog; do
  command -v $tool >/dev/null || { echo "build-debs: $tool is missing (apt-get install dpkg-dev debhelper)"; exit 77; }
done
version=$(dpkg-parsechangelog -l "$src/debian/changelog" -SVersion)
copy=$out/kela-shared-$version
rm -rf "$copy" "$out"/*.deb "$out"/*.ddeb "$out"/*.changes "$out"/*.buildinfo "$out"/*.dsc "$out"/*.tar.*
mkdir -p "$copy"
# A checkout copies what git tracks plus new files it does not ignore (build
# directories are ignored); anything else copies the tree less its build
# directories.
if [ "$(git -C "$src" rev-parse --show-toplevel 2>/dev/null)" = "$src" ]; then
  (cd "$src" && git ls-files -z --cached --others --exclude-standard |
    tar --null -T - --ignore-failed-read -cf - 2>/dev/null) | tar -xf - -C "$copy"
else
  tar -C "$src" --exclude=./.git --exclude=./build --exclude='./build-*' -cf - . | tar -xf - -C "$copy"
fi
cd "$copy"
dpkg-buildpackage --no-sign -j"${KELA_JOBS:-2}"
