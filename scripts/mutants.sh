#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
#
# Mutation check of the test suite: applies each mutant of a list to the
# source tree in turn, rebuilds, runs ctest and records which tests fail
# (catch it); the source is restored after each mutant.
#   mutants.sh SRC BUILD OUTDIR [LIST]
# SRC: a checkout (a scratch worktree: it is edited in place); BUILD: its
# configured build directory; LIST (default scripts/mutants.txt): lines
# "ID|FILE|ORIGINAL|REPLACEMENT", ORIGINAL occurring exactly once in FILE.
# Writes OUTDIR/ID.caught (one test name a line) and prints a count per
# mutant. Needs python3 for the exact-text replacement.
set -u
src=$1 build=$2 out=$3
list=${4:-$(dirname "$0")/mutants.txt}
mkdir -p "$out"
while IFS='|' read -r id file old new; do
  case "$id" in ''|'#'*) continue ;; esac
  cp "$src/$file" "$out/$id.orig"
  if ! python3 -c 'import sys
p, old, new = sys.argv[1:]
s = open(p).read()
sys.exit(1) if s.count(old) != 1 else open(p, "w").write(s.replace(old, new))' "$src/$file" "$old" "$new"; then
    echo "$id: pattern not found once in $file"
    continue
  fi
  if cmake --build "$build" >"$out/$id.build.log" 2>&1; then
    (cd "$build" && ctest -j2 --timeout 300 >"$out/$id.ctest.log" 2>&1)
    grep -E '\((Failed|Timeout|SEGFAULT|Subprocess aborted|Exception)' "$out/$id.ctest.log" |
      sed -E 's/.*- ([^ ]+) \(.*/\1/' | sort >"$out/$id.caught"
    echo "$id: $(wc -l <"$out/$id.caught") tests catch it"
  else
    echo "$id: does not build"
  fi
  cp "$out/$id.orig" "$src/$file"
done <"$list"
cmake --build "$build" >/dev/null 2>&1
