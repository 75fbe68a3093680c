// SPDX-License-Identifier: MIT
// Clients' memory that vanishes while it is read: by every reader there is, in the middle of a row, of one client while
// another one's is used, again and again. What is missing reads as zero, what exists as it is. Each test runs in a
// child: handlers, mappings and accounts are the process's own.
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/userfaultfd.h>
#include <sched.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <gmock/gmock.h>

#include "../../src/composite/client_memory.h"
#include "../../src/render/render.h"
#include "../support/child_process.h"
#include "../support/compositor_test.h"
#include "../support/kernel_sets.h"
#include "../support/random_cases.h"
#include "../support/stderr_capture.h"

namespace {

const size_t PAGE = static_cast<size_t>(sysconf(_SC_PAGESIZE));

// A client's object as the client has it, and the server's mapping of it.
struct ClientObject {
    explicit ClientObject(size_t size) : bytes(size), fd(memfd_create("client", MFD_CLOEXEC))
    {
        EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0);
        pixels = static_cast<uint8_t *>(client_memory_map(fd, size));
        EXPECT_NE(pixels, MAP_FAILED);
    }
    ~ClientObject()
    {
        client_memory_retire(pixels);
        close(fd);
    }
    ClientObject(const ClientObject &) = delete;
    ClientObject &operator=(const ClientObject &) = delete;

