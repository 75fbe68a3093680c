// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>

// Plays the bytes as a history (decode.h) on the server in this process, over outputs in memory. With the model, all
// that can be seen is compared with it after each action, and the server must fail an assertion exactly where the model
// says; without it, only assertions that clients can cause may fail. PFB_FUZZ_PRINT=1 prints the history.
void session_play(const uint8_t *data, size_t size, bool with_model);
