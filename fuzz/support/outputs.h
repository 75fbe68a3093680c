// SPDX-License-Identifier: MIT
#pragma once

// The server's outputs are as in a new process. It is gone by now, and has released them if it could.
void outputs_forget();
