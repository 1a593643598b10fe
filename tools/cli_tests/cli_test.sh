#!/bin/sh
# Command-line tests of kevrc (encode, decode) and kevrc_quality.
#   cli_test.sh CASE KEVRC KEVRC_QUALITY MAKE_TEST_AUDIO WORKDIR
# Each case works in WORKDIR/CASE on audio made by make_test_audio, prints
# "ok: ..." per check and exits non-zero when any check failed.
set -u
[ $# -eq 5 ] || { echo "usage: cli_test.sh CASE KEVRC KEVRC_QUALITY MAKE_TEST_AUDIO WORKDIR" >&2; exit 2; }
name=$1 kevrc=$2 quality=$3 gen=$4
work=$5/$name
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 2
failures=0

fail() { printf 'FAIL: %s\n' "$*" >&2; failures=$((failures + 1)); }
ok() { printf 'ok: %s\n' "$*"; }
# Runs a command that must succeed (its output goes to run.out / run.err).
run() { "$@" >run.out 2>run.err || { fail "$* exited with $?: $(cat run.err)"; return 1; }; }

# expect_error DESCRIPTION OUTPUT COMMAND...: the command fails with one line
# "kevrc...: ..." on stderr and leaves neither OUTPUT nor a temporary beside it.
expect_error() {
  desc=$1 out=$2
  shift 2
  "$@" >err.out 2>err.txt
  status=$?
  lines=$(wc -l <err.txt)
  if [ "$status" -eq 0 ]; then fail "$desc: exit status 0"
  elif [ "$lines" -ne 1 ]; then fail "$desc: $lines lines on stderr: $(cat err.txt)"
  elif ! grep -q '^kevrc[a-z_]*: .' err.txt; then fail "$desc: stderr is not 'kevrc: ...': $(cat err.txt)"
  elif [ -e "$out" ]; then fail "$desc: $out left behind"
  elif ls "$out".* >/dev/null 2>&1; then fail "$desc: temporary file left behind: $(ls "$out".*)"
  else ok "$desc (exit $status): $(cat err.txt)"
  fi
}

# frames FILE: checks the magic and every rate octet / payload length of a
# packet file and prints "FRAMES EIGHTH HALF FULL", or "bad ..." on a fault.
frames() {
  od -An -v -tu1 "$1" | awk '
    { for (i = 1; i <= NF; i++) b[n++] = $i }
    END {
      split("35 33 69 86 82 67 10", magic, " ")
      for (i = 0; i < 7; i++) if (b[i] != magic[i + 1]) { print "bad magic"; exit }
      pos = 7; f = 0; c[1] = c[3] = c[4] = 0
      while (pos < n) {
        r = b[pos]; size = (r == 1) ? 2 : (r == 3) ? 10 : (r == 4) ? 22 : -1
        if (size < 0) { print "bad rate octet " r " in frame " f; exit }
        pos += 1 + size; c[r]++; f++
      }
      if (pos != n) { print "bad: truncated last frame"; exit }
      print f, c[1], c[3], c[4]
    }'
}

# check_frames FILE EXPECTED ("FRAMES EIGHTH HALF FULL")
check_frames() {
  got=$(frames "$1")
  if [ "$got" = "$2" ]; then ok "$1: frames/eighth/half/full = $got"; else fail "$1: got '$got', expected '$2'"; fi
}

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

case_encode_decode() {
  # 1.01 s at 16 kHz stereo = 16160 frames -> 8080 samples at 8 kHz -> 50.5 -> 51 frames.
  run "$gen" signal voice 16000 2 1.01 in16k.wav || return
  run "$kevrc" encode in16k.wav a.evrc --max-rate 1 && ok "encode --max-rate 1"
  magic=$(head -c 7 a.evrc | od -An -tx1 | tr -d ' \n')
  [ "$magic" = "2321455652430a" ] && ok "magic #!EVRC\\n" || fail "magic is $magic"
  check_frames a.evrc "51 51 0 0"
  [ "$(wc -c <a.evrc)" -eq $((7 + 51 * 3)) ] && ok "size 7 + 51 * 3" || fail "size $(wc -c <a.evrc)"
  run "$kevrc" decode a.evrc a.wav && ok "decode"
  [ "$(cat run.err | wc -l)" -eq 1 ] || fail "decode printed more than its summary: $(cat run.err)"
  run "$gen" info a.wav && [ "$(cat run.out)" = "8000 1 8160" ] && ok "decoded WAV: 8000 Hz, mono, 51 * 160 samples" ||
    fail "decoded WAV: $(cat run.out)"
  run "$kevrc" decode --no-postfilter a.evrc b.wav && ok "decode --no-postfilter (options before files)"
  run "$gen" info b.wav && [ "$(cat run.out)" = "8000 1 8160" ] || fail "decoded WAV without postfilter: $(cat run.out)"

  # The same again gives the same bytes; other option spellings; the output is replaced.
  cp a.evrc first.evrc
  run "$kevrc" encode --min-rate 1 --max-rate=1 --ns in16k.wav a.evrc && cmp -s a.evrc first.evrc &&
    ok "re-encoding replaces the output with identical bytes" || fail "re-encoding differs"
  run "$kevrc" encode in16k.wav nons.evrc --max-rate 1 --no-ns && check_frames nons.evrc "51 51 0 0"
  cmp -s nons.evrc first.evrc && fail "--no-ns made no difference" || ok "--no-ns changes the packets"

  # 8 kHz mono (no resampling): 0.5 s = 4000 samples = 25 frames exactly;
  # 44.1 kHz stereo 0.3 s = 13230 frames -> 2400 samples = 15 frames.
  run "$gen" signal voice 8000 1 0.5 in8k.wav && run "$kevrc" encode in8k.wav c.evrc --max-rate 1 &&
    check_frames c.evrc "25 25 0 0"
  run "$gen" signal voice 44100 2 0.3 in44k.wav && run "$kevrc" encode in44k.wav d.evrc --max-rate 1 &&
    check_frames d.evrc "15 15 0 0"

  # The quality tool runs on a real round trip.
  run "$quality" in16k.wav a.wav && grep -q '^frames [1-9]' run.out && ok "kevrc_quality on the round trip: $(tr '\n' ' ' <run.out)" ||
    fail "kevrc_quality on the round trip: $(cat run.out run.err)"
}

case_default_rates() {
  # Default bounds 1..4. An encoder that cannot code some rate yet must fail
  # cleanly; once it can, the file must be well formed.
  run "$gen" signal voice 8000 1 1.0 in.wav || return
  if "$kevrc" encode in.wav all.evrc >run.out 2>run.err; then
    got=$(frames all.evrc)
    case "$got" in 50\ *) ok "default rates: frames/eighth/half/full = $got" ;; *) fail "default rates: $got" ;; esac
    run "$kevrc" decode all.evrc all.wav && ok "decode of the default-rate file"
  else
    if [ "$(wc -l <run.err)" -eq 1 ] && grep -q '^kevrc: in.wav: frame [0-9]*: encoder failed' run.err && [ ! -e all.evrc ] &&
      ! ls all.evrc.* >/dev/null 2>&1; then
      ok "default rates not all coded yet, clean failure: $(cat run.err)"
    else
      fail "default rates: unclean failure: $(cat run.err)"
    fi
  fi
}

