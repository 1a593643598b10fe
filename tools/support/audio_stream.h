// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Streaming audio for the kevrc tool: any libsndfile format in and out, raw
// PCM / mu-law / A-law like sox, resampling with libsoxr's streaming
// interface, in blocks of constant size whatever the length of the file.
//
//  AudioLayout (in): --type, --rate, --channels, --encoding as given (empty or
//    0 when not given). Types are libsndfile's file extensions (wav, au,
//    aiff, flac, caf, w64, ogg, ...) plus raw, pcm, ul (raw mu-law) and al
//    (raw A-law); encodings s8 u8 s16 s24 s32 f32 f64 ulaw alaw.
//  AudioReader::open(path, layout, error): "-" is standard input. A raw input
//    (by type or extension .raw .pcm .ul .al) takes rate, channels and
//    encoding from layout (defaults 8000 Hz, 1 channel, s16, or the encoding of
//    .ul / .al); any other file is identified by libsndfile from its content.
//    Rates outside kMinRate..kMaxRate and more than kMaxChannels channels
//    are refused with a one-line error.
//  AudioReader::pump(sink, error): reads the whole input, averages the
//    channels, resamples to 8000 Hz (SOXR_HQ; none at 8 kHz), rounds to 16
//    bits (nearest, clipped) and hands the samples to sink in chunks; sink
//    returns false to stop. frames_read() counts input frames so far.
//  AudioWriter::open(fd, name, layout, error): writes 16-bit samples at 8000 Hz
//    given to write() as layout.rate Hz (default 8000; resampled) with
//    layout.channels identical channels (default 1) to the descriptor fd, in
//    the format of layout.type or of name's extension (when unknown: WAV, or
//    AU on a pipe) and layout.encoding (default s16, or that of the type).
//    finish(error) drains the resampler and completes the file.
#pragma once

#include <sndfile.h>
#include <soxr.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kevrc::tool {

constexpr int kMinRate = 1000;
constexpr int kMaxRate = 768000;
constexpr int kMaxChannels = 1024;

struct AudioLayout {
  std::string type;
  int rate = 0;
  int channels = 0;
  std::string encoding;
};

class AudioReader {
 public:
  AudioReader() = default;
  AudioReader(const AudioReader &) = delete;
  AudioReader &operator=(const AudioReader &) = delete;
  ~AudioReader();

  bool open(const std::string &path, const AudioLayout &layout, std::string &error);
  using Sink = std::function<bool(const int16_t *samples, size_t n)>;
  bool pump(const Sink &sink, std::string &error);
  const SF_INFO &info() const { return info_; }
  int64_t frames_read() const { return frames_read_; }

 private:
  bool resample(const double *x, size_t n, const Sink &sink, std::string &error);
  bool emit(const double *y, size_t n, const Sink &sink);

  std::string path_;
  SNDFILE *file_ = nullptr;
  SF_INFO info_{};
  soxr_t soxr_ = nullptr;
  int64_t frames_read_ = 0;
  std::vector<double> block_, mono_, resampled_;
  std::vector<int16_t> pcm_;
};

class AudioWriter {
 public:
  AudioWriter() = default;
  AudioWriter(const AudioWriter &) = delete;
  AudioWriter &operator=(const AudioWriter &) = delete;
  ~AudioWriter();

  bool open(int fd, const std::string &name, const AudioLayout &layout, std::string &error);
  bool write(const int16_t *samples, size_t n, std::string &error);
  bool finish(std::string &error);

 private:
  bool put(const int16_t *mono, size_t n, std::string &error);
  bool put_rounded(const double *y, size_t n, std::string &error);

  SNDFILE *file_ = nullptr;
  SF_INFO info_{};
  soxr_t soxr_ = nullptr;
  std::vector<double> in_, out_;
  std::vector<int16_t> mono_, frames_;
};

// The libsndfile format of a path and layout: for reading 0 means "by content";
// for writing, a name without a known extension gives WAV, or AU on a pipe.
bool sndfile_format(const std::string &path, const AudioLayout &layout, bool writing, bool pipe, int *format,
                    std::string &error);
// The file name extension of a type for output naming ("wav" for "").
std::string type_extension(const std::string &type);
// What libsndfile says about a format: "WAV (Microsoft), Signed 16 bit PCM".
std::string describe_format(int format);
// libsndfile's last message without its final full stop.
std::string sndfile_message(SNDFILE *file);

}  // namespace kevrc::tool
