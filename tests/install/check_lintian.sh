#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# lintian over the packages the package test built (their .changes file):
# any error or warning fails; info and pedantic tags are shown.  Exit 77
# (skipped) when lintian is not installed or no packages were built.
# Usage: check_lintian.sh OUT_DIR
set -u
command -v lintian >/dev/null || { echo "lintian is not installed"; exit 77; }
changes=$(ls "$1"/*.changes 2>/dev/null | head -1)
[ -n "$changes" ] || { echo "no packages in $1"; exit 77; }
lintian --fail-on error,warning --display-info --pedantic "$changes"