case_malformed_inputs() {
  run "$gen" signal voice 8000 1 0.4 in.wav && run "$kevrc" encode in.wav good.evrc --max-rate 1 || return
  echo "this is not audio, just some text that no audio reader accepts" >text.wav
  expect_error "encode: missing input" o1.evrc "$kevrc" encode missing.wav o1.evrc
  expect_error "encode: non-audio input" o2.evrc "$kevrc" encode text.wav o2.evrc
  expect_error "encode: input is a directory" o3.evrc "$kevrc" encode . o3.evrc
  head -c 30 in.wav >header_only.wav
  expect_error "encode: WAV cut inside its header" o3b.evrc "$kevrc" encode header_only.wav o3b.evrc
  expect_error "encode: output directory missing" nodir/o4.evrc "$kevrc" encode in.wav nodir/o4.evrc --max-rate 1
  expect_error "decode: missing input" o5.wav "$kevrc" decode missing.evrc o5.wav
  size=$(wc -c <good.evrc)
  head -c $((size - 1)) good.evrc >truncated.evrc
  expect_error "decode: truncated packet file" o6.wav "$kevrc" decode truncated.evrc o6.wav
  printf '#!EVRC\n\001\252\125\007\001\002' >badrate.evrc
  expect_error "decode: bad rate octet" o7.wav "$kevrc" decode badrate.evrc o7.wav
  printf '#!AMR\n\001\252\125' >badmagic.evrc
  expect_error "decode: bad magic" o8.wav "$kevrc" decode badmagic.evrc o8.wav
  : >empty.evrc
  expect_error "decode: empty file" o9.wav "$kevrc" decode empty.evrc o9.wav
  expect_error "decode: a WAV file given as packets" o10.wav "$kevrc" decode in.wav o10.wav
  expect_error "decode: output directory missing" nodir/o11.wav "$kevrc" decode good.evrc nodir/o11.wav

  # A failing run leaves an existing output as it was.
  echo "previous content" >keep.wav
  "$kevrc" decode badrate.evrc keep.wav 2>/dev/null && fail "decode of badrate.evrc succeeded"
  [ "$(cat keep.wav)" = "previous content" ] && ok "existing output untouched by a failed decode" ||
    fail "existing output changed by a failed decode"
  [ "$(ls | grep -c 'keep.wav.')" -eq 0 ] || fail "temporary beside keep.wav"

  # Only the magic: zero frames, an empty WAV.
  printf '#!EVRC\n' >magic_only.evrc
  run "$kevrc" decode magic_only.evrc empty.wav && run "$gen" info empty.wav && [ "$(cat run.out)" = "8000 1 0" ] &&
    ok "magic-only packet file decodes to an empty WAV" || fail "magic-only packet file: $(cat run.out run.err)"
  # Blank (0) and erasure (14) frames are concealed, not rejected.
  printf '#!EVRC\n\000\016\001\252\125' >blank.evrc
  run "$kevrc" decode blank.evrc blank.wav && run "$gen" info blank.wav && [ "$(cat run.out)" = "8000 1 480" ] &&
    ok "blank and erasure frames decode" || fail "blank and erasure frames: $(cat run.out run.err)"
}

