// SPDX-License-Identifier: MIT
#include "create.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../base/assert.h"
#include "../base/output.h"
#include "../base/wrap.h"
#include "../composite/client_memory.h"
#include "../composite/client_limits.h"
#include "../composite/surface_list.h"

namespace {

// The image library's code for a depth and an alpha argument, or -1.
int32_t pixel_format(int32_t depth, int32_t alpha)
{
    switch (depth) {
    case 32:
        return alpha != 0 ? XC_FORMAT_ARGB32 : XC_FORMAT_XRGB32;
    case 16:
        return XC_FORMAT_RGB16;
    case 18:
        return XC_FORMAT_RGB18;
    default:
        return -1;
    }
}

ImageSurface *owned_surface(const mc_connection *connection)
{
    return static_cast<ImageSurface *>(mc_user_data(connection));
}

// The pixels of the connection's surface, which a further one leaves without an owner. Null without a surface.
void *pixels_left_by(const mc_connection *connection)
{
    const ImageSurface *surface = owned_surface(connection);
    const xc_image *image = surface != nullptr ? surface_client_image(surface) : nullptr;
    return image != nullptr ? image->pixels : nullptr;
}

bool may_be_left(const ClientMemoryUse &use, uint64_t bytes)
{
    return use.n_left < client_limits.left_mappings && use.left_bytes + bytes <= client_limits_left_bytes();
}

// False after a line: what clients have by now is enough. Sizes that cannot be mapped are left to the system.
bool is_within_limits(const mc_connection *connection, const CreateRequest &request, int32_t bytes)
{
    const ClientMemoryUse use = client_memory_use();
    if (bytes > 0 && use.bytes + static_cast<uint64_t>(bytes) > client_limits.mapped_bytes) {
        out_printf("%s: refused: the memory of all clients may have %llu MiB\n", "create",
                   static_cast<unsigned long long>(client_limits.mapped_bytes / MIB));
        return false;
    }
    const bool leaves_one = bytes > 0 && owned_surface(connection) != nullptr;
    if (leaves_one && pixel_format(request.depth, request.alpha) >= 0 &&
        !may_be_left(use, client_memory_size(pixels_left_by(connection)))) {
        out_printf("%s: refused: the connection has a surface, and %zu without an owner are enough\n", "create",
                   use.n_left);
        return false;
    }
    return true;
}

// Mappings that became no surface stay, up to a limit.
void keep_unused(void *pixels)
{
    if (may_be_left(client_memory_use(), client_memory_size(pixels))) {
        client_memory_leave(pixels);
        return;
    }
    out_printf("%s: its memory is given back: %zu mappings without an owner are enough\n", "create",
               client_memory_use().n_left);
    client_memory_retire(pixels);
}

// -1 after a line. A name that cannot be opened ends the server.
int open_object(const char *name)
{
    // An object may be held by a lease of the client's, and opening it would wait until that is given up. Without
    // waiting it fails at once; nothing else about such an object changes by that.
    const int fd = shm_open(name, O_RDWR | O_NONBLOCK, 0);
    if (fd == -1 && errno == EWOULDBLOCK) {
        out_printf("%s: refused: the shared memory is held by a lease\n", "create");
        shm_unlink(name);
    } else if (fd == -1) {
        err_perror("shm_open");
        fs_assert_in("create", 0);
    }
    return fd;
}

} // namespace

void create(mc_connection *connection, const CreateRequest &request)
{
    if (request.width <= 0 || request.height <= 0) {
        out_printf("Invalid pfb width/height (%d/%d)\n", request.width, request.height);
        return;
    }
    const int fd = open_object(request.name);
    if (fd == -1)
        return;
    // As many bytes as the client says, whatever its width and depth need: images know what is really there.
    const int32_t bytes = wrap_mul(request.stride, request.height);
    if (!is_within_limits(connection, request, bytes)) {
        close(fd);
        shm_unlink(request.name);
        return;
    }
    void *pixels = client_memory_map(fd, static_cast<size_t>(bytes));
    if (pixels == MAP_FAILED) {
        err_perror("mmap");
        fs_assert(0);
    }
    close(fd);
    shm_unlink(request.name);
    const int32_t format = pixel_format(request.depth, request.alpha);
    if (format < 0) {
        out_printf("unsupported color depth&alpha combination:depth=%d alpha=%d\n", request.depth, request.alpha);
        keep_unused(pixels);
        return;
    }
    if (!surface_list_reserve(fs)) { // everybody else's surfaces would be lost with the list
        out_printf("%s: refused: no memory for one more surface\n", "create");
        client_memory_retire(pixels);
        return;
    }
    client_memory_leave(pixels_left_by(connection));
    ImageSurface *surface =
        fs_add_surface(fs, request.x, request.y, request.width, request.height, request.stride, format, request.level,
                       request.rotation, pixels, mc_connection_name(connection));
    if (surface == nullptr)
        client_memory_retire(pixels); // nobody has seen it
    mc_set_user_data(connection, surface, 0);
}
