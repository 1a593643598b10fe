#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
# Quick start: installs what is missing (with the speech recordings), builds,
# and runs the main job: a real speech recording through the codec and back.
#   quickstart.sh [ENCODE OPTIONS]   e.g. --max-rate 1, --no-ns
#
# The recording is a fixed file of the held-out tenth of the corpus (see
# tools/support/corpus.h), so it never took part in training the tables:
# en_US_f_Allison/vm-review.wav, 7.8 s of 8 kHz speech. It is encoded to
# out/demo.evrc (RFC 3558 storage format) and decoded to out/demo.wav; the
# script prints the sizes, the bit rate and the kevrc_quality figures of the
# decoded speech against the original.
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh --corpus
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build build

ref=/usr/share/asterisk/sounds/en_US_f_Allison/vm-review.wav
if [ ! -r "$ref" ]; then
  echo "quickstart: $ref is missing (install-deps.sh --corpus installs it)" >&2
  exit 1
fi
mkdir -p out
build/tools/kevrc encode -v "$ref" out/demo.evrc "$@" 2>out/encode.log || { cat out/encode.log >&2; exit 1; }
cat out/encode.log
build/tools/kevrc decode out/demo.evrc out/demo.wav

# "kevrc: IN -> OUT: N frames (...)": 20 ms per frame.
frames=$(sed -n 's/^kevrc: .* -> .*: \([0-9]*\) frames .*/\1/p' out/encode.log)
wav_bytes=$(wc -c <"$ref")
evrc_bytes=$(wc -c <out/demo.evrc)
awk -v f="$frames" -v w="$wav_bytes" -v e="$evrc_bytes" -v ref="$ref" 'BEGIN {
  s = f * 0.02
  rate = (s > 0) ? (e - 7) * 8 / s : 0
  printf "quickstart: %s: %d bytes (%.2f s of speech, 128000 bit/s)\n", ref, w, s
  printf "quickstart: out/demo.evrc: %d bytes, %.0f bit/s with the rate octets (%.1f times smaller)\n", e, rate, w / e
}'
echo "quickstart: out/demo.wav against the original (delay in samples, segsnr/lsd/mcd in dB):"
build/tools/kevrc_quality "$ref" out/demo.wav