case_bad_options() {
  run "$gen" signal voice 8000 1 0.2 in.wav || return
  expect_error "--max-rate 5" x.evrc "$kevrc" encode in.wav x.evrc --max-rate 5
  expect_error "--max-rate 0" x.evrc "$kevrc" encode in.wav x.evrc --max-rate=0
  expect_error "--max-rate abc" x.evrc "$kevrc" encode in.wav x.evrc --max-rate abc
  expect_error "--min-rate above --max-rate" x.evrc "$kevrc" encode in.wav x.evrc --min-rate 4 --max-rate 1
  expect_error "--min-rate without value" x.evrc "$kevrc" encode in.wav x.evrc --min-rate
  expect_error "unknown encode option" x.evrc "$kevrc" encode in.wav x.evrc --fast
  expect_error "encode without OUT" x.evrc "$kevrc" encode in.wav
  expect_error "encode with three files" x.evrc "$kevrc" encode in.wav x.evrc y.evrc
  run "$kevrc" encode in.wav g.evrc --max-rate 1
  expect_error "unknown decode option" x.wav "$kevrc" decode g.evrc x.wav --postfilter
  expect_error "decode with three files" x.wav "$kevrc" decode g.evrc x.wav y.wav
  expect_error "unknown command" x.wav "$kevrc" transcode g.evrc x.wav
  expect_error "kevrc_quality with one file" x.wav "$quality" in.wav
}

case_quality_identical() {
  run "$gen" signal voice 8000 1 2.0 ref.wav && cp ref.wav same.wav || return
  run "$quality" --raw-reference ref.wav same.wav && cp run.out q.txt || return
  check_figure q.txt delay 0 0
  check_figure q.txt xcorr 1 1
  check_figure q.txt segsnr 35 35
  check_figure q.txt lsd 0 0
  check_figure q.txt mcd 0 0
  check_figure q.txt frames 60 100  # 2 s = 100 frames, 250 of every 350 ms active
}

case_quality_delayed() {
  run "$gen" signal voice 8000 1 2.0 ref.wav && run "$gen" delay ref.wav 37 late.wav || return
  run "$quality" --raw-reference ref.wav late.wav && cp run.out q.txt || return
  check_figure q.txt delay 37 37
  check_figure q.txt segsnr 35 35
  check_figure q.txt lsd 0 0
  check_figure q.txt mcd 0 0
  run "$quality" --raw-reference late.wav ref.wav && cp run.out r.txt || return
  check_figure r.txt delay -37 -37
  check_figure r.txt segsnr 35 35
}

case_quality_noise() {
  # A steady signal plus white noise 10 dB below it: every frame is near 10 dB.
  run "$gen" signal steady 8000 1 2.0 ref.wav && run "$gen" noise ref.wav 10 7 noisy.wav || return
  run "$quality" --raw-reference ref.wav noisy.wav && cp run.out q.txt || return
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
  run "$gen" signal white 8000 1 1.0 ref.wav && run "$gen" gain ref.wav 2 loud.wav || return
  run "$quality" --raw-reference ref.wav loud.wav && cp run.out q.txt || return
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
  run "$gen" signal voice 8000 1 1.0 v8.wav && run "$gen" signal voice 16000 2 1.0 v16.wav || return
  run "$quality" --raw-reference v8.wav v16.wav && cp run.out m.txt || return
  check_figure m.txt delay 0 0
  check_figure m.txt segsnr 30 35
  run "$gen" signal voice 48000 3 1.0 v48.wav || return
  run "$quality" --raw-reference v8.wav v48.wav && cp run.out n.txt || return
  check_figure n.txt delay 0 0
  check_figure n.txt segsnr 30 35
}

case_quality_list() {
  run "$gen" signal voice 8000 1 1.0 ref.wav && run "$gen" delay ref.wav 37 late.wav && cp ref.wav same.wav || return
  printf '# reference decoded\n\nref.wav same.wav\n  ref.wav   late.wav  \n' >pairs.txt
  run "$quality" --raw-reference --list pairs.txt && cp run.out l.txt || return
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
  encode_decode | default_rates | malformed_inputs | bad_options | audio_input | quality_identical | \
    quality_delayed | quality_noise | quality_gain | quality_list) "case_$name" ;;
  *) echo "cli_test.sh: unknown case $name" >&2; exit 2 ;;
esac
if [ "$failures" -ne 0 ]; then
  echo "$name: $failures check(s) failed" >&2
  exit 1
fi
echo "$name: all checks passed"
