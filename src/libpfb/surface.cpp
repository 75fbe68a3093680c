// SPDX-License-Identifier: MIT
// Making the surface.
#include "client.h"

#include <sys/mman.h>

using namespace libpfb;

namespace {

constexpr int32_t STRIDE_UNIT = 64; // bytes: rows begin with a cache line

// "create"'s two words for a format; a depth of 0 for a value that is none.
struct Depth {
    int32_t bits;
    int32_t alpha;
    int32_t bytes; // of a pixel
};

Depth depth_of(pfb_format format)
{
    switch (format) {
    case PFB_FORMAT_ARGB32:
        return {32, 1, 4};
    case PFB_FORMAT_XRGB32:
        return {32, 0, 4};
    case PFB_FORMAT_RGB16:
        return {16, 0, 2};
    case PFB_FORMAT_RGB18:
        return {18, 0, 4};
    }
    return {};
}

struct Shape {
    pfb_format format;
    int32_t x, y; // screen
    int32_t width, height;
    int32_t level;
    int32_t rotation;
    int32_t stride; // bytes
};

int check_shape(const char *function, const Shape &s)
{
    if (depth_of(s.format).bits == 0)
        return fail(PFB_ERROR_ARGUMENT, function, "there is no format %d", static_cast<int>(s.format));
    if (s.rotation != 0 && s.rotation != 90 && s.rotation != 270)
        return fail(PFB_ERROR_ARGUMENT, function, "rotation %d is not 0, 90 or 270", s.rotation);
    const int positioned = check_position(function, s.x, s.y);
    if (positioned != PFB_OK)
        return positioned;
    if (s.width < 1 || s.height < 1 || s.width > SIZE_MAX_PIXELS || s.height > SIZE_MAX_PIXELS)
        return fail(PFB_ERROR_ARGUMENT, function, "size %d x %d is not within 1 to %d", s.width, s.height,
                    SIZE_MAX_PIXELS);
    return PFB_OK;
}

int32_t stride_of(int32_t width, int32_t pixel_bytes)
{
    return (width * pixel_bytes + STRIDE_UNIT - 1) / STRIDE_UNIT * STRIDE_UNIT;
}

// Sends "create" and waits until the server has handled it. The name goes when it is certain that the server does not
// want it any more: a server that does not find it stops.
int create_on_server(pfb_client *client, const Shape &s, const char *name)
{
    const char *const function = "pfb_create";
    const int64_t deadline = deadline_of(client);
    const Depth depth = depth_of(s.format);
    int result = wait_for_room(client, function, deadline);
    if (result == PFB_OK)
        result =
            send_now(client, {function,
                              "create",
                              {depth.alpha, depth.bits, s.x, s.y, s.width, s.height, s.stride, s.level, s.rotation},
                              name});
    if (result == PFB_OK) {
        mc_packet *answer;
        result = call(client, {function, "get_native_color_depth"}, deadline, &answer);
        mc_packet_free(answer);
        client->lost = result != PFB_OK;
    }
    if (!client->lost || result == PFB_ERROR_GONE)
        shm_unlink(name); // the server has done so too, unless the name is another user's
    return result;
}

void note_surface(pfb_client *client, const Shape &s, void *pixels)
{
    client->pixels = pixels;
    client->format = s.format;
    client->width = client->shown_width = s.width;
    client->height = client->shown_height = s.height;
    client->stride = s.stride;
}

} // namespace

int pfb_create(pfb_client *client, enum pfb_format format, int32_t x, int32_t y, int32_t width, int32_t height,
               int32_t level, int32_t rotation)
{
    int result = check_client(client, __func__);
    if (result != PFB_OK)
        return result;
    if (client->pixels != nullptr)
        return fail(PFB_ERROR_STATE, __func__, "%s has a surface already", client->name);
    Shape shape{format, x, y, width, height, level, rotation, 0};
    result = check_shape(__func__, shape);
    if (result != PFB_OK)
        return result;
    shape.stride = stride_of(width, depth_of(format).bytes);
    const int64_t size = int64_t{shape.stride} * height;
    if (size > INT32_MAX)
        return fail(PFB_ERROR_ARGUMENT, __func__, "%d x %d pixels need more than 2^31 - 1 bytes", width, height);

    char name[MEMORY_NAME_SIZE];
    void *pixels = nullptr;
    result = memory_new(client, __func__, size, name, &pixels);
    if (result != PFB_OK)
        return result;
    result = create_on_server(client, shape, name);
    if (result == PFB_OK)
        note_surface(client, shape, pixels);
    else
        munmap(pixels, static_cast<size_t>(size));
    return result;
}

void *pfb_pixels(const pfb_client *client)
{
    return client != nullptr ? client->pixels : nullptr;
}

int32_t pfb_stride(const pfb_client *client)
{
    return client != nullptr ? client->stride : 0;
}

int32_t pfb_width(const pfb_client *client)
{
    return client != nullptr ? client->width : 0;
}

int32_t pfb_height(const pfb_client *client)
{
    return client != nullptr ? client->height : 0;
}
