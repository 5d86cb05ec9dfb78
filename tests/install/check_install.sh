#!/usr/bin/env bash
# Installs a plain build into a temporary prefix, then builds the C consumer
# outside the build tree through pkg-config and through find_package, and
# runs both; the export list is checked on the installed library too.
# Usage: check_install.sh SOURCE_DIR
set -u
src=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
pass=0 fail=0
step() {
  local what=$1
  shift
  if "$@" >"$work/log" 2>&1; then pass=$((pass + 1)); else fail=$((fail + 1)); echo "FAILED: $what"; tail -20 "$work/log"; fi
}
# A build of its own, without sanitizers, as a user would install it.
step configure cmake -S "$src" -B "$work/build" -DCMAKE_BUILD_TYPE=Release -DKELA_BUILD_TESTS=OFF \
  -DKELA_BUILD_EXAMPLES=OFF -DCMAKE_INSTALL_PREFIX="$work/prefix"
step build cmake --build "$work/build" -j2
step install cmake --install "$work/build"
prefix=$work/prefix
export LD_LIBRARY_PATH=$prefix/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
step "pkg-config consumer" sh -c "cc -std=c11 -pedantic -Wall -Werror -o '$work/consumer-pc' '$src/examples/consumer/consumer.c' \
  \$(PKG_CONFIG_PATH='$prefix/lib/pkgconfig' pkg-config --cflags --libs kela-shared kela-platform) && '$work/consumer-pc'"
step "find_package consumer" sh -c "cmake -S '$src/examples/consumer' -B '$work/consumer' -DCMAKE_PREFIX_PATH='$prefix' && \
  cmake --build '$work/consumer' && '$work/consumer/consumer'"
step "installed exports" "$src/tests/exports/check_exports.sh" "$prefix/lib/libkela_shared.so" "$src"
step "installed kela-policy" "$prefix/bin/kela-policy" check "$src/examples/policy.kp"
echo "install: $pass passed, $fail failed"
[ $fail -eq 0 ]
