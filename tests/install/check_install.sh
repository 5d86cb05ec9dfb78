#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build with cmake --install --prefix DIR (a prefix other than the
# configured one) and into a DESTDIR stage, then builds and runs the C
# consumer against each through pkg-config and find_package.
# Usage: check_install.sh SOURCE_DIR VERSION [PACKAGE_BUILD_DIR]
# PACKAGE_BUILD_DIR, when it holds a configured build (the package test's),
# is installed instead of making a build of our own.
set -u
src=$1 version=$2 build=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$src/tests/install/common.sh"
if [ -z "$build" ] || [ ! -f "$build/CMakeCache.txt" ]; then
  # A build of its own, without sanitizers, configured for /usr/local as the
  # README's install section does.
  build=$work/build
  step configure cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKELA_BUILD_TESTS=OFF \
    -DKELA_BUILD_EXAMPLES=OFF -DCMAKE_INSTALL_PREFIX=/usr/local
  step build cmake --build "$build" -j2
fi
step "install --prefix" cmake --install "$build" --prefix "$work/prefix"
consumers prefix "$work/prefix" "$version"
configured=$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
step "install DESTDIR" env DESTDIR="$work/stage" cmake --install "$build"
consumers destdir "$configured" "$version" "$work/stage"
echo "install: $pass passed, $fail failed"
[ $fail -eq 0 ]
