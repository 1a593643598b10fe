#!/bin/sh
# Cross-checks the decoder against the independent Python model
# (ref_decoder.py): decoded traces of generated packet streams and random
# kernel requests must agree bit for bit.
#   crosscheck.sh BUILD_DIR [FRAMES]
set -eu
build=$1
frames=${2:-300}
here=$(cd "$(dirname "$0")" && pwd)
python=${PYTHON:-python3}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail=0

compare() {  # name file_a file_b
  if ! cmp -s "$2" "$3"; then
    echo "MISMATCH: $1 (first difference at line $(cmp "$2" "$3" | sed -n 's/.*line \([0-9]*\).*/\1/p'))"
    fail=1
  fi
}

for kind in speech erasures garbage recovery; do
  for seed in 1 2; do
    stream="$tmp/$kind.$seed.bin"
    "$build/tools/make_stream" "$stream" "$frames" "$seed" "$kind"
    for pf in 0 1; do
      "$build/tests/decode_trace" "$stream" "$tmp/c.txt" --postfilter $pf --reset-at 50,51
      "$python" "$here/decode_trace.py" "$stream" "$tmp/p.txt" --postfilter $pf --reset-at 50,51
      compare "$kind seed $seed postfilter $pf" "$tmp/c.txt" "$tmp/p.txt"
    done
  done
done

"$python" "$here/gen_kernel_cases.py" --count 150 --seed 7 > "$tmp/k.in"
"$build/tests/kernel_cli" < "$tmp/k.in" > "$tmp/kc.txt"
"$python" "$here/kernels_cli.py" < "$tmp/k.in" > "$tmp/kp.txt"
# Interpolator requests outside the window are skipped by either side.
paste -d '|' "$tmp/kc.txt" "$tmp/kp.txt" | awk -F'|' '$1 != "skip" && $2 != "skip" && $1 != $2 {n++} END {exit n > 0}' \
  || { echo "MISMATCH: kernels"; fail=1; }

[ $fail -eq 0 ] && echo "crosscheck: decoder and reference model agree"
exit $fail
