// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Option parsing, messages, packet-file byte streams and the one-file /
// batch runner shared by the kevrc commands. See cli.h.
#include "tools/kevrc/cli.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <thread>

#include "tools/kevrc/commands.h"
#include "tools/support/batch.h"

namespace kevrc::tool {
namespace {

struct OptionSpec {
  const char *name;
  char short_name;
  bool takes_value;
  unsigned commands;
};

constexpr OptionSpec kOptions[] = {
    {"--output-dir", 'o', true, kEncode | kDecode}, {"--jobs", 'j', true, kEncode | kDecode},
    {"--quiet", 'q', false, kEncode | kDecode | kInfo}, {"--verbose", 'v', false, kEncode | kDecode},
    {"--help", 'h', false, kEncode | kDecode | kInfo}, {"--type", 't', true, kEncode | kDecode},
    {"--rate", 'r', true, kEncode | kDecode},         {"--channels", 'c', true, kEncode | kDecode},
    {"--encoding", 'e', true, kEncode | kDecode},     {"--format", 'f', true, kEncode},
    {"--min-rate", 0, true, kEncode},                 {"--max-rate", 0, true, kEncode},
    {"--ns", 0, false, kEncode},                      {"--no-ns", 0, false, kEncode},
    {"--no-postfilter", 0, false, kDecode},           {"--strict", 0, false, kDecode | kInfo},
    {"--json", 0, false, kInfo},                      {"--rtp", 0, true, kEncode},
    {"--bundle", 0, true, kEncode},                   {"--interleave", 0, true, kEncode},
    {"--dst", 0, true, kEncode},                      {"--pt", 0, true, kEncode | kDecode | kInfo},
    {"--ssrc", 0, true, kDecode},                     {"--classic", 0, false, kEncode}};

const char *command_name(Command c) { return c == kEncode ? "encode" : c == kDecode ? "decode" : "info"; }

const OptionSpec *find_option(const std::string &arg, Command command) {
  for (const OptionSpec &o : kOptions) {
    const bool match = arg == o.name || (o.short_name != 0 && arg.size() == 2 && arg[1] == o.short_name);
    if (match && (o.commands & command) != 0) return &o;
  }
  return nullptr;
}

bool parse_int(const std::string &name, const std::string &value, long lo, long hi, long *out) {
  char *end = nullptr;
  errno = 0;
  const long v = std::strtol(value.c_str(), &end, 10);
  if (value.empty() || *end != '\0' || errno != 0 || v < lo || v > hi) {
    usage_error(name + ": expected a number in " + std::to_string(lo) + ".." + std::to_string(hi) +
                ", got '" + value + "'");
    return false;
  }
  *out = v;
  return true;
}

// Applies one option; false after a usage error.
bool apply(const std::string &name, const std::string &value, Options &opt) {
  long n = 0;
  if (name == "--output-dir") opt.out_dir = value;
  else if (name == "--jobs") return parse_int(name, value, 1, 1024, &n) && (opt.jobs = static_cast<unsigned>(n), true);
  else if (name == "--quiet") opt.quiet = true;
  else if (name == "--verbose") opt.verbose = true;
  else if (name == "--type") opt.audio.type = value;
  else if (name == "--rate") return parse_int(name, value, kMinRate, kMaxRate, &n) && (opt.audio.rate = static_cast<int>(n), true);
  else if (name == "--channels") return parse_int(name, value, 1, kMaxChannels, &n) && (opt.audio.channels = static_cast<int>(n), true);
  else if (name == "--encoding") opt.audio.encoding = value;
  else if (name == "--format") {
    if (value != "storage" && value != "qcp" && value != "pcap")
      return usage_error("--format: expected storage, qcp or pcap, got '" + value + "'"), false;
    opt.format = value;
  } else if (name == "--min-rate") return parse_int(name, value, 1, 4, &n) && (opt.min_rate = static_cast<int>(n), true);
  else if (name == "--max-rate") return parse_int(name, value, 1, 4, &n) && (opt.max_rate = static_cast<int>(n), true);
  else if (name == "--ns" || name == "--no-ns") opt.noise_suppression = name == "--ns";
  else if (name == "--classic") opt.classic = true;
  else if (name == "--no-postfilter") opt.postfilter = false;
  else if (name == "--strict") opt.strict = true;
  else if (name == "--json") opt.json = true;
  else if (name == "--rtp") {
    if (value != "header-free" && value != "interleaved")
      return usage_error("--rtp: expected header-free or interleaved, got '" + value + "'"), false;
    opt.interleaved = value == "interleaved";
  } else if (name == "--bundle") return parse_int(name, value, 1, 32, &n) && (opt.bundle = static_cast<int>(n), true);
  else if (name == "--interleave") return parse_int(name, value, 0, 7, &n) && (opt.interleave = static_cast<int>(n), true);
  else if (name == "--pt") return parse_int(name, value, 0, 127, &n) && (opt.payload_type = static_cast<int>(n), true);
  else if (name == "--dst") opt.dst = value;
  else if (name == "--ssrc") {
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(value.c_str(), &end, 0);
    if (value.empty() || *end != '\0' || errno != 0 || v < 0 || v > 0xFFFFFFFFll)
      return usage_error("--ssrc: expected a 32-bit number (0x... for hex), got '" + value + "'"), false;
    opt.ssrc = v;
  }
  return true;
}

bool check_rates(const Options &opt) {
  const bool ok = (opt.min_rate == 1 || opt.min_rate >= 3) && (opt.max_rate == 1 || opt.max_rate >= 3) &&
                  opt.min_rate <= opt.max_rate;
  if (!ok) usage_error("rate bounds must be codes 1, 3 or 4 with --min-rate <= --max-rate");
  return ok;
}

std::string output_name(const std::string &dir, const std::string &in, const std::string &extension) {
  std::string base = in.substr(in.rfind('/') + 1);
  const size_t dot = base.rfind('.');
  if (dot != std::string::npos && dot > 0) base.resize(dot);
  return dir + "/" + base + "." + extension;
}

}  // namespace

int usage_error(const std::string &message) {
  std::fprintf(stderr, "kevrc: %s (see kevrc help)\n", message.c_str());
  return kExitUsage;
}

bool fail(const std::string &message) {
  std::fprintf(stderr, "kevrc: %s\n", message.c_str());
  return false;
}

void warn(const Options &opt, const std::string &message) {
  if (!opt.quiet) std::fprintf(stderr, "kevrc: warning: %s\n", message.c_str());
}

ParseResult parse_options(Command command, int argc, char **argv, Options &opt) {
  bool options_done = false;
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i], value;
    if (options_done || arg == "-" || arg[0] != '-') {
      opt.files.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_done = true;
      continue;
    }
    const size_t eq = arg.find('=');
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      value = arg.substr(eq + 1);
      arg.resize(eq);
    }
    const OptionSpec *o = find_option(arg, command);
    if (o == nullptr) return usage_error(std::string(command_name(command)) + ": unknown option '" + arg + "'"), kUsageError;
    if (o->takes_value && eq == std::string::npos) {
      if (i + 1 >= argc) return usage_error(arg + ": missing value"), kUsageError;
      value = argv[++i];
    }
    if (std::strcmp(o->name, "--help") == 0) return kHelp;
    if (!apply(o->name, value, opt)) return kUsageError;
  }
  if (command == kEncode && !check_rates(opt)) return kUsageError;
  const bool batch = !opt.out_dir.empty();
  if (command == kInfo ? opt.files.empty() : batch ? opt.files.empty() : opt.files.size() != 2) {
    usage_error(std::string(command_name(command)) +
                (command == kInfo ? ": expected FILE..." : batch ? ": expected IN... after -o DIR" : ": expected IN and OUT (or -o DIR IN...)"));
    return kUsageError;
  }
  return kParsed;
}

