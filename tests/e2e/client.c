/* SPDX-License-Identifier: MIT */
/*
 * client NAME PIXELS REQUEST...
 *
 * A client of the server, over the message channel alone. Each REQUEST is one word with its integers ("move 10 20").
 * "create" gets the shared memory's name appended; its memory is filled with the file PIXELS. The words that the
 * server answers are waited for.
 *
 * The program stays, and sends everything again when it has lost the server and found it back. SIGUSR1 makes it report
 * its whole surface as dirty. With PIXELS "-" it makes no shared memory: "create" then names an object that does not
 * exist; such a client ends with the connection. With PIXELS "." it sends its requests once and ends, with status 0, or
 * with 1 and the reason when it cannot.
 */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "mc.h"

#define RETRY_MS 50
#define ANSWER_MS 30000

static volatile sig_atomic_t report_all;

static void on_usr1(int number)
{
    (void)number;
    report_all = 1;
}

static _Noreturn void die(const char *what)
{
    perror(what);
    exit(1);
}

static void wait_ms(long ms)
{
    struct timespec pause = {ms / 1000, ms % 1000 * 1000000};
    nanosleep(&pause, NULL);
}

/* The file's bytes in a new shared-memory object under `name`; the server unlinks the name. */
static void make_memory(const char *name, const char *pixels)
{
    struct stat info;
    int from = open(pixels, O_RDONLY | O_CLOEXEC);
    if (from < 0 || fstat(from, &info) < 0)
        die(pixels);
    size_t size = (size_t)info.st_size;
    shm_unlink(name); /* a server that ended may have left the last one */
    int fd = shm_open(name, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0 || ftruncate(fd, info.st_size) < 0)
        die(name);
    char *memory = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        die("mmap");
    for (size_t done = 0; done < size;) {
        ssize_t n = read(from, memory + done, size - done);
        if (n <= 0)
            die(pixels);
        done += (size_t)n;
    }
    munmap(memory, size);
    close(fd);
    close(from);
}

static mc_packet *parse_request(const char *request, const char *pixels)
{
    char text[256];
    snprintf(text, sizeof text, "%s", request);
    char *rest;
    char *word = strtok_r(text, " ", &rest);
    mc_packet *packet = mc_packet_new_command(word);
    for (char *number; (number = strtok_r(NULL, " ", &rest)) != NULL;)
        mc_packet_build_args(packet, "i", (int32_t)strtol(number, NULL, 0));
    if (strcmp(word, "create") == 0) {
        char name[64];
        snprintf(name, sizeof name, "/e2e-%d", (int)getpid());
        if (strcmp(pixels, "-") != 0)
            make_memory(name, pixels);
        mc_packet_build_args(packet, "s", name);
    }
    return packet;
}

static bool is_answered(const char *word)
{
    return strcmp(word, "lock_area") == 0 || strcmp(word, "get_native_color_depth") == 0;
}

/* False when the server is gone. */
static bool send_request(mc_connection *server, const char *request, const char *pixels)
{
    mc_packet *packet = parse_request(request, pixels);
    bool sent;
    if (is_answered(mc_packet_command(packet))) {
        mc_packet *answer = mc_call(server, packet, ANSWER_MS);
        sent = answer != NULL;
        mc_packet_free(answer);
    } else {
        sent = mc_send(server, packet) == 0;
    }
    mc_packet_free(packet);
    return sent;
}

/* Until the server is gone. */
static void stay(mc_connection *server)
{
    struct pollfd entry = {mc_fd(server), POLLIN, 0};
    sigset_t none;
    sigemptyset(&none);
    for (;;) {
        if (ppoll(&entry, 1, NULL, &none) > 0)
            return; /* nothing that is sent here asks for an answer: this is the hang-up */
        if (report_all && !send_request(server, "dirty 0 0 16384 16384", ""))
            return;
        report_all = 0;
    }
}

int main(int argc, char **argv)
{
    if (argc < 4) {
        fprintf(stderr, "usage: %s NAME PIXELS REQUEST...\n", argv[0]);
        return 2;
    }
    struct sigaction action = {.sa_handler = on_usr1};
    sigset_t usr1;
    sigaction(SIGUSR1, &action, NULL);
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigprocmask(SIG_BLOCK, &usr1, NULL); /* comes in while the program waits */
    puts("ready for signals");
    fflush(stdout);
    for (;;) {
        mc_connection *server = mc_connect("pfb", argv[1]);
        bool sent = server != NULL;
        for (int i = 3; i < argc && sent; i++)
            sent = send_request(server, argv[i], argv[2]);
        if (strcmp(argv[2], ".") == 0) {
            if (!sent)
                die(server ? argv[3] : "cannot connect");
            mc_close(server);
            return 0;
        }
        if (sent)
            stay(server);
        mc_close(server);
        if (strcmp(argv[2], "-") == 0)
            return 0;
        wait_ms(RETRY_MS);
    }
}
