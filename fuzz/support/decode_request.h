// SPDX-License-Identifier: MIT
// The part of the decoder that makes requests.
#pragma once

#include "decode.h"

// Words with their usual arguments; frequent ones stand there more than once.
inline constexpr int N_DECODED_WORDS = 24;
Action decode_word(Decoder &d, int which, int slot);
// "create", mostly with memory of its own.
Action decode_create(Decoder &d, int slot);
// Now and then others than the word takes.
void decode_spoilt(Decoder &d, std::vector<model::Argument> &arguments);
// Of a client or a surface.
std::string decode_name(Decoder &d);
