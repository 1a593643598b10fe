// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// Output files that never clobber what they should not, for the kevrc tool.
//
//  SafeOutput::open(path, input, error): prepares the output path (in):
//    "-" is standard output; an existing FIFO or device (also behind a
//    symlink) is opened and written in place; anything else is written to a
//    temporary "TARGET.XXXXXX" beside the target (the symlink's target when
//    path is a symlink) and renamed onto it by commit(). input (in, may be
//    empty or "-") is the file being read: an output that is the same file
//    (same device and inode) is refused. Returns false with a one-line
//    message in error.
//  fd(): the descriptor to write to; seekable() tells whether it can seek.
//  commit(error): closes and renames into place; abandon() (and the
//    destructor of an uncommitted output) removes the temporary.
//  install_signal_cleanup(): SIGINT, SIGTERM, SIGHUP and SIGPIPE remove every
//    temporary still open, then end the process as the signal would.
#pragma once

#include <string>

namespace kevrc::tool {

class SafeOutput {
 public:
  SafeOutput() = default;
  SafeOutput(const SafeOutput &) = delete;
  SafeOutput &operator=(const SafeOutput &) = delete;
  ~SafeOutput() { abandon(); }

  bool open(const std::string &path, const std::string &input, std::string &error);
  int fd() const { return fd_; }
  bool seekable() const { return seekable_; }
  bool commit(std::string &error);
  void abandon();

 private:
  std::string path_, target_, tmp_;
  int fd_ = -1;
  int slot_ = -1;
  bool seekable_ = false;
};

void install_signal_cleanup();

}  // namespace kevrc::tool
