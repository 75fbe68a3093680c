// SPDX-License-Identifier: MIT
#include "create.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../base/assert.h"
#include "../base/output.h"
#include "../base/wrap.h"
#include "../composite/client_memory.h"

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

} // namespace

void create(mc_connection *connection, const CreateRequest &request)
{
    if (request.width <= 0 || request.height <= 0) {
        out_printf("Invalid pfb width/height (%d/%d)\n", request.width, request.height);
        return;
    }
    const int fd = shm_open(request.name, O_RDWR, 0);
    if (fd == -1) {
        err_perror("shm_open");
        fs_assert(0);
    }
    // As many bytes as the client says, whatever its width and depth need: images know what is really there.
    const int32_t bytes = wrap_mul(request.stride, request.height);
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
        return;
    }
    ImageSurface *surface =
        fs_add_surface(fs, request.x, request.y, request.width, request.height, request.stride, format, request.level,
                       request.rotation, pixels, mc_connection_name(connection));
    mc_set_user_data(connection, surface, 0);
}
