#!/bin/sh
# The whole test suite: installs what is missing, builds twice (optimised, and
# with AddressSanitizer + UndefinedBehaviorSanitizer) and runs every test in
# both builds (the end-to-end tests read held-out speech from the corpus
# packages it installs); then builds the decoder and encoder fuzzers with
# clang and runs each briefly.
#   test.sh [FUZZ_SECONDS]   (seconds per fuzzer, default 60; 0 skips them)
set -eu
cd "$(dirname "$0")/.."
fuzz_seconds=${1:-60}
sh scripts/install-deps.sh --test --corpus
jobs=$(nproc 2>/dev/null || echo 2)

echo "== optimised build"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DKEVRC_WERROR=ON
cmake --build build
ctest --test-dir build --output-on-failure -j "$jobs"

echo "== consumer builds"
sh scripts/check-consumers.sh build

echo "== sanitizer build (address, undefined; no recovery)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKEVRC_SANITIZE=ON -DKEVRC_WERROR=ON
cmake --build build-asan
ctest --test-dir build-asan --output-on-failure -j "$jobs"

if [ "$fuzz_seconds" -gt 0 ] && command -v clang++ >/dev/null 2>&1; then
  echo "== decoder fuzzer, ${fuzz_seconds} s"
  CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKEVRC_SANITIZE=ON -DKEVRC_BUILD_FUZZERS=ON -DKEVRC_BUILD_TESTS=OFF -DKEVRC_BUILD_TOOLS=OFF \
    -DKEVRC_BUILD_EXAMPLES=OFF -DKEVRC_WERROR=ON
  cmake --build build-fuzz
  seeds=build-fuzz/seeds
  mkdir -p "$seeds" build-fuzz/corpus
  i=0
  for kind in speech erasures recovery garbage; do
    for selector in 33 0 37 10 160 45; do
      i=$((i + 1))
      build/tools/make_stream "$seeds/seed$i" 40 "$i" "$kind" --fuzz "$selector"
    done
  done
  log=build-fuzz/fuzz.log
  if ! build-fuzz/fuzz/fuzz_decoder -max_total_time="$fuzz_seconds" -max_len=2048 -print_final_stats=1 \
      -artifact_prefix=build-fuzz/ build-fuzz/corpus "$seeds" >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "test.sh: the fuzzer found a failure (input saved in build-fuzz/)" >&2
    exit 1
  fi
  tail -n 12 "$log"

  echo "== encoder fuzzer, ${fuzz_seconds} s"
  eseeds=build-fuzz/enc_seeds
  mkdir -p "$eseeds" build-fuzz/enc_corpus
  # One seed per valid creation record (selector k): 10 frames of noise, then
  # 10 of silence.
  k=0
  while [ "$k" -lt 18 ]; do
    { printf "\\$(printf %03o "$k")"; head -c 3200 /dev/urandom; head -c 3200 /dev/zero; } >"$eseeds/seed$k"
    k=$((k + 1))
  done
  log=build-fuzz/fuzz_encoder.log
  if ! build-fuzz/fuzz/fuzz_encoder -max_total_time="$fuzz_seconds" -max_len=16100 -print_final_stats=1 \
      -artifact_prefix=build-fuzz/enc_ build-fuzz/enc_corpus "$eseeds" >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "test.sh: the encoder fuzzer found a failure (input saved in build-fuzz/)" >&2
    exit 1
  fi
  tail -n 12 "$log"
fi
echo "test.sh: all tests passed"
