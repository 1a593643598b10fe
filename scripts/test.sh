#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
# The whole test suite: installs what is missing, builds twice (optimised, and
# with AddressSanitizer + UndefinedBehaviorSanitizer) and runs every test in
# both builds (the end-to-end tests read held-out speech from the corpus
# packages it installs); then builds the fuzzers with clang and runs each
# briefly. Prints each stage's duration and a summary at the end.
#   test.sh [FUZZ_SECONDS]   (seconds per fuzzer, default 30; 0 skips them)
set -eu
cd "$(dirname "$0")/.."
fuzz_seconds=${1:-30}
jobs=$(nproc 2>/dev/null || echo 2)
summary=""
stage_start=0

# begin NAME / end: frame a stage and record its duration.
begin() {
  stage_name=$1
  stage_start=$(date +%s)
  echo "== $stage_name"
}
end() {
  took=$(( $(date +%s) - stage_start ))
  echo "== $stage_name: ${took} s"
  summary="$summary$(printf '  %-38s %4d s' "$stage_name" "$took")
"
}

# fuzz SECONDS NAME MAX_LEN SEED_DIR [NAME MAX_LEN SEED_DIR ...]: runs the
# libFuzzer targets from their seeds, two at a time (one per core); stops at
# the first target that finds a failure.
fuzz() {
  seconds=$1
  shift
  while [ $# -ge 3 ]; do
    pids=""
    for slot in 1 2; do
      [ $# -ge 3 ] || break
      mkdir -p "build-fuzz/corpus_$1"
      "build-fuzz/fuzz/$1" -max_total_time="$seconds" -max_len="$2" -print_final_stats=1 \
        -artifact_prefix="build-fuzz/$1-" "build-fuzz/corpus_$1" "$3" >"build-fuzz/$1.log" 2>&1 &
      pids="$pids $!:$1"
      shift 3
    done
    for entry in $pids; do
      name=${entry#*:}
      if ! wait "${entry%%:*}"; then
        tail -n 40 "build-fuzz/$name.log"
        echo "test.sh: $name found a failure (input saved in build-fuzz/)" >&2
        exit 1
      fi
      echo "$name: $(grep -E '^stat::number_of_executed_units' "build-fuzz/$name.log" | tr -s ' ')"
    done
  done
}

all_start=$(date +%s)
begin "install packages"
sh scripts/install-deps.sh --test --corpus
end

begin "optimised build"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEVRC_WERROR=ON >/dev/null
cmake --build build
end

begin "optimised tests"
ctest --test-dir build --output-on-failure -j "$jobs"
end

begin "consumer builds (3 ways)"
sh scripts/check-consumers.sh build
end

begin "sanitizer build (address, undefined)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEVRC_SANITIZE=ON \
  -DKEVRC_WERROR=ON -DKEVRC_BUILD_MEASUREMENTS=OFF >/dev/null
cmake --build build-asan
end

begin "sanitizer tests"
ctest --test-dir build-asan --output-on-failure -j "$jobs"
end

if [ "$fuzz_seconds" -gt 0 ] && command -v clang++ >/dev/null 2>&1; then
  begin "fuzzer build (clang)"
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKEVRC_SANITIZE=ON -DKEVRC_BUILD_FUZZERS=ON -DKEVRC_BUILD_TESTS=OFF -DKEVRC_BUILD_TOOLS=OFF \
    -DKEVRC_BUILD_EXAMPLES=OFF -DKEVRC_WERROR=ON >/dev/null
  cmake --build build-fuzz
  seeds=build-fuzz/seeds_decoder
  mkdir -p "$seeds"
  i=0
  for kind in speech erasures recovery garbage; do
    for selector in 33 0 37 10 160 45; do
      i=$((i + 1))
      build/tools/make_stream "$seeds/seed$i" 40 "$i" "$kind" --fuzz "$selector"
    done
  done
  # Encoder seeds: one per valid creation record (selector k), 10 frames of
  # generated white noise (the same every run), then 10 of silence.
  mkdir -p build-fuzz/seeds_encoder
  build/tools/make_test_audio signal white 8000 1 0.2 build-fuzz/white.wav
  k=0
  while [ "$k" -lt 18 ]; do
    { printf "\\$(printf %03o "$k")"; tail -c 3200 build-fuzz/white.wav; head -c 3200 /dev/zero; } \
      >"build-fuzz/seeds_encoder/seed$k"
    k=$((k + 1))
  done
  # Packet-file seeds: generated streams in the storage format, and a coded
  # voice-like signal in both formats.
  mkdir -p build-fuzz/seeds_storage build-fuzz/seeds_qcp
  for i in 1 2 3; do build/tools/make_stream "build-fuzz/seeds_storage/s$i" 40 "$i" speech --storage; done
  build/tools/make_stream build-fuzz/seeds_storage/e 40 4 erasures --storage
  build/tools/make_test_audio signal voice 8000 1 2 build-fuzz/voice.wav
  build/tools/kevrc encode -q build-fuzz/voice.wav build-fuzz/seeds_storage/voice.evrc
  build/tools/kevrc encode -q build-fuzz/voice.wav build-fuzz/seeds_qcp/voice.qcp
  # Depacketizer and capture seeds.
  mkdir -p build-fuzz/seeds_rtp/rtp build-fuzz/seeds_rtp/capture
  build-fuzz/fuzz/make_seeds build-fuzz/seeds_rtp
  end

  begin "fuzzers, ${fuzz_seconds} s each"
  fuzz "$fuzz_seconds" \
    fuzz_decoder 2048 build-fuzz/seeds_decoder \
    fuzz_encoder 16100 build-fuzz/seeds_encoder \
    fuzz_storage 2048 build-fuzz/seeds_storage \
    fuzz_qcp 4096 build-fuzz/seeds_qcp \
    fuzz_rtp 4096 build-fuzz/seeds_rtp/rtp \
    fuzz_capture 8192 build-fuzz/seeds_rtp/capture
  end
fi

echo "test.sh: stage durations"
printf '%s' "$summary"
printf '  %-38s %4d s\n' total $(( $(date +%s) - all_start ))
echo "test.sh: all tests passed"
