#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
#
# The shared library exports exactly the committed list, every name under the
# version node KEVRC_1: an extra or a missing name fails with a one-line diff.
#   check_exports.sh LIBRARY SYMBOL_LIST
set -eu
actual=$(nm -D --defined-only "$1" | awk '$2 != "A" { print $3 }')
unversioned=$(printf '%s\n' "$actual" | grep -v '@@KEVRC_1$' || true)
if [ -n "$unversioned" ]; then
  echo "check_exports: not under KEVRC_1: $(echo $unversioned)" >&2
  exit 1
fi
changes=$(printf '%s\n' "$actual" | sed 's/@@KEVRC_1$//' | LC_ALL=C sort | diff "$2" - | grep '^[<>]' || true)
if [ -n "$changes" ]; then
  echo "check_exports: exported names differ from $2 (< missing, > extra): $(echo $changes)" >&2
  exit 1
fi
