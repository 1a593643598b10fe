// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// The kevrc commands: each takes main's argc/argv (argv[1] is the command)
// and returns the exit status (0 success, 1 failure, 2 usage error).
// print_help(command, to) prints the help of a command ("" for the tool)
// and returns 0.
#pragma once

#include <cstdio>

namespace kevrc::tool {

int command_encode(int argc, char **argv);
int command_decode(int argc, char **argv);
int command_info(int argc, char **argv);
int print_help(const char *command, FILE *to);

}  // namespace kevrc::tool
