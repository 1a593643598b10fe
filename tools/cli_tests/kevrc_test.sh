#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
# Smoke tests of the kevrc tool, one case per run:
#   kevrc_test.sh CASE KEVRC MAKE_TEST_AUDIO WORKDIR
# Cases: roundtrip (both packet formats, an RTP capture, pipes), outputs (same file, symlink,
# FIFO, signal), bad_inputs (a table: exit status, one-line message, nothing
# left behind), batch (equal to one-file runs).
set -u
[ $# -eq 4 ] || { echo "usage: kevrc_test.sh CASE KEVRC MAKE_TEST_AUDIO WORKDIR" >&2; exit 2; }
name=$1 kevrc=$2 gen=$3 work=$4/$1
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 2
failures=0
fail() { printf 'FAIL: %s\n' "$*" >&2; failures=$((failures + 1)); }
ok() { printf 'ok: %s\n' "$*"; }
check() { if eval "$2"; then ok "$1"; else fail "$1"; fi; }
# le N BYTES: N as little-endian bytes. wav RATE CHANNELS FRAMES: a silent 16-bit WAV.
le() { n=$1 i=0; while [ $i -lt "$2" ]; do printf "\\$(printf %03o $((n & 255)))"; n=$((n >> 8)) i=$((i + 1)); done; }
wav() {
  b=$(($2 * $3 * 2))
  printf RIFF; le $((36 + b)) 4; printf 'WAVEfmt '; le 16 4; le 1 2; le "$2" 2; le "$1" 4
  le $(($1 * $2 * 2 & 0xFFFFFFFF)) 4; le $(($2 * 2)) 2; le 16 2; printf data; le $b 4; head -c $b /dev/zero
}
frames() { "$kevrc" info --json "$1" | sed -n 's/.*"frames": \([0-9]*\).*/\1/p'; }

case_roundtrip() {
  "$gen" signal voice 16000 2 1.01 in.wav || { fail "setup"; return; }
  check "encode storage and QCP" '"$kevrc" encode in.wav a.evrc && "$kevrc" encode in.wav a.qcp'
  check "51 frames in both" '[ "$(frames a.evrc)$(frames a.qcp)" = 5151 ]'
  check "QCP: header and records, even size" '[ $(($(wc -c <a.qcp) - $(wc -c <a.evrc))) = 188 ]'
  check "both decode to the same audio" '"$kevrc" decode a.evrc a.wav && "$kevrc" decode a.qcp q.wav && cmp -s a.wav q.wav'
  check "decoded 8160 samples" '[ "$(frames a.wav)" = 8160 ]'
  check "encode from and to pipes" 'cat in.wav | "$kevrc" encode - - | cmp -s - a.evrc'
  check "decode from stdin" '"$kevrc" decode - p.wav <a.qcp && cmp -s p.wav a.wav'
  check "decode to a pipe gives AU" '"$kevrc" decode a.evrc - | cat >p.au && "$kevrc" info p.au | grep -q "AU.*16 bit"'
  check "decode -r 16000 -c 2" '"$kevrc" decode -r 16000 -c 2 a.evrc s.flac && "$kevrc" info --json s.flac | grep -q "16000, .channels.: 2, .frames.: 16320"'
  check "mu-law raw round trip" '"$kevrc" decode a.evrc a.ul && "$kevrc" encode a.ul u.evrc && [ $(wc -c <a.ul) = 8160 ]'
  check "RTP capture: one interleaved stream, same length" '"$kevrc" encode --rtp interleaved --bundle 3 --interleave 2 --pt 98 in.wav c.pcap &&
    "$kevrc" info c.pcap | grep -q " 98 interleaved " && "$kevrc" decode c.pcap c.wav && [ "$(frames c.wav)" = 8160 ]'
}

case_outputs() {
  "$gen" signal voice 8000 1 1 in.wav && cp in.wav keep.wav && "$kevrc" encode in.wav a.evrc || { fail "setup"; return; }
  ln -s in.wav link.wav && ln -s target.wav out.wav && mkfifo fifo
  check "output = input refused" '! "$kevrc" encode in.wav in.wav 2>/dev/null && cmp -s in.wav keep.wav'
  check "output = input through a symlink refused" '! "$kevrc" encode link.wav in.wav 2>/dev/null && cmp -s in.wav keep.wav'
  check "symlink output: target written, link kept" '"$kevrc" decode a.evrc out.wav && [ -L out.wav ] && [ -s target.wav ]'
  (cat fifo >from_fifo &)
  check "FIFO written into, not replaced" '"$kevrc" decode a.evrc fifo && [ -p fifo ] && sleep 1 && [ "$(frames from_fifo)" = 8000 ]'
  (cat in.wav; sleep 3) | "$kevrc" encode - slow.evrc & pid=$!
  sleep 1 && kill -TERM $pid && wait $pid 2>/dev/null
  check "SIGTERM removes the temporary" '[ -z "$(ls slow.evrc* 2>/dev/null)" ]'
}

case_bad_inputs() {
  "$gen" signal voice 8000 1 0.4 in.wav && "$kevrc" encode in.wav good.evrc && "$kevrc" encode in.wav good.qcp || { fail "setup"; return; }
  wav 8000 1 0 >n0.wav; wav 44100 1 1 >n1.wav; wav 48000 2 2 >n2.wav; wav 1 1 100 >r1.wav
  wav 2147483647 1 10 >rmax.wav; wav 8000 300 50 >c300.wav; wav 8000 2000 1 >c2000.wav
  echo "not audio" >text.wav; : >empty
  head -c $(($(wc -c <good.evrc) - 1)) good.evrc >cut.evrc; head -c 100 good.qcp >cut.qcp
  printf '#!EVRC\n\001\252\125\011junk' >unknown.evrc
  # status output command...; status 0 rows must write the output.
  while read -r status out cmd; do
    rm -f "$out" && "$kevrc" $cmd >/dev/null 2>err.txt
    got=$? lines=$(wc -l <err.txt) left=$(ls "$out".?????? 2>/dev/null)
    if [ $got != "$status" ] || [ "$lines" -gt 1 ] || [ -n "$left" ] || { [ $got = 0 ] && [ ! -e "$out" ]; } ||
       { [ $got != 0 ] && { [ "$lines" != 1 ] || [ -e "$out" ]; }; }; then
      fail "$cmd: exit $got (want $status), $lines line(s): $(cat err.txt) left: $out? $left"
    else ok "$cmd: exit $got: $(cat err.txt)"; fi
  done <<'ROWS'
0 o1.evrc encode n0.wav o1.evrc
0 o2.evrc encode n1.wav o2.evrc
0 o3.evrc encode n2.wav o3.evrc
1 o4.evrc encode r1.wav o4.evrc
1 o5.evrc encode rmax.wav o5.evrc
0 o6.evrc encode c300.wav o6.evrc
1 o7.evrc encode c2000.wav o7.evrc
1 o8.evrc encode text.wav o8.evrc
1 o9.evrc encode missing.wav o9.evrc
0 d1.wav decode cut.evrc d1.wav
1 d2.wav decode --strict cut.evrc d2.wav
0 d3.wav decode unknown.evrc d3.wav
1 d4.wav decode cut.qcp d4.wav
1 d5.wav decode empty d5.wav
1 d6.wav decode text.wav d6.wav
1 d7.wav decode in.wav d7.wav
1 nodir/d8.wav decode good.evrc nodir/d8.wav
2 x encode in.wav
2 x encode --max-rate 2 in.wav x
2 x decode --fast good.evrc x
2 x info
ROWS
  check "frames before an unknown octet kept" '[ "$(frames d3.wav)" = 160 ]'
}

case_batch() {
  for i in 1 2 3; do "$gen" signal voice 8000 1 $i v$i.wav || { fail "setup"; return; }; done
  mkdir e d
  "$kevrc" encode -q -o e v1.wav missing.wav v2.wav v3.wav 2>err.txt
  check "a failed file does not stop the batch" "[ $? = 1 ] && [ $(wc -l <err.txt) = 2 ] && ls e | grep -c evrc | grep -q 3"
  "$kevrc" decode -q -j 2 -o d e/v1.evrc e/v2.evrc e/v3.evrc || fail "batch decode"
  mkdir x && cp v1.wav x/ && "$kevrc" encode -q -o e v1.wav x/v1.wav 2>err.txt
  check "two inputs for one output refused" "[ $? = 2 ] && [ $(wc -l <err.txt) = 1 ]"
  for i in 1 2 3; do
    "$kevrc" encode v$i.wav v$i.evrc && "$kevrc" decode v$i.evrc v$i.wav
    check "batch file $i equals a one-file run" "cmp -s e/v$i.evrc v$i.evrc && cmp -s d/v$i.wav v$i.wav"
  done
}

case "$name" in
  roundtrip | outputs | bad_inputs | batch) "case_$name" ;;
  *) echo "kevrc_test.sh: unknown case $name" >&2; exit 2 ;;
esac
[ "$failures" -eq 0 ] || { echo "$name: $failures check(s) failed" >&2; exit 1; }
echo "$name: all checks passed"
