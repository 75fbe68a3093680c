// SPDX-License-Identifier: MIT
// The server's records of its outputs are static: one process, one server. Sessions follow each other in one process
// here, and each has to find the records as a new process does, also after one that has lost them for want of memory.
// Nothing but the file that has them reaches them, so it is compiled once more and takes the place of the library's.
#include "outputs.h"

#include <initializer_list>

#include "../../src/composite/output.cpp"

void outputs_forget()
{
    for (Backend *backend : {&null_backend, &fb_backend, &fb2_backend}) {
        drop_images(backend);
        free(backend->name);
        *backend = Backend{};
    }
}