    void write(const std::vector<uint8_t> &content) const
    {
        EXPECT_EQ(pwrite(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
    }
    void cut_to(size_t size) const { EXPECT_EQ(ftruncate(fd, static_cast<off_t>(size)), 0); }

    size_t bytes;
    int fd;
    uint8_t *pixels;
};

std::vector<uint8_t> random_bytes(size_t n, uint32_t seed)
{
    std::vector<uint8_t> bytes(n);
    for (uint8_t &byte : bytes)
        byte = static_cast<uint8_t>((seed = seed * 1664525u + 1013904223u) >> 24);
    return bytes;
}

std::vector<uint8_t> zero_from(std::vector<uint8_t> bytes, size_t end)
{
    std::fill(bytes.begin() + static_cast<ptrdiff_t>(std::min(end, bytes.size())), bytes.end(), uint8_t{0});
    return bytes;
}

class ClientFaults : public CompositorTest {
protected:
    void open_screen(int32_t w, int32_t h)
    {
        primary_output.width = w;
        primary_output.height = h;
        open_server(w, h);
    }
};

// ---- every reader ----

constexpr int32_t W = 101, H = 97; // rows that begin and end anywhere in a page
constexpr int32_t SCREEN = 160;

struct Images {
    xc_image *src;
    xc_image *dst;
};

Images make_images(int32_t src_format, int32_t dst_format, void *pixels)
{
    const int32_t stride = W * pixel_size_of(src_format);
    Images images{xc_image_new_with_data(W, H, pixels, src_format, 0, 1, stride),
                  xc_image_new_with_data(SCREEN, SCREEN, nullptr, dst_format, 0, 0, SCREEN * 4)};
    memset(images.dst->pixels, 0x5A, images.dst->extent);
    return images;
}

std::vector<uint8_t> rendered(FbServer *server, const Images &images, int32_t rotation)
{
    Region region;
    region_init(&region, nullptr);
    for (const Rect &rect : {Rect{11, 9, 60, 50}, Rect{30, 40, 11 + W, 9 + H}})
        region_union_rect(&region, &region, &rect);
    image_render(server, nullptr, images.src, images.dst, &region, 11, 9, rotation);
    region_uninit(&region);
    const auto *bytes = static_cast<const uint8_t *>(images.dst->pixels);
    return {bytes, bytes + images.dst->extent};
}

void drop(const Images &images)
{
    xc_image_unref(images.src);
    xc_image_unref(images.dst);
}

// The object ends at `end` of its bytes.
void expect_zeros_from(FbServer *server, int32_t src_format, int32_t dst_format, int32_t rotation, size_t end)
{
    const auto size = static_cast<size_t>(W * H * pixel_size_of(src_format));
    const std::vector<uint8_t> content = random_bytes(size, static_cast<uint32_t>(end));
    std::vector<uint8_t> whole = zero_from(content, end);
    const Images expected = make_images(src_format, dst_format, whole.data());
    ClientObject object(size);
    object.write(content);
    const Images images = make_images(src_format, dst_format, object.pixels);
    object.cut_to(end);
    EXPECT_TRUE(rendered(server, images, rotation) == rendered(server, expected, rotation));
    EXPECT_EQ(client_memory_take_short(), object.pixels);
    EXPECT_EQ(client_memory_take_short(), nullptr);
    drop(expected);
    drop(images);
}

TEST_F(ClientFaults, EveryConverterWithEveryInstructionSet)
{
    in_child([this] {
        const StdoutCapture quiet; // a turned 16-bit panel talks
        open_server(SCREEN, SCREEN);
        std::set<const void *> converters;
        for (const Kernels *set : all_kernel_sets()) {
            const UsedKernels used(set);
            for (const int32_t src : {ARGB32, XRGB32, RGB16, RGB18}) {
                for (const int32_t dst : {ARGB32, XRGB32, RGB16, RGB18}) {
                    for (const int32_t rotation : {0, 90, 270}) {
                        SCOPED_TRACE(testing::Message()
                                     << set->name << " " << src << " to " << dst << " at " << rotation << " degrees");
                        const Images pair = make_images(src, dst, nullptr);
                        const ConverterChoice *choice = find_converter(pair.src, pair.dst, rotation);
                        drop(pair);
                        ASSERT_NE(choice, nullptr);
                        converters.insert(reinterpret_cast<const void *>(choice->run));
                        for (const size_t end : {size_t{0}, PAGE, 2 * PAGE + 1234})
                            expect_zeros_from(server, src, dst, rotation, end);
                    }
                }
            }
        }
        EXPECT_EQ(converters.size(), 20u) << "another converter is a reader to be looked at";
    });
}

// By bands: what is missing is zero in the frame as well, and what comes after it is there.
TEST_F(ClientFaults, ThroughTheWorkImageIntoTheFrame)
{
    in_child([this] {
        open_server(SCREEN, SCREEN);
        image_band_bytes = 5 * W * 4;
        const Rect rect{0, 0, W, H};
        Region region;
        region_init(&region, nullptr);
        region_reset(&region, &rect);
        for (const int32_t format : {ARGB32, XRGB32, RGB16, RGB18}) {
            SCOPED_TRACE(format);
            const auto size = static_cast<size_t>(W * H * pixel_size_of(format));
            const std::vector<uint8_t> content = random_bytes(size, 3);
            std::vector<uint8_t> whole = zero_from(content, PAGE + 1000);
            ClientObject object(size);
            object.write(content);
            object.cut_to(PAGE + 1000);
            const Images expected = make_images(format, XRGB32, whole.data());
            const Images through = make_images(format, XRGB32, object.pixels);
            xc_image *frame = xc_image_new_with_data(SCREEN, SCREEN, nullptr, XRGB32, 0, 0, SCREEN * 4);
            image_render(server, nullptr, expected.src, expected.dst, &region, 0, 0, 0);
            EXPECT_TRUE(image_render_through(server, through.src, through.dst, frame, &region, 0, 0, 0));
            EXPECT_EQ(memcmp(through.dst->pixels, expected.dst->pixels, expected.dst->extent), 0);
            for (size_t y = 0; y < size_t{H}; y++) {
                EXPECT_EQ(memcmp(static_cast<uint8_t *>(frame->pixels) + y * SCREEN * 4,
                                 static_cast<uint8_t *>(expected.dst->pixels) + y * SCREEN * 4, W * 4),
                          0);
            }
            EXPECT_EQ(client_memory_take_short(), object.pixels);
            xc_image_unref(frame);
            drop(expected);
            drop(through);
        }
        region_uninit(&region);
    });
}

// Whole rows are picked at once, others pixel by pixel: of a source rectangle that begins before the image.
TEST_F(ClientFaults, EveryScaledRefreshWithEveryInstructionSet)
{
    in_child([this] {
        open_server(SCREEN, SCREEN);
        for (const Kernels *set : all_kernel_sets()) {
            const UsedKernels used(set);
            for (const int32_t format : {ARGB32, XRGB32, RGB16, RGB18}) {
                for (const Rect &source : {Rect{0, 0, W, H}, Rect{0, -3, W, H + 5}, Rect{5, 7, 50, 90}}) {
                    for (const int32_t size : {37, 150}) {
                        SCOPED_TRACE(testing::Message() << set->name << " format " << format << " to " << size);
                        const auto bytes = static_cast<size_t>(W * H * pixel_size_of(format));
                        const std::vector<uint8_t> content = random_bytes(bytes, 7);
                        std::vector<uint8_t> whole = zero_from(content, PAGE + 1000);
                        ClientObject object(bytes);
                        object.write(content);
                        object.cut_to(PAGE + 1000);
                        std::vector<uint8_t> scaled[2];
                        void *const memories[] = {whole.data(), object.pixels};
                        for (int i = 0; i < 2; i++) {
                            ImageSurface *surface = fs_add_surface(server, 0, 0, W, H, W * pixel_size_of(format),
                                                                   format, 0, 0, memories[i], "x");
                            fs_set_scale(server, surface, source.x1, source.y1, source.x2, source.y2, 0, 0, size, size);
                            scale_refresh(surface);
                            const auto *at = static_cast<const uint8_t *>(surface->img->pixels);
                            scaled[i].assign(at, at + surface->img->extent);
                            surface->scale_state->orig_img->pixels = nullptr; // the test's own memory
                            fs_remove_surface(server, surface);
                        }
                        EXPECT_TRUE(scaled[0] == scaled[1]);
                        EXPECT_EQ(client_memory_take_short(), object.pixels);
                    }
                }
            }
        }
    });
}

// ---- several clients ----

// A surface over the object, 64 pixels of 32 bits a row.
ImageSurface *add_over(FbServer *server, const ClientObject &object, const char *name, int32_t x, int32_t y)
{
    const auto rows = static_cast<int32_t>(object.bytes / 256);
    ImageSurface *surface = fs_add_surface(server, x, y, 64, rows, 256, XRGB32, 0, 0, object.pixels, name);
    fs_show_surface(server, surface);
    return surface;
}

std::vector<uint8_t> filled(size_t n, uint8_t value)
{
    return std::vector<uint8_t>(n, value);
}

TEST_F(ClientFaults, ManyInOnePassAreToldOfOnceEach)
{
    in_child([this] {
        open_screen(64, 40 * 16);
        std::vector<std::unique_ptr<ClientObject>> objects;
        for (int32_t i = 0; i < 40; i++) {
            objects.push_back(std::make_unique<ClientObject>(PAGE)); // 16 rows
            objects.back()->write(filled(PAGE, 0x33));
            if (i % 2 == 0)
                objects.back()->cut_to(0);
            add_over(server, *objects.back(), ("fb." + std::to_string(i)).c_str(), 0, 16 * i);
        }
        const std::string told = complained([] { settle(); });
        for (int32_t i = 0; i < 40; i++) {
            const std::string line =
                "shared memory of fb." + std::to_string(i) + " is too short: what is missing shows as zero\n";
            EXPECT_EQ(told.find(line) != std::string::npos, i % 2 == 0) << line;
            EXPECT_EQ(primary_output.pixel(63, 16 * i + 15), i % 2 == 0 ? 0u : 0x33333333u);
        }
        for (int32_t i = 0; i < server->n_surface; i++)
            fs_add_dirty(server, server->surfaces[i], 0, 0, 64, 16);
        EXPECT_EQ(complained([] { settle(); }), "");
    });
}

// Another process cuts and mends one client's object without end, and the other client's picture is right each time.
TEST_F(ClientFaults, OneIsCutWhileAnotherIsDrawn)
{
    in_child([this] {
        open_screen(64, 64);
        ClientObject whole(2 * PAGE);
        whole.write(filled(2 * PAGE, 0x44));
        std::vector<std::unique_ptr<ClientObject>> cut;
        const int object = memfd_create("cut", MFD_CLOEXEC);
        const pid_t cutter = fork();
        if (cutter == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                if (ftruncate(object, static_cast<off_t>(2 * PAGE)) != 0 || ftruncate(object, 0) != 0)
                    _exit(1);
            }
        }
        add_over(server, whole, "fb.whole", 0, 32);
        const StderrCapture quiet;
        for (int round = 0; round < 200; round++) {
            // Mapped anew, for nothing of it is covered yet.
            void *pixels = client_memory_map(object, 2 * PAGE);
            ImageSurface *surface = fs_add_surface(server, 0, 0, 64, 32, 256, XRGB32, 0, 0, pixels, "fb.cut");
            fs_show_surface(server, surface);
            fs_set_scale(server, surface, 0, 0, 64, 32, 0, 0, 64, 30 + round % 3);
            fs_add_dirty(server, server->surfaces[0], 0, 0, 64, 32);
            settle();
            ASSERT_EQ(primary_output.pixel(0, 40), 0x44444444u);
            ASSERT_EQ(primary_output.pixel(63, 63), 0x44444444u);
            fs_remove_surface(server, surface);
        }
        kill(cutter, SIGKILL);
        waitpid(cutter, nullptr, 0);
        close(object);
    });
}

TEST_F(ClientFaults, TwoSurfacesOverOneObject)
{
    in_child([this] {
        open_screen(64, 64);
        ClientObject first(2 * PAGE);
        first.write(filled(2 * PAGE, 0x55));
        void *again = client_memory_map(first.fd, 2 * PAGE);
        add_over(server, first, "fb.first", 0, 0);
        ImageSurface *second = fs_add_surface(server, 0, 32, 64, 32, 256, XRGB32, 0, 0, again, "fb.second");
        fs_show_surface(server, second);
        first.cut_to(PAGE);
        const std::string told = complained([] { settle(); });
        EXPECT_NE(told.find("fb.first is too short"), std::string::npos);
        EXPECT_NE(told.find("fb.second is too short"), std::string::npos);
        for (const int32_t top : {0, 32}) {
            EXPECT_EQ(primary_output.pixel(63, top + 15), 0x55555555u);
            EXPECT_EQ(primary_output.pixel(0, top + 16), 0u);
        }
    });
}

// ---- page by page ----

uint8_t read_byte(const uint8_t *at)
{
    return *const_cast<const volatile uint8_t *>(at);
}

size_t count_mappings()
{
    std::ifstream maps("/proc/self/maps");
    size_t n = 0;
    for (std::string line; std::getline(maps, line);)
        n++;
    return n;
}

// Only what was looked at in the meantime stays missing.
TEST_F(ClientFaults, MemoryThatComesBackIsSeenWhereItWasNotMissed)
{
    in_child([] {
        ClientObject object(4 * PAGE);
        object.cut_to(0);
        EXPECT_EQ(read_byte(object.pixels + PAGE), 0);
        object.cut_to(4 * PAGE);
        object.write(filled(4 * PAGE, 0x66));
        EXPECT_EQ(read_byte(object.pixels), 0x66);
        EXPECT_EQ(read_byte(object.pixels + PAGE), 0);
        EXPECT_EQ(read_byte(object.pixels + 2 * PAGE), 0x66);
    });
}

// Every second page is missed: each that is covered alone is a mapping of its own.
TEST_F(ClientFaults, MissingPagesUseUpNoMappings)
{
    in_child([] {
        const size_t before = count_mappings();
        for (int round = 0; round < 3; round++) {
            constexpr size_t PAGES = 30000;
            ClientObject object(PAGES * PAGE);
            object.cut_to(0);
            for (size_t i = 0; i < PAGES; i += 2)
                ASSERT_EQ(read_byte(object.pixels + i * PAGE), 0);
            EXPECT_GT(count_mappings(), before + 4096) << "the first ones are, in each round";
            EXPECT_LT(count_mappings(), before + 10000);
        }
        EXPECT_LT(count_mappings(), before + 100);
    });
}

// Where the process may have no further mapping, the range as a whole becomes another one.
TEST_F(ClientFaults, WithoutAFurtherMappingTheWholeIsMissing)
{
    in_child([] {
        long most = 0;
        std::ifstream("/proc/sys/vm/max_map_count") >> most;
        ASSERT_GT(most, 0);
        ClientObject object(8 * PAGE);
        object.write(filled(8 * PAGE, 0x77));
        object.cut_to(4 * PAGE);
        const auto pages = 2 * static_cast<size_t>(most);
        auto *space = static_cast<uint8_t *>(
            mmap(nullptr, pages * PAGE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        ASSERT_NE(space, MAP_FAILED);
        size_t i = 0;
        while (i < pages && mprotect(space + i * PAGE, PAGE, PROT_READ) == 0)
            i += 2;
        const bool full = i < pages;
        const uint8_t missing = read_byte(object.pixels + 5 * PAGE);
        const uint8_t first = read_byte(object.pixels);
        munmap(space, pages * PAGE);
        EXPECT_TRUE(full);
        EXPECT_EQ(missing, 0);
        EXPECT_EQ(first, 0);
    });
}

// ---- a page that exists and cannot be had ----

// Mounts that are this process's own; an ordinary user becomes the root of a namespace for that.
bool own_mounts()
{
    if (unshare(CLONE_NEWNS) == 0)
        return true;
    const std::string user = std::to_string(getuid()), group = std::to_string(getgid());
    const auto tell = [](const char *file, const std::string &text) {
        return static_cast<bool>(std::ofstream(std::string("/proc/self/") + file) << text << std::flush);
    };
    return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && tell("uid_map", "0 " + user + " 1") &&
           tell("setgroups", "deny") && tell("gid_map", "0 " + group + " 1");
}

// A /dev/shm of so many pages, for this process alone. False where that is not allowed.
bool own_shared_memory(size_t pages)
{
    if (!own_mounts())
        return false;
    const std::string options = "mode=777,size=" + std::to_string(pages * PAGE);
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev/shm", "tmpfs", 0, options.c_str()) == 0;
}

// From now on pages of the mapping that nobody has written raise SIGBUS, as on a full filesystem.
bool refuse_new_pages(void *pixels, size_t bytes)
{
    const auto fd = static_cast<int>(syscall(SYS_userfaultfd, O_CLOEXEC | UFFD_USER_MODE_ONLY));
    uffdio_api api{};
    api.api = UFFD_API;
    api.features = UFFD_FEATURE_SIGBUS;
    uffdio_register range{};
    range.range = {reinterpret_cast<uintptr_t>(pixels), bytes};
    range.mode = UFFDIO_REGISTER_MODE_MISSING;
    return fd >= 0 && ioctl(fd, UFFDIO_API, &api) == 0 && ioctl(fd, UFFDIO_REGISTER, &range) == 0;
}

TEST_F(ClientFaults, PagesThatCannotBeHadAreMissingAndThoseBehindThemAreNot)
{
    in_child([this] {
        open_screen(64, 96);
        int fd = own_shared_memory(8) ? open("/dev/shm/sparse", O_RDWR | O_CREAT | O_EXCL, 0600) : -1;
        const bool own = fd >= 0;
        if (!own)
            fd = memfd_create("sparse", 0);
        ASSERT_EQ(ftruncate(fd, static_cast<off_t>(6 * PAGE)), 0);
        const std::vector<uint8_t> page = filled(PAGE, 0x77);
        for (const size_t i : {size_t{0}, size_t{1}, size_t{4}}) // pages; 16 rows each
            ASSERT_EQ(pwrite(fd, page.data(), PAGE, static_cast<off_t>(i * PAGE)), static_cast<ssize_t>(PAGE));
        void *pixels = client_memory_map(fd, 6 * PAGE);
        if (own) {
            const int rest = open("/dev/shm/rest", O_RDWR | O_CREAT | O_EXCL, 0600);
            while (write(rest, page.data(), PAGE) > 0)
                ;
            ASSERT_EQ(errno, ENOSPC);
        } else {
            ASSERT_TRUE(refuse_new_pages(pixels, 6 * PAGE))
                << "neither a filesystem of its own nor userfaultfd is allowed here: " << strerror(errno);
        }
        ImageSurface *surface = fs_add_surface(server, 0, 0, 64, 96, 256, XRGB32, 0, 0, pixels, "fb.sparse");
        fs_show_surface(server, surface);
        const std::string fault = own ? "is not all there and /dev/shm is full" : "is too short";
        EXPECT_EQ(complained([] { settle(); }),
                  "shared memory of fb.sparse " + fault + ": what is missing shows as zero\n");
        for (int32_t y = 0; y < 96; y++)
            EXPECT_EQ(primary_output.pixel(y % 64, y), y < 32 || y / 16 == 4 ? 0x77777777u : 0u) << y;
    });
}

// ---- elsewhere ----

using ClientFaultsDeath = ClientFaults;

void no_core()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

TEST_F(ClientFaultsDeath, OfMemoryThatIsNoClientsKills)
{
    EXPECT_EXIT(
        {
            no_core();
            ClientObject client(PAGE); // the handler is there
            const int fd = memfd_create("device", 0);
            if (ftruncate(fd, static_cast<off_t>(PAGE)) != 0)
                _exit(1);
            void *device = mmap(nullptr, PAGE, PROT_READ, MAP_SHARED, fd, 0);
            if (ftruncate(fd, 0) != 0)
                _exit(1);
            read_byte(static_cast<uint8_t *>(device));
        },
        testing::KilledBySignal(SIGBUS), "");
}

TEST_F(ClientFaultsDeath, SentByAProcessKills)
{
    EXPECT_EXIT(
        {
            no_core();
            ClientObject client(PAGE);
            kill(getpid(), SIGBUS);
        },
        testing::KilledBySignal(SIGBUS), "");
}

// Nothing that the server does stores into a client's memory. If something did, the zeros would not take it.
TEST_F(ClientFaultsDeath, StoringIntoWhatIsMissingKills)
{
    EXPECT_EXIT(
        {
            no_core();
            ClientObject client(PAGE);
            client.cut_to(0);
            *const_cast<volatile uint8_t *>(client.pixels) = 1;
        },
        [](int status) { return !WIFEXITED(status) || WEXITSTATUS(status) != 0; }, "");
}

} // namespace
