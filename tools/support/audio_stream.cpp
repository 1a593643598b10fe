// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Streaming audio input and output of the kevrc tool (libsndfile, libsoxr):
// format choice by type or extension, block reading with down-mixing and
// resampling to 8 kHz, block writing with resampling and channel copies.
// See audio_stream.h for the contract of each function.
#include "tools/support/audio_stream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <strings.h>

namespace kevrc::tool {
namespace {

constexpr int kCodecRate = 8000;
constexpr size_t kBlockSamples = 16384;  // interleaved samples per read
constexpr double kFullScale = 32768.0;   // libsndfile normalises to [-1, 1)

struct Name {
  const char *name;
  int value;
};

constexpr Name kEncodings[] = {
    {"s8", SF_FORMAT_PCM_S8},   {"u8", SF_FORMAT_PCM_U8},    {"s16", SF_FORMAT_PCM_16},
    {"s24", SF_FORMAT_PCM_24},  {"s32", SF_FORMAT_PCM_32},   {"f32", SF_FORMAT_FLOAT},
    {"f64", SF_FORMAT_DOUBLE},  {"ulaw", SF_FORMAT_ULAW},    {"mu-law", SF_FORMAT_ULAW},
    {"alaw", SF_FORMAT_ALAW},   {"a-law", SF_FORMAT_ALAW}};

// Types that are not libsndfile extensions: (name, major | default subtype).
constexpr Name kAliases[] = {
    {"raw", SF_FORMAT_RAW | SF_FORMAT_PCM_16}, {"pcm", SF_FORMAT_RAW | SF_FORMAT_PCM_16},
    {"ul", SF_FORMAT_RAW | SF_FORMAT_ULAW},    {"al", SF_FORMAT_RAW | SF_FORMAT_ALAW},
    {"aif", SF_FORMAT_AIFF},                   {"oga", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
    {"ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS}, {"opus", SF_FORMAT_OGG | SF_FORMAT_OPUS},
    {"mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III}};

int lookup(const Name *table, size_t n, const std::string &name) {
  for (size_t i = 0; i < n; ++i)
    if (strcasecmp(table[i].name, name.c_str()) == 0) return table[i].value;
  return 0;
}

// Major format (and maybe a default subtype) of a type name, 0 if unknown.
int type_format(const std::string &type) {
  if (const int alias = lookup(kAliases, std::size(kAliases), type)) return alias;
  int count = 0;
  sf_command(nullptr, SFC_GET_FORMAT_MAJOR_COUNT, &count, sizeof count);
  for (int i = 0; i < count; ++i) {
    SF_FORMAT_INFO fi{};
    fi.format = i;
    sf_command(nullptr, SFC_GET_FORMAT_MAJOR, &fi, sizeof fi);
    if (fi.extension != nullptr && strcasecmp(fi.extension, type.c_str()) == 0) return fi.format;
  }
  return 0;
}

std::string extension(const std::string &path) {
  const size_t dot = path.rfind('.');
  const size_t slash = path.rfind('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  return path.substr(dot + 1);
}

double clip16(double v) { return std::isnan(v) ? 0 : std::clamp(v, -32768.0, 32767.0); }
int16_t round16(double v) { return static_cast<int16_t>(std::lround(clip16(v))); }

bool rate_ok(int rate, const std::string &what, std::string &error) {
  if (rate >= kMinRate && rate <= kMaxRate) return true;
  error = what + ": sample rate " + std::to_string(rate) + " Hz is outside " +
          std::to_string(kMinRate) + ".." + std::to_string(kMaxRate) + " Hz";
  return false;
}

bool channels_ok(int channels, const std::string &what, std::string &error) {
  if (channels >= 1 && channels <= kMaxChannels) return true;
  error = what + ": " + std::to_string(channels) + " channels (1.." + std::to_string(kMaxChannels) +
          " supported)";
  return false;
}

soxr_t make_resampler(double from, double to, std::string &error) {
  const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
  const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
  soxr_error_t err = nullptr;
  soxr_t s = soxr_create(from, to, 1, &err, &io, &quality, nullptr);
  if (err != nullptr) error = std::string("resampler: ") + err;
  return err != nullptr ? nullptr : s;
}

// Feeds n samples (x == nullptr: end of input) through the resampler; out
// receives every output chunk.
template <typename Out>
bool run_resampler(soxr_t s, const double *x, size_t n, std::vector<double> &buf, Out &&out,
                   std::string &error) {
  const bool draining = x == nullptr;
  for (;;) {
    size_t used = 0, made = 0;
    const soxr_error_t err = soxr_process(s, x, n, draining ? nullptr : &used, buf.data(), buf.size(), &made);
    if (err != nullptr) {
      error = std::string("resampler: ") + err;
      return false;
    }
    if (made > 0 && !out(buf.data(), made)) return false;
    if (draining ? made == 0 : (used == n && made < buf.size())) return true;
    if (!draining) {
      x += used;
      n -= used;
    }
  }
}

}  // namespace

std::string sndfile_message(SNDFILE *file) {
  std::string m = sf_strerror(file);
  while (!m.empty() && (m.back() == '.' || m.back() == '\n' || m.back() == ' ')) m.pop_back();
  return m;
}

bool sndfile_format(const std::string &path, const AudioLayout &layout, bool writing, bool pipe, int *format,
                    std::string &error) {
  const std::string type = !layout.type.empty() ? layout.type : extension(path);
  int f = type.empty() ? 0 : type_format(type);
  if (writing && f == 0 && layout.type.empty() && pipe) f = SF_FORMAT_AU;
  if (!layout.type.empty() && f == 0) {
    error = "unknown type '" + layout.type + "'";
    return false;
  }
  if (writing && f == 0) f = SF_FORMAT_WAV;
  const bool raw = (f & SF_FORMAT_TYPEMASK) == SF_FORMAT_RAW;
  if (!writing && !raw) {
    *format = 0;
    if (layout.rate != 0 || layout.channels != 0 || !layout.encoding.empty()) {
      error = "--rate, --channels and --encoding describe raw input only (--type raw, .raw, .ul, .al)";
      return false;
    }
    return true;
  }
  int sub = f & SF_FORMAT_SUBMASK;
  if (!layout.encoding.empty()) {
    sub = lookup(kEncodings, std::size(kEncodings), layout.encoding);
    if (sub == 0) {
      error = "unknown encoding '" + layout.encoding + "' (s8 u8 s16 s24 s32 f32 f64 ulaw alaw)";
      return false;
    }
  }
  *format = (f & SF_FORMAT_TYPEMASK) | (sub != 0 ? sub : SF_FORMAT_PCM_16);
  SF_INFO probe{};
  probe.samplerate = kCodecRate;
  probe.channels = 1;
  probe.format = *format;
  if (!sf_format_check(&probe)) {
    error = "cannot use " + describe_format(*format);
    return false;
  }
  return true;
}

std::string type_extension(const std::string &type) {
  if (type.empty()) return "wav";
  if (lookup(kAliases, std::size(kAliases), type) != 0) return type;
  const int f = type_format(type);
  SF_FORMAT_INFO fi{};
  fi.format = f & SF_FORMAT_TYPEMASK;
  return sf_command(nullptr, SFC_GET_FORMAT_INFO, &fi, sizeof fi) == 0 && fi.extension ? fi.extension : type;
}

std::string describe_format(int format) {
  std::string text;
  for (const int part : {format & SF_FORMAT_TYPEMASK, format & SF_FORMAT_SUBMASK}) {
    SF_FORMAT_INFO fi{};
    fi.format = part;
    const bool known = sf_command(nullptr, SFC_GET_FORMAT_INFO, &fi, sizeof fi) == 0;
    text += (text.empty() ? "" : ", ") + std::string(known ? fi.name : "unknown");
  }
  return text;
}

// ---------------------------------------------------------------- reading

AudioReader::~AudioReader() {
  if (file_ != nullptr) sf_close(file_);
  if (soxr_ != nullptr) soxr_delete(soxr_);
}

bool AudioReader::open(const std::string &path, const AudioLayout &layout, std::string &error) {
  path_ = path;
  int format = 0;
  if (!sndfile_format(path, layout, false, false, &format, error)) {
    error = path + ": " + error;
    return false;
  }
  if (format != 0) {
    info_.format = format;
    info_.samplerate = layout.rate != 0 ? layout.rate : kCodecRate;
    info_.channels = layout.channels != 0 ? layout.channels : 1;
    if (!rate_ok(info_.samplerate, path, error) || !channels_ok(info_.channels, path, error)) return false;
  }
  if (path != "-" && access(path.c_str(), R_OK) != 0) {
    error = path + ": " + std::strerror(errno);
    return false;
  }
  file_ = path == "-" ? sf_open_fd(STDIN_FILENO, SFM_READ, &info_, SF_FALSE)
                      : sf_open(path.c_str(), SFM_READ, &info_);
  if (file_ == nullptr) {
    error = path + ": " + sndfile_message(nullptr);
    return false;
  }
  if (!rate_ok(info_.samplerate, path, error) || !channels_ok(info_.channels, path, error)) return false;
  if (info_.samplerate != kCodecRate && (soxr_ = make_resampler(info_.samplerate, kCodecRate, error)) == nullptr) {
    error = path + ": " + error;
    return false;
  }
  const size_t frames = std::max<size_t>(1, kBlockSamples / static_cast<size_t>(info_.channels));
  block_.resize(frames * static_cast<size_t>(info_.channels));
  mono_.resize(frames);
  resampled_.resize(kBlockSamples);
  pcm_.resize(kBlockSamples);
  return true;
}

bool AudioReader::emit(const double *y, size_t n, const Sink &sink) {
  for (size_t i = 0; i < n; ++i) pcm_[i] = round16(y[i]);
  return sink(pcm_.data(), n);
}

bool AudioReader::resample(const double *x, size_t n, const Sink &sink, std::string &error) {
  if (soxr_ == nullptr) return x == nullptr || emit(x, n, sink);
  const auto out = [&](const double *y, size_t m) { return emit(y, m, sink); };
  if (run_resampler(soxr_, x, n, resampled_, out, error)) return true;
  if (!error.empty()) error = path_ + ": " + error;
  return false;
}

bool AudioReader::pump(const Sink &sink, std::string &error) {
  const size_t channels = static_cast<size_t>(info_.channels);
  const sf_count_t want = static_cast<sf_count_t>(mono_.size());
  sf_count_t got;
  while ((got = sf_readf_double(file_, block_.data(), want)) > 0) {
    frames_read_ += got;
    for (sf_count_t i = 0; i < got; ++i) {
      const double *frame = &block_[static_cast<size_t>(i) * channels];
      double sum = 0;
      for (size_t c = 0; c < channels; ++c) sum += frame[c];
      mono_[static_cast<size_t>(i)] = sum / static_cast<double>(channels) * kFullScale;
    }
    if (!resample(mono_.data(), static_cast<size_t>(got), sink, error)) return false;
  }
  if (sf_error(file_) != SF_ERR_NO_ERROR) {
    error = path_ + ": read error: " + sndfile_message(file_);
    return false;
  }
  return resample(nullptr, 0, sink, error);
}

// ---------------------------------------------------------------- writing

AudioWriter::~AudioWriter() {
  if (file_ != nullptr) sf_close(file_);
  if (soxr_ != nullptr) soxr_delete(soxr_);
}

bool AudioWriter::open(int fd, const std::string &name, const AudioLayout &layout, std::string &error) {
  info_.samplerate = layout.rate != 0 ? layout.rate : kCodecRate;
  info_.channels = layout.channels != 0 ? layout.channels : 1;
  struct stat st {};
  const bool pipe = fstat(fd, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode));
  if (!sndfile_format(name, layout, true, pipe, &info_.format, error) || !rate_ok(info_.samplerate, "--rate", error) ||
      !channels_ok(info_.channels, "--channels", error))
    return false;
  file_ = sf_open_fd(fd, SFM_WRITE, &info_, SF_FALSE);
  if (file_ == nullptr) {
    error = describe_format(info_.format) + ": " + sndfile_message(nullptr);
    return false;
  }
  if (info_.samplerate != kCodecRate && (soxr_ = make_resampler(kCodecRate, info_.samplerate, error)) == nullptr)
    return false;
  out_.resize(kBlockSamples);
  return true;
}

bool AudioWriter::put(const int16_t *mono, size_t n, std::string &error) {
  const size_t channels = static_cast<size_t>(info_.channels);
  const int16_t *frames = mono;
  if (channels > 1) {
    frames_.resize(n * channels);
    for (size_t i = 0; i < n; ++i) std::fill_n(&frames_[i * channels], channels, mono[i]);
    frames = frames_.data();
  }
  const sf_count_t count = static_cast<sf_count_t>(n);
  if (sf_writef_short(file_, frames, count) == count) return true;
  error = "write error: " + sndfile_message(file_);
  return false;
}

bool AudioWriter::put_rounded(const double *y, size_t n, std::string &error) {
  mono_.resize(n);
  for (size_t i = 0; i < n; ++i) mono_[i] = round16(y[i]);
  return put(mono_.data(), n, error);
}

bool AudioWriter::write(const int16_t *samples, size_t n, std::string &error) {
  if (soxr_ == nullptr) return put(samples, n, error);
  in_.assign(samples, samples + n);
  const auto out = [&](const double *y, size_t m) { return put_rounded(y, m, error); };
  return run_resampler(soxr_, in_.data(), n, out_, out, error);
}

bool AudioWriter::finish(std::string &error) {
  bool ok = true;
  if (soxr_ != nullptr) {
    const auto out = [&](const double *y, size_t m) { return put_rounded(y, m, error); };
    ok = run_resampler(soxr_, nullptr, 0, out_, out, error);
  }
  const int status = sf_close(file_);
  file_ = nullptr;
  if (ok && status != 0) {
    error = "cannot complete the audio file";
    ok = false;
  }
  return ok;
}

}  // namespace kevrc::tool
