// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Safe outputs of the kevrc tool: in-place writes for FIFOs and devices,
// temporary file and rename for regular files, same-file refusal, and the
// signal handler that removes temporaries. See safe_output.h.
#include "tools/support/safe_output.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace kevrc::tool {
namespace {

// Temporaries the signal handler removes: one slot per open output. The
// handler only loads the pointers and calls unlink(), both async-signal-safe.
constexpr int kSlots = 512;
std::atomic<const char *> g_temporaries[kSlots];

int claim_slot(const char *path) {
  for (int i = 0; i < kSlots; ++i) {
    const char *expected = nullptr;
    if (g_temporaries[i].compare_exchange_strong(expected, path)) return i;
  }
  return -1;
}

extern "C" void remove_temporaries(int sig) {
  for (auto &slot : g_temporaries) {
    const char *path = slot.load();
    if (path != nullptr) unlink(path);
  }
  signal(sig, SIG_DFL);
  raise(sig);
}

bool writes_in_place(const struct stat &st) {
  return S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) || S_ISSOCK(st.st_mode);
}

// The file a symlink finally points to (the path itself otherwise); a
// dangling symlink resolves to where it points.
std::string resolve(const std::string &path) {
  char buf[PATH_MAX];
  if (realpath(path.c_str(), buf) != nullptr) return buf;
  std::string p = path;
  for (int hops = 0; hops < 40; ++hops) {
    const ssize_t n = readlink(p.c_str(), buf, sizeof buf - 1);
    if (n < 0) break;
    const std::string link(buf, static_cast<size_t>(n));
    const size_t slash = p.rfind('/');
    p = link[0] == '/' || slash == std::string::npos ? link : p.substr(0, slash + 1) + link;
  }
  return p;
}

std::string why(const std::string &path) { return path + ": " + std::strerror(errno); }

}  // namespace

bool SafeOutput::open(const std::string &path, const std::string &input, std::string &error) {
  path_ = path;
  struct stat out_st {};
  const bool exists = path != "-" && stat(path.c_str(), &out_st) == 0;
  struct stat in_st {};
  const bool have_input = !input.empty() &&
                          (input == "-" ? fstat(0, &in_st) == 0 : stat(input.c_str(), &in_st) == 0);
  const bool same = path == "-" ? have_input && fstat(1, &out_st) == 0 && S_ISREG(out_st.st_mode) &&
                                      in_st.st_dev == out_st.st_dev && in_st.st_ino == out_st.st_ino
                                : exists && have_input && in_st.st_dev == out_st.st_dev &&
                                      in_st.st_ino == out_st.st_ino;
  if (same) {
    error = path + ": is the input file; refusing to overwrite it";
    return false;
  }
  if (path == "-") {
    fd_ = 1;
    seekable_ = lseek(1, 0, SEEK_CUR) >= 0;
    return true;
  }
  if (exists && S_ISDIR(out_st.st_mode)) {
    error = path + ": is a directory";
    return false;
  }
  if (exists && writes_in_place(out_st)) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) error = why(path);
    return fd_ >= 0;
  }
  target_ = resolve(path);
  tmp_ = target_ + ".XXXXXX";
  fd_ = mkostemp(tmp_.data(), O_CLOEXEC);
  if (fd_ < 0) {
    error = why(path);
    tmp_.clear();
    return false;
  }
  slot_ = claim_slot(tmp_.c_str());
  // mkstemp makes the file private; give it the mode a plain create would.
  const mode_t mask = umask(0);
  umask(mask);
  if (fchmod(fd_, 0666 & ~mask) != 0 || slot_ < 0) {
    error = slot_ < 0 ? path + ": too many open outputs" : why(path);
    abandon();
    return false;
  }
  seekable_ = true;
  return true;
}

bool SafeOutput::commit(std::string &error) {
  if (fd_ < 0) return false;
  const bool closed = fd_ == 1 || close(fd_) == 0;
  fd_ = -1;
  if (!closed) {
    error = why(path_);
    abandon();
    return false;
  }
  if (tmp_.empty()) return true;
  if (std::rename(tmp_.c_str(), target_.c_str()) != 0) {
    error = why(path_);
    abandon();
    return false;
  }
  if (slot_ >= 0) g_temporaries[slot_].store(nullptr);
  slot_ = -1;
  tmp_.clear();
  return true;
}

void SafeOutput::abandon() {
  if (fd_ > 1) close(fd_);
  fd_ = -1;
  if (!tmp_.empty()) unlink(tmp_.c_str());
  if (slot_ >= 0) g_temporaries[slot_].store(nullptr);
  slot_ = -1;
  tmp_.clear();
}

void install_signal_cleanup() {
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(sig, remove_temporaries);
}

}  // namespace kevrc::tool
