#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the peer of the side-by-side comparison: BIRD's prefix-set trie
# from Debian's bird2 source package, driven by side_bird.c.
#
# Usage: bench/peer/build.sh BUILD_DIR   -> BUILD_DIR/peer/side_bird
#
# The source is fetched with `apt-get source` through a private apt
# configuration under BUILD_DIR/peer/apt: a deb-src list made from the
# machine's own Debian entries, with its own state and cache, so the
# machine's configuration stays untouched.  BIRD is GPL-2.0-or-later: its
# source and everything compiled from it stay under the build folder, are
# never committed, and go into no library, tool or package of this project.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1/peer"
peer=$(cd "$1/peer" && pwd)
apt=$peer/apt

src=$(find "$peer/src" -maxdepth 1 -type d -name 'bird2-*' 2>/dev/null | head -1 || true)
if [ -z "$src" ] || [ ! -f "$src/filter/trie.c" ]; then
  mkdir -p "$apt/state/lists/partial" "$apt/cache/archives/partial" "$apt/parts.d" "$peer/src"
  # deb-src twins of the machine's Debian entries for its own release.
  python3 - >"$apt/sources.list" <<'PY'
import glob
code = next(l.split("=", 1)[1].strip().strip('"') for l in open("/etc/os-release")
            if l.startswith("VERSION_CODENAME="))
out = []
for path in glob.glob("/etc/apt/sources.list.d/*.sources"):
    for block in open(path).read().split("\n\n"):
        d = {}
        for line in block.splitlines():
            if ":" in line and not line.startswith("#"):
                k, v = line.split(":", 1)
                d[k.strip()] = v.strip()
        if "deb" in d.get("Types", "").split() and code in d.get("Suites", "").split():
            opt = f"[signed-by={d['Signed-By']}] " if "Signed-By" in d else ""
            out += [f"deb-src {opt}{u} {code} {d['Components']}" for u in d["URIs"].split()]
for path in glob.glob("/etc/apt/sources.list"):
    for line in open(path):
        f = line.split()
        if f and f[0] == "deb" and code in f:
            out.append("deb-src" + line.strip()[3:])
print("\n".join(out))
PY
  opts=(-o "Dir::Etc::sourcelist=$apt/sources.list" -o "Dir::Etc::sourceparts=$apt/parts.d"
    -o "Dir::State=$apt/state" -o "Dir::Cache=$apt/cache" -o "Dir::State::status=/var/lib/dpkg/status"
    -o "APT::Sandbox::User=root")
  command -v dpkg-source >/dev/null || { apt-get update -q && apt-get install -y -q dpkg-dev; }
  apt-get -q "${opts[@]}" update >/dev/null
  (cd "$peer/src" && apt-get -q "${opts[@]}" source bird2 >/dev/null)
  src=$(find "$peer/src" -maxdepth 1 -type d -name 'bird2-*' | head -1)
fi

# BIRD's own release flags (its configure's defaults on this compiler).
cflags=(-g -O2 -pthread -fno-strict-aliasing -fno-strict-overflow -flto -Wall -Wextra
  -Wstrict-prototypes -Wno-parentheses -Wno-pointer-sign -Wno-missing-field-initializers)
inc=(-I"$here/include" -I"$src" -I"$src/sysdep" -I"$here")
files=("$src/filter/trie.c" "$src/lib/mempool.c" "$src/lib/resource.c" "$src/lib/ip.c"
  "$src/lib/bitops.c" "$src/lib/strtoul.c" "$here/bird_shims.c" "$here/side_bird.c")
mkdir -p "$peer/obj"
objs=()
for f in "${files[@]}"; do
  o=$peer/obj/$(basename "${f%.c}").o
  gcc "${cflags[@]}" "${inc[@]}" -c "$f" -o "$o"
  objs+=("$o")
done
gcc -pthread -flto=4 -g -O2 "${objs[@]}" -o "$peer/side_bird"
echo "$(basename "$src")" >"$peer/version"
