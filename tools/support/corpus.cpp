// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
#include "tools/support/corpus.h"

#include <sndfile.h>

#include <algorithm>
#include <filesystem>

namespace kevrc::corpus {

const char *const kVoices[4] = {"en_US_f_Allison", "es_MX_f_Allison", "fr_CA_f_June",
                                "it_IT_m_Carlo"};

bool is_held_out(const std::string &relative_path) {
  uint32_t h = 2166136261u;
  for (unsigned char c : relative_path) h = (h ^ c) * 16777619u;
  return h % 10 == 0;
}

std::vector<std::string> files(Split split, const std::string &root) {
  namespace fs = std::filesystem;
  std::vector<std::string> out;
  for (const char *voice : kVoices) {
    fs::path dir = fs::path(root) / voice;
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) continue;
    for (auto it = fs::recursive_directory_iterator(dir, fs::directory_options::follow_directory_symlink, ec);
         it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (ec) break;
      if (!it->is_regular_file(ec) || it->path().extension() != ".wav") continue;
      std::string rel = fs::relative(it->path(), root, ec).generic_string();
      bool held = is_held_out(rel);
      if (split == Split::All || (split == Split::HeldOut) == held) out.push_back(rel);
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

bool read_pcm(const std::string &path, std::vector<int16_t> &samples, std::string &error) {
  SF_INFO info{};
  SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
  if (f == nullptr) {
    error = path + ": " + sf_strerror(nullptr);
    return false;
  }
  bool ok = info.samplerate == 8000 && info.channels == 1;
  if (!ok) {
    error = path + ": not 8 kHz mono";
  } else {
    samples.resize(static_cast<size_t>(info.frames));
    sf_count_t got = sf_read_short(f, samples.data(), info.frames);
    samples.resize(static_cast<size_t>(got < 0 ? 0 : got));
  }
  sf_close(f);
  return ok;
}

}  // namespace kevrc::corpus
