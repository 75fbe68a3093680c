// SPDX-License-Identifier: MIT
#pragma once

#include "fuzz.h"

// One kernel of the set in use beside the plain one, at any size, pitch and alignment.
void one_kernel(FuzzInput &in);
