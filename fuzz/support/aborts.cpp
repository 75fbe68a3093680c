// SPDX-License-Identifier: MIT
// The assertions that clients and devices can make fail; each of them ends the server, and a supervisor starts it
// again. Any other is a finding, and so is one of these where nothing of its kind has happened.
#include <string_view>

#include "../../src/fbserver/command.h"
#include "play.h"
#include "system.h"

namespace {

struct RequiredAbort {
    const char *file, *function, *expression;
    bool (*has_cause)(const Action &a);
};

bool is_request(const Action &a, std::string_view words)
{
    const std::string word = " " + a.word + " ";
    return a.kind == Action::REQUEST && words.find(word) != std::string_view::npos;
}

bool could_not_open(const Action &a)
{
    return is_request(a, " create ") && (fuzz_system.object_refused || fuzz_system.mapping_refused);
}

bool makes_rectangle(const Action &a)
{
    return is_request(a, " create move resize set_scale ");
}

bool unlocks(const Action &a)
{
    return is_request(a, " unlock ") || a.kind == Action::HANG_UP;
}

bool resizes(const Action &a)
{
    return is_request(a, " resize ");
}

bool creates(const Action &a)
{
    return is_request(a, " create ");
}

// By 180 degrees there is no converter onto 16 and 18 bits.
bool draws_upside_down(const Action &a)
{
    return a.kind == Action::RENDER && fs->rotation == 180;
}

constexpr RequiredAbort REQUIRED[] = {
    {"src/fbserver/create.cpp", "create", "0", could_not_open},
    {"src/composite/rotation.cpp", "fs_rotate_display", "0", creates},
    {"src/composite/geometry.cpp", "fs_crop_area", "rect->x2 >= rect->x1", makes_rectangle},
    {"src/composite/geometry.cpp", "fs_crop_area", "rect->y2 >= rect->y1", makes_rectangle},
    {"src/composite/geometry.cpp", "fs_resize_surface", "w > 0", resizes},
    {"src/composite/geometry.cpp", "fs_resize_surface", "h > 0", resizes},
    {"src/composite/damage.cpp", "fs_set_unlock", "surface->lock_counter >= 0", unlocks},
    {"src/composite/image_render.cpp", "image_render", "0", draws_upside_down},
    {"src/backend/fb.cpp", "fb_init", "0", creates},
    {"src/backend/fb2.cpp", "qarno_fb2_init", "0", creates},
};

const RequiredAbort *find_required(const FailedAssertion &failed)
{
    for (const RequiredAbort &entry : REQUIRED) {
        if (failed.function == entry.function && failed.expression == entry.expression &&
            failed.file.ends_with(entry.file))
            return &entry;
    }
    return nullptr;
}

} // namespace

bool may_abort(const Action &a, const FailedAssertion &failed)
{
    const RequiredAbort *entry = find_required(failed);
    return entry != nullptr && entry->has_cause(a);
}
