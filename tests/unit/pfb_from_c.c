/* SPDX-License-Identifier: MIT */
/* The client library from a C program, without a server: it links, and says what is missing. */
#include "pfb.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void)
{
    setenv("MC_RUNTIME_DIR", "/nowhere", 1);
    pfb_client *client = pfb_connect("hello");
    puts(pfb_error_text());
    return client == NULL && pfb_error() == PFB_ERROR_NO_SERVER &&
                   strcmp(pfb_error_text(),
                          "pfb_connect: no server listens at /nowhere/pfb.mc: is fbserver running?") == 0
               ? 0
               : 1;
}
