// SPDX-License-Identifier: MIT
// The part of the decoder that brings what no model follows: a system that fails, devices that describe themselves
// oddly, command lines and names of any kind.
#pragma once

#include "decode.h"

// Devices and command line. `kinds` says which of them are odd.
void decode_surroundings(Decoder &d, uint8_t kinds);
// One trouble, for the next action or from now on.
void decode_trouble(Decoder &d);
// A device as the kernel would describe it.
DeviceForm plain_form(const model::Device &device);
// Any bytes but NUL, `most` of them at the most.
std::string decode_text(FuzzInput &in, int most);
