// SPDX-License-Identifier: MIT
// The assertions that clients and devices can make fail; each of them ends the server, and a supervisor starts it
// again. Any other is a finding, and so is one of these where nothing of its kind has happened.
#include <string_view>

#include "../../src/base/wrap.h"
#include "../../src/fbserver/command.h"
#include "play.h"
#include "system.h"

namespace {

struct RequiredAbort {
    const char *file, *function, *expression;
    bool (*has_cause)(const Action &a);
};

// The display, and the surface that the action is about, as they were before.
struct Before {
    int32_t rotation;
    bool exists;
    int32_t locks;
    bool blocks;
    Rect area;
};
Before before;

bool is_request(const Action &a, std::string_view word)
{
    return a.kind == Action::REQUEST && a.word == word;
}

int32_t number(const Action &a, size_t index)
{
    return index < a.arguments.size() ? a.arguments[index].number : 0;
}

// An object that is not there, or whose memory the system refused for as many bytes as the client said.
bool could_not_open(const Action &a)
{
    const auto bytes = static_cast<size_t>(wrap_mul(number(a, 6), number(a, 5)));
    return is_request(a, "create") &&
           (fuzz_system.object_refused || (fuzz_system.mapping_refused && fuzz_system.refused_bytes == bytes));
}

bool wraps(int32_t origin, int32_t size)
{
    return wrap_add(origin, size) < origin;
}

// True when the action turns a display of which one side is negative, as a command line may say, so that the screen's
// end lies before its begin.
bool turns_nothing(const Action &a, bool x)
{
    const int32_t angle = number(a, 8);
    const bool swaps = angle == 90 || angle == 270;
    return is_request(a, "create") && angle != before.rotation && (x != swaps ? fs->native_w : fs->native_h) < 0;
}

// True when a surface gets an area whose end lies before its begin, in the direction of x or of y.
bool makes_wrapped(const Action &a, bool x)
{
    const size_t first = x ? 0 : 1; // of a pair of arguments
    const int32_t origin = x ? before.area.x1 : before.area.y1;
    const int32_t end = x ? before.area.x2 : before.area.y2;
    if (is_request(a, "create"))
        return wraps(number(a, 2 + first), number(a, 4 + first));
    if (is_request(a, "move"))
        return before.exists && wraps(number(a, first), wrap_sub(end, origin));
    if (is_request(a, "resize"))
        return before.exists && wraps(origin, number(a, first));
    if (is_request(a, "set_scale"))
        return wraps(number(a, 4 + first), number(a, 6 + first));
    return false;
}

bool wraps_in_x(const Action &a)
{
    return makes_wrapped(a, true) || turns_nothing(a, true);
}

bool wraps_in_y(const Action &a)
{
    return makes_wrapped(a, false) || turns_nothing(a, false);
}

// A hang-up gives back all locks as one, and one more where the surface blocks.
bool unlocks_too_often(const Action &a)
{
    if (!before.exists)
        return false;
    if (a.kind == Action::HANG_UP)
        return before.locks != 0 && before.blocks;
    return is_request(a, "unlock") && before.locks < (before.blocks ? 2 : 1);
}

bool has_no_width(const Action &a)
{
    return is_request(a, "resize") && number(a, 0) <= 0;
}

bool has_no_height(const Action &a)
{
    return is_request(a, "resize") && number(a, 1) <= 0;
}

bool turns_oddly(const Action &a)
{
    const int32_t angle = number(a, 8);
    return is_request(a, "create") && angle != 0 && angle != 90 && angle != 180 && angle != 270;
}

bool creates(const Action &a)
{
    return is_request(a, "create");
}

// By 180 degrees there is no converter onto 16 and 18 bits.
bool draws_upside_down(const Action &a)
{
    if (a.kind != Action::RENDER || fs->rotation != 180)
        return false;
    for (int32_t i = 0; fs->backends != nullptr && i < fs->n_backend; i++) {
        const Backend *backend = fs->backends[i];
        if (backend != nullptr && backend->frame_img != nullptr && backend->frame_img->depth < 32)
            return true;
    }
    return false;
}

constexpr RequiredAbort REQUIRED[] = {
    {"src/fbserver/create.cpp", "create", "0", could_not_open},
    {"src/composite/rotation.cpp", "fs_rotate_display", "0", turns_oddly},
    {"src/composite/geometry.cpp", "fs_crop_area", "rect->x2 >= rect->x1", wraps_in_x},
    {"src/composite/geometry.cpp", "fs_crop_area", "rect->y2 >= rect->y1", wraps_in_y},
    {"src/composite/geometry.cpp", "fs_resize_surface", "w > 0", has_no_width},
    {"src/composite/geometry.cpp", "fs_resize_surface", "h > 0", has_no_height},
    {"src/composite/damage.cpp", "fs_set_unlock", "surface->lock_counter >= 0", unlocks_too_often},
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

void abort_before(const ImageSurface *surface)
{
    before = {fs->rotation, false, 0, false, {}};
    if (surface != nullptr)
        before = {fs->rotation, true, surface->lock_counter, surface_has(surface, SURFACE_BLOCK), surface->area};
}

bool may_abort(const Action &a, const FailedAssertion &failed)
{
    const RequiredAbort *entry = find_required(failed);
    return entry != nullptr && entry->has_cause(a);
}