int parse_command(Command command, int argc, char **argv, Options &opt) {
  const ParseResult parsed = parse_options(command, argc, argv, opt);
  if (parsed == kHelp) return print_help(command_name(command), stdout);
  return parsed == kParsed ? -1 : kExitUsage;
}

bool fail_coding(const std::string &in, const std::string &out, const std::string &error) {
  return fail(error.rfind(in + ": ", 0) == 0 ? error : out + ": " + error);
}

int run_files(const Options &opt, const char *what, const std::string &extension, CodeFile code) {
  if (opt.out_dir.empty()) return code(opt, opt.files[0], opt.files[1], true) ? kExitOk : kExitFailure;
  struct stat st {};
  if (stat(opt.out_dir.c_str(), &st) != 0) return fail(opt.out_dir + ": " + std::strerror(errno)), kExitFailure;
  if (!S_ISDIR(st.st_mode)) return fail(opt.out_dir + ": not a directory"), kExitFailure;
  // Two inputs with one base name would write one output from two threads.
  std::map<std::string, std::string> writers;  // output -> its input
  for (const std::string &in : opt.files) {
    const auto [at, fresh] = writers.emplace(output_name(opt.out_dir, in, extension), in);
    if (!fresh && in != "-") return fail(at->second + " and " + in + " would both write " + at->first), kExitUsage;
  }
  const unsigned threads = opt.jobs != 0 ? opt.jobs : std::max(1u, std::thread::hardware_concurrency());
  const auto run = [&](size_t i) {
    const std::string &in = opt.files[i];
    if (in == "-") return fail("-: standard input cannot be part of a batch");
    return code(opt, in, output_name(opt.out_dir, in, extension), false);
  };
  const size_t failed = run_batch(opt.files.size(), threads, run);
  if (!opt.quiet || failed > 0)
    std::fprintf(stderr, "kevrc: %s %zu of %zu files%s%s\n", what, opt.files.size() - failed, opt.files.size(),
                 failed > 0 ? ", failed: " : "", failed > 0 ? std::to_string(failed).c_str() : "");
  return failed == 0 ? kExitOk : kExitFailure;
}

