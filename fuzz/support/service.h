// SPDX-License-Identifier: MIT
// A service of the message channel with clients that send anything, read or do not, and go at any moment, in a system
// that runs out of descriptors and memory.
#pragma once

#include <string>

#include "fuzz.h"

void service_play(FuzzInput in);
// A request as a client may send it, damaged or not.
std::string service_request(FuzzInput &in);
