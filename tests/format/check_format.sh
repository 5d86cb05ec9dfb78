#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Every C and C++ file of the tree is as the project's .clang-format writes
# it. Prints the files that are not, and the command that fixes them.
# Usage: check_format.sh SOURCE_DIR
set -eu
cd "$1"
# The style file is written for clang-format 14 (Debian 12's); later versions
# move a few lines differently, so the versioned name wins where both exist.
cf=$(command -v clang-format-14 || command -v clang-format || true)
if [ -z "$cf" ]; then
  echo "clang-format is missing (scripts/install-deps test installs it)"
  exit 1
fi
if [ -d .git ] && command -v git >/dev/null; then
  files=$(git ls-files --cached --others --exclude-standard -- '*.c' '*.h' '*.cpp' '*.hpp')
else
  files=$(find lib platform tools tests fuzz bench examples -name '*.[ch]' -o -name '*.[ch]pp')
fi
bad=""
for f in $files; do
  [ -f "$f" ] || continue
  "$cf" --dry-run --Werror "$f" >/dev/null 2>&1 || bad="$bad $f"
done
if [ -n "$bad" ]; then
  echo "not formatted by .clang-format ($("$cf" --version)):"
  for f in $bad; do echo "  $f"; done
  echo "fix: $cf -i$bad"
  exit 1
fi
