# SPDX-License-Identifier: Apache-2.0
# Shared by the install and package tests (sourced): counted steps, and the
# C consumer (examples/consumer) built both ways against an installed tree.
# The sourcing script sets src (source tree) and work (scratch directory).
pass=0 fail=0
step() {
  local what=$1
  shift
  if "$@" >"$work/log" 2>&1; then
    pass=$((pass + 1))
  else
    fail=$((fail + 1))
    echo "FAILED: $what"
    tail -20 "$work/log"
  fi
}

# no_generic_headers FLAGS...: none of the -I/-isystem directories in FLAGS
# holds a platform declaration directly (they sit in include/kela_shared,
# reached only through kela_shared.h).
no_generic_headers() {
  local dir
  while [ $# -gt 0 ]; do
    case $1 in
      -isystem) dir=$2; shift ;;
      -I*) dir=${1#-I} ;;
      *) dir= ;;
    esac
    shift
    if [ -n "$dir" ] && [ -e "$dir/rasf.h" ]; then echo "generic header names on the include path: $dir"; return 1; fi
  done
}

# consumers NAME PREFIX VERSION [ROOT]: builds the consumer against the tree
# installed for PREFIX and found at ROOT/PREFIX (ROOT: a DESTDIR stage or an
# unpacked package), through pkg-config and through find_package; runs both.
# The pkg-config file must name PREFIX itself, and the consumer must print
# VERSION, which it takes from the installed header.
consumers() {
  local name=$1 prefix=$2 version=$3 root=${4:-}
  local pcdir libdir out=$work/$name
  pcdir=$(dirname "$(find "$root$prefix" -path '*/pkgconfig/kela-shared.pc' | head -1)")
  libdir=$(dirname "$pcdir")
  mkdir -p "$out"
  local pc=(env PKG_CONFIG_LIBDIR="$pcdir" PKG_CONFIG_SYSROOT_DIR="$root" pkg-config)
  step "$name: kela-shared.pc has prefix $prefix" grep -qx "prefix=$prefix" "$pcdir/kela-shared.pc"
  step "$name: kela-platform.pc has prefix $prefix" grep -qx "prefix=$prefix" "$pcdir/kela-platform.pc"
  step "$name: pkg-config include path" no_generic_headers $("${pc[@]}" --cflags kela-shared kela-platform)
  step "$name: pkg-config consumer" sh -c 'cc -std=c11 -pedantic -Wall -Werror -o "$1/consumer-pc" "$2/examples/consumer/consumer.c" $3 &&
    LD_LIBRARY_PATH="$4" "$1/consumer-pc" >"$1/pc.out" && grep -qx "kela-shared $5" "$1/pc.out"' - \
    "$out" "$src" "$("${pc[@]}" --cflags --libs kela-shared kela-platform)" "$libdir" "$version"
  step "$name: find_package consumer" sh -c 'cmake -S "$1/examples/consumer" -B "$2/cmake" -DCMAKE_PREFIX_PATH="$3" \
      -DCMAKE_EXPORT_COMPILE_COMMANDS=ON && grep -q "^KelaShared_DIR:PATH=$3/" "$2/cmake/CMakeCache.txt" &&
    cmake --build "$2/cmake" && LD_LIBRARY_PATH="$4" "$2/cmake/consumer" >"$2/cmake.out" && grep -qx "kela-shared $5" "$2/cmake.out"' - \
    "$src" "$out" "$root$prefix" "$libdir" "$version"
  step "$name: find_package include path" no_generic_headers \
    $(sed -n 's/.*"command": "\(.*\)",$/\1/p' "$out/cmake/compile_commands.json")
  step "$name: exports" "$src/tests/exports/check_exports.sh" "$libdir/libkela_shared.so" "$src"
  step "$name: kela-policy" env LD_LIBRARY_PATH="$libdir" "$root$prefix/bin/kela-policy" check "$src/examples/policy.kp"
}
