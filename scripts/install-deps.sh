#!/bin/sh
# SPDX-License-Identifier: BSD-3-Clause
# Copyright (c) the kevrc authors
# Installs the Debian packages the build, the tools and the tests need.
#   install-deps.sh [--test] [--corpus] [--bench]
#     --test    adds clang for the fuzzer and groff for the manual page test
#     --corpus  adds the speech recordings the training and measurement
#               tools read (asterisk-core-sounds-{en,es,fr,it}-wav)
#     --bench   adds the peer codecs kevrc_bench times (AMR-NB, G.729A,
#               Speex, Opus) and valgrind for the profile
set -eu
packages="build-essential cmake ninja-build pkg-config libsndfile1-dev libsoxr-dev libpcap-dev libgtest-dev"
for arg in "$@"; do
  case "$arg" in
    --test) packages="$packages clang libclang-rt-14-dev groff-base" ;;
    --corpus) packages="$packages asterisk-core-sounds-en-wav asterisk-core-sounds-es-wav asterisk-core-sounds-fr-wav asterisk-core-sounds-it-wav" ;;
    --bench) packages="$packages libopencore-amrnb-dev libbcg729-dev libspeex-dev libopus-dev valgrind" ;;
    *) echo "install-deps: unknown option $arg" >&2; exit 2 ;;
  esac
done
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then sudo_cmd=sudo; else
    echo "install-deps: missing packages:$missing (run as root)" >&2
    exit 1
  fi
else
  sudo_cmd=""
fi
echo "install-deps: installing$missing"
$sudo_cmd apt-get update -q
DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -q --no-install-recommends $missing
