// SPDX-License-Identifier: MIT
// Whole sessions of several clients on the server alone: no sanitizer report, no unexpected assertion, no leak, no
// hang.
#include "support/fuzz.h"
#include "support/session.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    session_play(data, size, false);
    return 0;
}
