// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Speech corpus access for the training and measurement tools.
//
// The corpus is the four voices of Debian's asterisk-core-sounds-{en,es,fr,it}-wav
// packages (8 kHz, 16-bit mono WAV), installed by scripts/install-deps.sh
// --corpus. It is never committed. A fixed 10 % of the files is held out for
// measurement: a file is held out when the FNV-1a hash of its path relative
// to the sounds directory (e.g. "en_US_f_Allison/cancelled.wav") is 0 mod 10.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kevrc::corpus {

constexpr const char *kDefaultRoot = "/usr/share/asterisk/sounds";
// The four voice directories, in a fixed order.
extern const char *const kVoices[4];

enum class Split { Training, HeldOut, All };

// Relative paths ("voice/file.wav"), sorted, of the chosen split. Empty when
// the corpus is not installed.
std::vector<std::string> files(Split split, const std::string &root = kDefaultRoot);
bool is_held_out(const std::string &relative_path);

// Reads a WAV file as 16-bit mono at 8 kHz; other rates or channel counts are
// rejected (the corpus has none). Returns false with a message on failure.
bool read_pcm(const std::string &path, std::vector<int16_t> &samples, std::string &error);

}  // namespace kevrc::corpus
