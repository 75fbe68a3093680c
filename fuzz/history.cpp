// SPDX-License-Identifier: MIT
// The same sessions, told to the model as well: slower, and every pixel, printed line, reply and failed assertion
// counts.
#include "support/fuzz.h"
#include "support/session.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    session_play(data, size, true);
    return 0;
}
