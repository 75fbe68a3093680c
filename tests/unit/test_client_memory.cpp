// SPDX-License-Identifier: MIT
// Clients' mappings and what becomes of them. The reservations are the process's own, so each test runs in a fork.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../../src/composite/client_memory.h"

namespace {

const size_t PAGE = static_cast<size_t>(sysconf(_SC_PAGESIZE));

void in_fork(const std::function<void()> &body)
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        fflush(stdout);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
}

// A client's object whose first byte of each page is `mark`.
int client_object(size_t pages, char mark)
{
    const int fd = memfd_create("client", MFD_CLOEXEC);
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>(pages * PAGE)), 0);
    for (size_t i = 0; i < pages; i++)
        EXPECT_EQ(pwrite(fd, &mark, 1, static_cast<off_t>(i * PAGE)), 1);
    return fd;
}

char *map_client(size_t pages, char mark)
{
    const int fd = client_object(pages, mark);
    void *pixels = client_memory_map(fd, pages * PAGE);
    close(fd);
    EXPECT_NE(pixels, MAP_FAILED) << strerror(errno);
    return static_cast<char *>(pixels);
}

// The kernel reads the byte for us, or says that it must not.
bool is_accessible(const char *at)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const bool accessible = write(fds[1], at, 1) == 1;
    EXPECT_TRUE(accessible || errno == EFAULT) << strerror(errno);
    close(fds[0]);
    close(fds[1]);
    return accessible;
}

size_t count_mappings()
{
    std::ifstream maps("/proc/self/maps");
    size_t n = 0;
    for (std::string line; std::getline(maps, line);)
        n++;
    return n;
}

// True when no mapping has `at`: somebody else's memory may come to lie there. (Asked by a call that does nothing else
// here; mincore, made for this, does not know inaccessible pages under an emulated processor.)
bool is_hole(const char *at)
{
    return msync(const_cast<char *>(at), PAGE, MS_ASYNC) != 0 && errno == ENOMEM;
}

} // namespace

TEST(ClientMemory, MapsTheObjectShared)
{
    in_fork([] {
        const int fd = client_object(2, 'a');
        char *pixels = static_cast<char *>(client_memory_map(fd, 2 * PAGE));
        EXPECT_EQ(pixels[0], 'a');
        pixels[PAGE] = 'b';
        char seen = 0;
        EXPECT_EQ(pread(fd, &seen, 1, static_cast<off_t>(PAGE)), 1);
        EXPECT_EQ(seen, 'b');
    });
}

TEST(ClientMemory, RetiredPixelsAreInaccessibleButNeverAHole)
{
    in_fork([] {
        char *pixels = map_client(3, 'a');
        EXPECT_TRUE(is_accessible(pixels));
        client_memory_retire(pixels);
        for (size_t i = 0; i < 3; i++) {
            EXPECT_FALSE(is_accessible(pixels + i * PAGE)) << i;
            EXPECT_FALSE(is_hole(pixels + i * PAGE)) << i;
        }
    });
}

TEST(ClientMemory, PartOfAPageIsAWholeOne)
{
    in_fork([] {
        const int fd = client_object(2, 'a');
        char *pixels = static_cast<char *>(client_memory_map(fd, PAGE + 1));
        EXPECT_EQ(pixels[PAGE], 'a');
        client_memory_retire(pixels);
        EXPECT_FALSE(is_accessible(pixels + PAGE));
        EXPECT_EQ(client_memory_map(fd, 2 * PAGE), pixels);
    });
}

TEST(ClientMemory, LaterClientsGoIntoReservationsThatAreLargeEnough)
{
    in_fork([] {
        char *first = map_client(4, 'a');
        char *guard = map_client(1, 'g'); // may lie beside it
        client_memory_retire(first);
        char *large = map_client(8, 'l');
        EXPECT_TRUE(large + 8 * PAGE <= first || large >= first + 4 * PAGE);
        char *second = map_client(4, 'b');
        EXPECT_EQ(second, first);
        EXPECT_EQ(second[3 * PAGE], 'b');
        EXPECT_EQ(guard[0], 'g');
        EXPECT_EQ(large[7 * PAGE], 'l');
    });
}

