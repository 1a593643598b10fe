#!/bin/sh
# Quick start: installs what is missing, builds, and runs the main job.
#
# The main job decodes a packet file to a WAV file with the kevrc tool. Until
# the encoder lands, the packet file is generated (runs of full-, half- and
# eighth-rate packets with random parameters and a few erasures).
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build build
mkdir -p out
build/tools/make_stream out/demo.evrc 500 1 speech --storage
build/tools/kevrc decode out/demo.evrc out/demo.wav
echo "quickstart: wrote out/demo.wav (8 kHz, 16-bit mono) from out/demo.evrc"
