/* SPDX-License-Identifier: MIT */
/* The panel that this process runs on, from PFBPANEL_DIR. */
#ifndef PRELOAD_PANEL_H
#define PRELOAD_PANEL_H

#include "../../panelimage/panel_state.h"

#include <dlfcn.h>

/* Null where there is no panel, or none of this layout. */
PanelState *panel_state(void);
const char *panel_folder(void);

/* The function of this name that comes after ours: another interposer's, or the C library's. Looked up once; two
 * threads that look at the same time find the same. */
#define NEXT(name)                                                                                                     \
    __extension__({                                                                                                    \
        static __typeof__(&name) next;                                                                                 \
        __typeof__(&name) found = __atomic_load_n(&next, __ATOMIC_RELAXED);                                            \
        if (found == NULL) {                                                                                           \
            found = (__typeof__(&name))dlsym(RTLD_NEXT, #name);                                                        \
            __atomic_store_n(&next, found, __ATOMIC_RELAXED);                                                          \
        }                                                                                                              \
        found;                                                                                                         \
    })

#endif
