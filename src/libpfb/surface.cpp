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

int check_shape(const char *function, const Shape &shape)
{
    if (depth_of(shape.format).bits == 0)
        return fail(PFB_ERROR_ARGUMENT, function, "there is no format %d", static_cast<int>(shape.format));
    if (shape.rotation != 0 && shape.rotation != 90 && shape.rotation != 270)
        return fail(PFB_ERROR_ARGUMENT, function, "rotation %d is not 0, 90 or 270", shape.rotation);
    if (shape.width < 1 || shape.height < 1 || shape.width > SIZE_MAX_PIXELS || shape.height > SIZE_MAX_PIXELS)
        return fail(PFB_ERROR_ARGUMENT, function, "size %d x %d is not within 1 to %d", shape.width, shape.height,
                    SIZE_MAX_PIXELS);
    return PFB_OK;
}

int32_t stride_of(int32_t width, int32_t pixel_bytes)
{
    return (width * pixel_bytes + STRIDE_UNIT - 1) / STRIDE_UNIT * STRIDE_UNIT;
}

// Sends "create" and waits until the server has handled it. The name goes when it is certain that the server does not
// want it any more: a server that does not find it stops.
int create_on_server(pfb_client *client, const char *function, const char *name, Deadline &deadline)
{
    int result = send_create(client, function, name, deadline);
    if (result == PFB_OK) {
        result = call(client, {function, "get_native_color_depth"}, deadline);
        client->unusable = result != PFB_OK && result != PFB_ERROR_GONE;
    }
    if (!client->unusable)
        client->takes_names = shm_unlink(name) != 0; // the server has done so, unless the name is another user's
    return result;
}

SurfaceState first_state(const Shape &shape, int32_t x, int32_t y, int32_t level)
{
    SurfaceState state = {};
    state.area = {x, y, shape.width, shape.height};
    state.level = level;
    state.plane = PFB_PLANE_NONE;
    return state;
}

int check_no_surface(const pfb_client *client, const char *function)
{
    if (client->pixels == nullptr)
        return PFB_OK;
    return fail(PFB_ERROR_STATE, function, "%s has a surface already", client->name);
}

// After "create" was of no use, the client has no surface as before; and the application, which may be called here, may
// make one. What the server ended of is not sent again.
int create_failed(pfb_client *client, int result, void *pixels, size_t size)
{
    munmap(pixels, size);
    client->shape = {};
    if (result != PFB_ERROR_GONE || !client->reconnect)
        return result;
    const LastError error = error_save();
    recovery_lose(client);
    recovery_step(client);
    error_restore(error);
    return result;
}

// Waiting for a server may call the application, which may make the surface itself.
int wait_for_server(pfb_client *client, const char *function, Deadline &deadline)
{
    const int result = recovery_wait(client, function, deadline);
    return result == PFB_OK ? check_no_surface(client, function) : result;
}

int create_surface(pfb_client *client, const char *function, const Shape &shape, const SurfaceState &state)
{
    Deadline deadline(client);
    int result = wait_for_server(client, function, deadline);
    if (result != PFB_OK)
        return result;
    const int64_t size = int64_t{shape.stride} * shape.height;
    char name[MEMORY_NAME_SIZE];
    void *pixels = nullptr;
    result = memory_new(client, function, size, name, &pixels);
    if (result != PFB_OK)
        return result;
    client->shape = shape;
    client->state = state;
    result = create_on_server(client, function, name, deadline);
    if (result != PFB_OK)
        return create_failed(client, result, pixels, static_cast<size_t>(size));
    client->pixels = pixels;
    client->restored_ms = now_ms();
    return PFB_OK;
}

} // namespace

namespace libpfb {

int send_create(pfb_client *client, const char *function, const char *memory_name, Deadline &deadline)
{
    const Shape &shape = client->shape;
    const SurfaceState &state = client->state;
    const Depth depth = depth_of(shape.format);
    const Request request = {function,
                             "create",
                             {depth.alpha, depth.bits, state.area.x, state.area.y, shape.width, shape.height,
                              shape.stride, state.level, shape.rotation},
                             memory_name};
    return send(client, request, deadline);
}

} // namespace libpfb

int pfb_create(pfb_client *client, enum pfb_format format, int32_t x, int32_t y, int32_t width, int32_t height,
               int32_t level, int32_t rotation)
{
    int result = check_client(client, __func__);
    if (result != PFB_OK)
        return result;
    result = check_no_surface(client, __func__);
    if (result != PFB_OK)
        return result;
    Shape shape{format, width, height, 0, rotation};
    result = check_shape(__func__, shape);
    if (result == PFB_OK)
        result = check_position(__func__, x, y);
    if (result != PFB_OK)
        return result;
    shape.stride = stride_of(width, depth_of(format).bytes);
    if (int64_t{shape.stride} * height > INT32_MAX)
        return fail(PFB_ERROR_ARGUMENT, __func__, "%d x %d pixels need more than 2^31 - 1 bytes", width, height);
    return create_surface(client, __func__, shape, first_state(shape, x, y, level));
}

void *pfb_pixels(const pfb_client *client)
{
    return client != nullptr ? client->pixels : nullptr;
}

int32_t pfb_stride(const pfb_client *client)
{
    return client != nullptr ? client->shape.stride : 0;
}

int32_t pfb_width(const pfb_client *client)
{
    return client != nullptr ? client->shape.width : 0;
}

int32_t pfb_height(const pfb_client *client)
{
    return client != nullptr ? client->shape.height : 0;
}