TEST(ClientMemory, TheSmallestReservationThatFitsIsTaken)
{
    in_fork([] {
        client_memory_retire(map_client(24, 'a')); // the ones below are carved from it, one behind the other
        char *large = map_client(16, 'a');
        char *keep = map_client(1, 'k');
        char *small = map_client(4, 'b');
        char *keep_too = map_client(1, 'k');
        ASSERT_EQ(keep_too, large + 21 * PAGE);
        client_memory_retire(large);
        client_memory_retire(small);
        EXPECT_EQ(map_client(3, 'c'), small);
        EXPECT_EQ(map_client(5, 'd'), large);
        EXPECT_EQ(keep[0], 'k');
        EXPECT_EQ(keep_too[0], 'k');
    });
}

TEST(ClientMemory, TheRestOfAReservationIsUsedToo)
{
    in_fork([] {
        char *first = map_client(6, 'a');
        char *keep = map_client(1, 'k');
        client_memory_retire(first);
        char *second = map_client(2, 'b');
        char *third = map_client(4, 'c');
        EXPECT_EQ(second, first);
        EXPECT_EQ(third, first + 2 * PAGE);
        EXPECT_EQ(second[0], 'b');
        EXPECT_EQ(second[PAGE], 'b');
        EXPECT_EQ(third[0], 'c');
        EXPECT_EQ(third[3 * PAGE], 'c');
        EXPECT_EQ(keep[0], 'k');
    });
}

TEST(ClientMemory, NeighbouringReservationsServeALargerClient)
{
    in_fork([] {
        char *whole = map_client(9, 'a');
        client_memory_retire(whole);
        char *parts[3];
        for (char *&part : parts)
            part = map_client(3, 'b');
        ASSERT_EQ(parts[2], whole + 6 * PAGE);
        client_memory_retire(parts[0]);
        client_memory_retire(parts[2]);
        client_memory_retire(parts[1]); // the one in the middle joins all three
        EXPECT_EQ(map_client(9, 'c'), whole);
    });
}

TEST(ClientMemory, OnlyTheClientThatGoesIsTouched)
{
    in_fork([] {
        char *kept[3];
        char *gone[3];
        for (int i = 0; i < 3; i++) {
            kept[i] = map_client(2, 'k');
            gone[i] = map_client(2, 'g');
        }
        for (char *pixels : gone)
            client_memory_retire(pixels);
        for (char *pixels : kept) {
            EXPECT_EQ(pixels[0], 'k');
            EXPECT_EQ(pixels[PAGE], 'k');
        }
    });
}

TEST(ClientMemory, ForeignMemoryIsLeftAlone)
{
    in_fork([] {
        client_memory_retire(nullptr);
        char *own =
            static_cast<char *>(mmap(nullptr, PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        client_memory_retire(own);
        EXPECT_TRUE(is_accessible(own));
        char *pixels = map_client(2, 'a');
        client_memory_retire(pixels + PAGE); // inside a mapping is not its start
        EXPECT_EQ(pixels[PAGE], 'a');
        client_memory_retire(pixels);
        client_memory_retire(pixels); // gone already
        EXPECT_EQ(map_client(2, 'b'), pixels);
        EXPECT_NE(map_client(2, 'c'), pixels) << "one reservation must not be given out twice";
    });
}

TEST(ClientMemory, FailuresAreReportedAsByMmap)
{
    in_fork([] {
        const int fd = client_object(1, 'a');
        errno = 0;
        EXPECT_EQ(client_memory_map(fd, SIZE_MAX - 10), MAP_FAILED);
        EXPECT_EQ(errno, ENOMEM);
        errno = 0;
        EXPECT_EQ(client_memory_map(-1, PAGE), MAP_FAILED);
        EXPECT_EQ(errno, EBADF);
        char *pixels = map_client(4, 'a');
        client_memory_retire(pixels);
        errno = 0;
        EXPECT_EQ(client_memory_map(-1, 4 * PAGE), MAP_FAILED); // into the reservation
        EXPECT_EQ(errno, EBADF);
        char *next = map_client(4, 'b');
        EXPECT_EQ(next[3 * PAGE], 'b');
    });
}

TEST(ClientMemory, AThousandClientsLeaveNoMappings)
{
    in_fork([] {
        for (size_t i = 0; i < 20; i++)
            client_memory_retire(map_client(1 + i * 7 % 13, 'a'));
        const size_t before = count_mappings();
        for (size_t i = 0; i < 1000; i++)
            client_memory_retire(map_client(1 + i * 7 % 13, 'a'));
        EXPECT_LE(count_mappings(), before + 20); // a few may be a sanitizer's own
    });
}
