#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages from a copy of the tree (cmake/build-debs.sh),
# unpacks them into a throw-away root with dpkg -x, and builds and runs the C
# consumer against that root through pkg-config and find_package.  A second
# root holds only the library's two packages: a client module (built as the
# plugin a router loads) must find and use them without the platform's.
# Exit 77 (skipped) when dpkg-buildpackage or debhelper is missing.
# Usage: check_package.sh SOURCE_DIR VERSION OUT_DIR
set -u
src=$1 version=$2 out=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$src/tests/install/common.sh"
rm -rf "$out"
"$src/cmake/build-debs.sh" "$src" "$out" >"$work/build.log" 2>&1
rc=$?
[ $rc -eq 77 ] && { cat "$work/build.log"; exit 77; }
[ $rc -eq 0 ] || { echo "FAILED: package build"; tail -40 "$work/build.log"; exit 1; }
deb() { echo "$out/$1_${version}_$(dpkg --print-architecture).deb"; }
for p in libkela-shared0 libkela-shared-dev libkela-platform0 libkela-platform-dev kela-policy; do
  step "unpack $p" dpkg -x "$(deb $p)" "$work/root"
done
consumers deb /usr "$version" "$work/root"

lib=$work/libonly
for p in libkela-shared0 libkela-shared-dev; do step "unpack $p alone" dpkg -x "$(deb $p)" "$lib"; done
mkdir -p "$work/module"
cat >"$work/module/module.c" <<'C'
#include <kela_shared/kela_shared.h>
static shared_kela_uint32_desc_td metric = {"metric", 2, 0, 0, NULL};
vogno module_init(void *reg_ctx, char *err, int32_t len) {
    return shared_kela_uint32_base_init(reg_ctx, err, len, &metric);
}
C
cat >"$work/module/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(module LANGUAGES C)
find_package(KelaShared REQUIRED)
add_library(module MODULE module.c)
target_compile_options(module PRIVATE -std=c11 -pedantic -Wall -Werror)
target_link_libraries(module PRIVATE KelaShared::kela_shared)
CMAKE
step "module with the library's packages only" sh -c "cmake -S '$work/module' -B '$work/module/build' \
  -DCMAKE_PREFIX_PATH='$lib/usr' && cmake --build '$work/module/build'"
echo "package: $pass passed, $fail failed"
[ $fail -eq 0 ]
