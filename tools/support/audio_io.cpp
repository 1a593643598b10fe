// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Audio reading (libsndfile), down-mixing, resampling to 8 kHz (libsoxr),
// 16-bit conversion, WAV writing and the temporary-file-and-rename helper of
// the command-line tools. See audio_io.h for the contract of each function.
#include "tools/support/audio_io.h"

#include <sndfile.h>
#include <soxr.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kevrc::audio {
namespace {

constexpr double kFullScale = 32768.0;  // libsndfile normalises samples to [-1, 1)
constexpr sf_count_t kChunkFrames = 4096;

// libsndfile's messages end with a full stop; ours are one bare line.
std::string sndfile_message(SNDFILE *f) {
  std::string m = sf_strerror(f);
  while (!m.empty() && (m.back() == '.' || m.back() == '\n' || m.back() == ' ')) m.pop_back();
  return m;
}

// Average of the channels of every frame, in 16-bit units.
bool read_downmixed(const std::string &path, std::vector<double> &mono, FileInfo &info,
                    std::string &error) {
  if (access(path.c_str(), R_OK) != 0) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  SF_INFO sfi{};
  SNDFILE *f = sf_open(path.c_str(), SFM_READ, &sfi);
  if (f == nullptr) {
    error = path + ": " + sndfile_message(nullptr);
    return false;
  }
  if (sfi.channels < 1 || sfi.samplerate < 1) {
    sf_close(f);
    error = path + ": no audio channels or no sample rate";
    return false;
  }
  info = {sfi.samplerate, sfi.channels, static_cast<int64_t>(sfi.frames)};
  const size_t channels = static_cast<size_t>(sfi.channels);
  std::vector<double> chunk(static_cast<size_t>(kChunkFrames) * channels);
  mono.clear();
  sf_count_t got;
  while ((got = sf_readf_double(f, chunk.data(), kChunkFrames)) > 0) {
    for (sf_count_t i = 0; i < got; ++i) {
      double sum = 0;
      for (size_t c = 0; c < channels; ++c) sum += chunk[static_cast<size_t>(i) * channels + c];
      mono.push_back(sum / static_cast<double>(channels) * kFullScale);
    }
  }
  const bool ok = sf_error(f) == SF_ERR_NO_ERROR;
  if (!ok) error = path + ": read error: " + sndfile_message(f);
  sf_close(f);
  return ok;
}

// High-quality resampling of the whole signal in one call; the output has
// round(n * 8000 / rate) samples and no filter delay.
bool resample_to_8k(std::vector<double> &x, int rate, std::string &error) {
  if (rate == kCodecRate || x.empty()) return true;
  const size_t out_len = static_cast<size_t>(
      std::llround(static_cast<double>(x.size()) * kCodecRate / static_cast<double>(rate)));
  std::vector<double> y(out_len);
  size_t done = 0;
  const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
  const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
  const soxr_error_t err = soxr_oneshot(rate, kCodecRate, 1, x.data(), x.size(), nullptr, y.data(),
                                        out_len, &done, &io, &quality, nullptr);
  if (err != nullptr) {
    error = std::string("resampling failed: ") + err;
    return false;
  }
  y.resize(done);
  x.swap(y);
  return true;
}

// The writer's messages name the temporary file; the user knows the target.
std::string name_target(std::string message, const std::string &tmp, const std::string &path) {
  for (size_t at; (at = message.find(tmp)) != std::string::npos;) message.replace(at, tmp.size(), path);
  return message;
}

}  // namespace

bool read_mono_8k(const std::string &path, std::vector<double> &samples, std::string &error,
                  FileInfo *info) {
  FileInfo stored;
  if (!read_downmixed(path, samples, stored, error)) return false;
  if (info != nullptr) *info = stored;
  if (!resample_to_8k(samples, stored.sample_rate, error)) {
    error = path + ": " + error;
    return false;
  }
  return true;
}

std::vector<int16_t> to_pcm16(const std::vector<double> &x) {
  std::vector<int16_t> out(x.size());
  for (size_t i = 0; i < x.size(); ++i) {
    double v = x[i];
    if (std::isnan(v)) v = 0;
    v = v < -32768.0 ? -32768.0 : (v > 32767.0 ? 32767.0 : v);
    out[i] = static_cast<int16_t>(std::lround(v));
  }
  return out;
}

bool read_pcm16_mono_8k(const std::string &path, std::vector<int16_t> &samples, std::string &error,
                        FileInfo *info) {
  std::vector<double> x;
  if (!read_mono_8k(path, x, error, info)) return false;
  samples = to_pcm16(x);
  return true;
}

bool write_wav16(const std::string &path, const int16_t *interleaved, size_t frames, int sample_rate,
                 int channels, std::string &error) {
  SF_INFO info{};
  info.samplerate = sample_rate;
  info.channels = channels;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  SNDFILE *f = sf_open(path.c_str(), SFM_WRITE, &info);
  if (f == nullptr) {
    error = "cannot write " + path + ": " + sndfile_message(nullptr);
    return false;
  }
  const sf_count_t n = static_cast<sf_count_t>(frames);
  const bool written = sf_writef_short(f, interleaved, n) == n;
  if (!written) error = "cannot write " + path + ": " + sndfile_message(f);
  if (sf_close(f) != 0 && written) {
    error = "cannot write " + path + ": closing failed";
    return false;
  }
  return written;
}

bool write_atomically(const std::string &path, const FileWriter &write, std::string &error) {
  std::string tmp = path + ".XXXXXX";
  const int fd = mkstemp(tmp.data());
  if (fd < 0) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  // mkstemp makes the file private; give it the mode a plain create would.
  const mode_t mask = umask(0);
  umask(mask);
  const int chmod_status = fchmod(fd, 0666 & ~mask);
  close(fd);
  std::string write_error;
  if (chmod_status != 0 || !write(tmp, write_error)) {
    unlink(tmp.c_str());
    error = write_error.empty() ? "cannot write " + path : name_target(write_error, tmp, path);
    return false;
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    const int e = errno;
    unlink(tmp.c_str());
    error = "cannot write " + path + ": " + std::strerror(e);
    return false;
  }
  return true;
}

}  // namespace kevrc::audio
