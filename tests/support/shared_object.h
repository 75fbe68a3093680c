// SPDX-License-Identifier: MIT
// A client's shared-memory object, mapped on the client's side. Its name is gone at the end, whoever was to unlink it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

class SharedObject {
public:
    explicit SharedObject(size_t size) : bytes(size)
    {
        static int number = 0;
        name = "/pfb-test-" + std::to_string(getpid()) + "-" + std::to_string(number++);
        fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
            perror("shared object");
            abort();
        }
        mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (mapped == MAP_FAILED) {
            perror("shared object");
            abort();
        }
    }
    ~SharedObject()
    {
        munmap(mapped, bytes);
        close(fd);
        shm_unlink(name.c_str());
    }
    SharedObject(const SharedObject &) = delete;
    SharedObject &operator=(const SharedObject &) = delete;

    bool has_name() const
    {
        const int again = shm_open(name.c_str(), O_RDONLY, 0);
        if (again >= 0)
            close(again);
        return again >= 0;
    }

    void fill(uint32_t word)
    {
        for (size_t i = 0; i < bytes / 4; i++)
            static_cast<uint32_t *>(mapped)[i] = word;
    }

    void cut_to(off_t size)
    {
        if (ftruncate(fd, size) != 0) {
            perror("shared object");
            abort();
        }
    }

    std::string name;

private:
    size_t bytes;
    int fd;
    void *mapped;
};
