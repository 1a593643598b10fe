// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Declarations of the constant tables (C linkage, read-only). Each table's
// definition file states where its values come from.
#pragma once

#include <kevrc/kevrc_kernels.h>
