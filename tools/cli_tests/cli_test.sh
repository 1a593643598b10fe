#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
# Command-line tests of kevrc_quality (the kevrc tool: kevrc_test.sh).
#   cli_test.sh CASE KEVRC_QUALITY MAKE_TEST_AUDIO WORKDIR
# Each case works in WORKDIR/CASE on audio made by make_test_audio, prints
# "ok: ..." per check and exits non-zero when any check failed.
set -u
[ $# -eq 4 ] || { echo "usage: cli_test.sh CASE KEVRC_QUALITY MAKE_TEST_AUDIO WORKDIR" >&2; exit 2; }
name=$1 quality=$2 gen=$3
work=$4/$name
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 2
failures=0

fail() { printf 'FAIL: %s\n' "$*" >&2; failures=$((failures + 1)); }
ok() { printf 'ok: %s\n' "$*"; }
# Runs a command that must succeed (its output goes to run.out / run.err).
run() { "$@" >run.out 2>run.err || { fail "$* exited with $?: $(cat run.err)"; return 1; }; }

# figure FILE NAME: the value of "NAME value" in a kevrc_quality output.
figure() { awk -v k="$2" '$1 == k { print $2; exit }' "$1"; }

# check_figure FILE NAME LOW HIGH: LOW <= value <= HIGH.
check_figure() {
  v=$(figure "$1" "$2")
  if [ -n "$v" ] && awk -v v="$v" -v lo="$3" -v hi="$4" 'BEGIN { exit !(v >= lo && v <= hi) }'; then
    ok "$2 = $v in [$3, $4]"
  else
    fail "$2 = '$v', expected within [$3, $4]"
  fi
}

case_quality_usage() {
  run "$gen" signal voice 8000 1 0.2 in.wav || { fail "setup failed"; return; }
  "$quality" in.wav 2>err.txt
  [ $? -eq 2 ] && [ "$(wc -l <err.txt)" -eq 1 ] && ok "kevrc_quality with one file: usage error" || fail "kevrc_quality with one file"
}

case_quality_identical() {
  run "$gen" signal voice 8000 1 2.0 ref.wav && cp ref.wav same.wav || { fail "setup failed"; return; }
  run "$quality" --raw-reference ref.wav same.wav && cp run.out q.txt || { fail "setup failed"; return; }
  check_figure q.txt delay 0 0
  check_figure q.txt xcorr 1 1
  check_figure q.txt segsnr 35 35
  check_figure q.txt lsd 0 0
  check_figure q.txt mcd 0 0
  check_figure q.txt frames 60 100  # 2 s = 100 frames, 250 of every 350 ms active
}

case_quality_delayed() {
  run "$gen" signal voice 8000 1 2.0 ref.wav && run "$gen" delay ref.wav 37 late.wav || { fail "setup failed"; return; }
  run "$quality" --raw-reference ref.wav late.wav && cp run.out q.txt || { fail "setup failed"; return; }
  check_figure q.txt delay 37 37
  check_figure q.txt segsnr 35 35
  check_figure q.txt lsd 0 0
  check_figure q.txt mcd 0 0
  run "$quality" --raw-reference late.wav ref.wav && cp run.out r.txt || { fail "setup failed"; return; }
  check_figure r.txt delay -37 -37
  check_figure r.txt segsnr 35 35
}

case_quality_noise() {
  # A steady signal plus white noise 10 dB below it: every frame is near 10 dB.
  run "$gen" signal steady 8000 1 2.0 ref.wav && run "$gen" noise ref.wav 10 7 noisy.wav || { fail "setup failed"; return; }
  run "$quality" --raw-reference ref.wav noisy.wav && cp run.out q.txt || { fail "setup failed"; return; }
  check_figure q.txt delay 0 0
  check_figure q.txt segsnr 9 11
  check_figure q.txt frames 100 100
  check_figure q.txt lsd 0.5 30
  check_figure q.txt mcd 0.5 30
}

case_quality_gain() {
  # White noise against twice itself: every bin differs by 20·log10(2) =
  # 6.02 dB (the +1 floor is negligible at these powers), a gain moves only
  # c0 so the MCD is 0, and r - d = -r gives an SNR of exactly 0 dB.
  run "$gen" signal white 8000 1 1.0 ref.wav && run "$gen" gain ref.wav 2 loud.wav || { fail "setup failed"; return; }
  run "$quality" --raw-reference ref.wav loud.wav && cp run.out q.txt || { fail "setup failed"; return; }
  check_figure q.txt delay 0 0
  check_figure q.txt segsnr 0 0
  check_figure q.txt lsd 6.01 6.03
  check_figure q.txt mcd 0 0.01
  check_figure q.txt frames 50 50
}

case_audio_input() {
  # The same signal made at 16 kHz in stereo (unequal channels whose mean is
  # the signal) and at 8 kHz mono: down-mix and resampling reproduce the
  # 8 kHz rendering closely and without delay.
  run "$gen" signal voice 8000 1 1.0 v8.wav && run "$gen" signal voice 16000 2 1.0 v16.wav || { fail "setup failed"; return; }
  run "$quality" --raw-reference v8.wav v16.wav && cp run.out m.txt || { fail "setup failed"; return; }
  check_figure m.txt delay 0 0
  check_figure m.txt segsnr 30 35
  run "$gen" signal voice 48000 3 1.0 v48.wav || { fail "setup failed"; return; }
  run "$quality" --raw-reference v8.wav v48.wav && cp run.out n.txt || { fail "setup failed"; return; }
  check_figure n.txt delay 0 0
  check_figure n.txt segsnr 30 35
}

case_quality_list() {
  run "$gen" signal voice 8000 1 1.0 ref.wav && run "$gen" delay ref.wav 37 late.wav && cp ref.wav same.wav || { fail "setup failed"; return; }
  printf '# reference decoded\n\nref.wav same.wav\n  ref.wav   late.wav  \n' >pairs.txt
  run "$quality" --raw-reference --list pairs.txt && cp run.out l.txt || { fail "setup failed"; return; }
  [ "$(grep -c '^file ' l.txt)" -eq 2 ] && ok "two per-file lines" || fail "per-file lines: $(cat l.txt)"
  grep -q '^file ref.wav late.wav delay 37 ' l.txt && ok "per-file line of the delayed pair" || fail "$(cat l.txt)"
  check_figure l.txt files 2 2
  check_figure l.txt segsnr 35 35
  check_figure l.txt lsd 0 0
  printf 'ref.wav same.wav\nref.wav missing.wav\nref.wav\n' >broken.txt
  "$quality" --list broken.txt >b.txt 2>b.err && fail "--list with a missing file exited 0"
  [ "$(grep -c '^file ' b.txt)" -eq 1 ] && [ "$(wc -l <b.err)" -eq 3 ] && ok "--list skips and reports bad pairs: $(tr '\n' ' ' <b.err)" ||
    fail "--list with bad pairs: $(cat b.txt b.err)"
}

case "$name" in
  quality_usage | audio_input | quality_identical | quality_delayed | quality_noise | quality_gain | quality_list) "case_$name" ;;
  *) echo "cli_test.sh: unknown case $name" >&2; exit 2 ;;
esac
if [ "$failures" -ne 0 ]; then
  echo "$name: $failures check(s) failed" >&2
  exit 1
fi
echo "$name: all checks passed"