ByteSource::~ByteSource() {
  if (file_ != nullptr && file_ != stdin) std::fclose(file_);
}

bool ByteSource::open(const std::string &path, std::string &error) {
  file_ = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  struct stat st {};
  if (file_ == nullptr || fstat(fileno(file_), &st) != 0 || S_ISDIR(st.st_mode)) {
    error = path + ": " + (file_ != nullptr ? "is a directory" : std::strerror(errno));
    return false;
  }
  if (S_ISREG(st.st_mode)) size_ = st.st_size;
  return true;
}

int64_t ByteSource::read(void *self, uint8_t *buf, size_t size) {
  auto *s = static_cast<ByteSource *>(self);
  const size_t n = std::fread(buf, 1, size, s->file_);
  s->done_ += static_cast<int64_t>(n);
  return n < size && std::ferror(s->file_) ? -1 : static_cast<int64_t>(n);
}

double ByteSource::fraction() const { return size_ > 0 ? static_cast<double>(done_) / static_cast<double>(size_) : -1; }

bool ByteSink::write(const uint8_t *data, size_t n) {
  buf_.insert(buf_.end(), data, data + n);
  return buf_.size() < 65536 || flush();
}

bool ByteSink::flush() {
  size_t done = 0;
  while (done < buf_.size()) {
    const ssize_t k = ::write(fd_, buf_.data() + done, buf_.size() - done);
    if (k < 0 && errno == EINTR) continue;
    if (k <= 0) return false;
    done += static_cast<size_t>(k);
  }
  buf_.clear();
  return true;
}

bool ByteSink::patch(const uint8_t *data, size_t n) {
  return flush() && pwrite(fd_, data, n, 0) == static_cast<ssize_t>(n);
}

}  // namespace kevrc::tool
