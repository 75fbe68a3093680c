/* SPDX-License-Identifier: MIT */
#include "example.h"

#include <errno.h>
#include <math.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

struct example_options example_options = {.name = "example", .width = 320, .height = 200, .rate = 30};

static pfb_client *client;
static double started; /* seconds of the monotonic clock */
static long frames;    /* asked for so far */
static bool failed;
static volatile sig_atomic_t told_to_end;
static sigset_t while_waiting; /* the signals that are blocked while poll waits: all but ours */

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static void on_signal(int number)
{
    (void)number;
    told_to_end = 1;
}

/* The signals come in while poll waits, and nowhere else: none is missed between looking at the flag and waiting. */
static void catch_signals(void)
{
    struct sigaction action = {.sa_handler = on_signal};
    sigset_t ours;
    sigemptyset(&ours);
    sigaddset(&ours, SIGTERM);
    sigaddset(&ours, SIGINT);
    sigprocmask(SIG_BLOCK, &ours, &while_waiting);
    sigdelset(&while_waiting, SIGTERM);
    sigdelset(&while_waiting, SIGINT);
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGINT, &action, NULL);
}

static bool parse(int *argc, char ***argv, const char *summary, const GOptionEntry *own)
{
    char *name = NULL;
    const GOptionEntry common[] = {
        {"name", 'n', 0, G_OPTION_ARG_STRING, &name, "Name; what stands before a dot is the output", "NAME"},
        {"x", 'x', 0, G_OPTION_ARG_INT, &example_options.x, "Left edge on the screen", "PIXELS"},
        {"y", 'y', 0, G_OPTION_ARG_INT, &example_options.y, "Upper edge", "PIXELS"},
        {"width", 0, 0, G_OPTION_ARG_INT, &example_options.width, "Width of the surface", "PIXELS"},
        {"height", 0, 0, G_OPTION_ARG_INT, &example_options.height, "Height", "PIXELS"},
        {"level", 'l', 0, G_OPTION_ARG_INT, &example_options.level, "Level; higher is nearer to the viewer", "N"},
        {"seconds", 's', 0, G_OPTION_ARG_DOUBLE, &example_options.seconds, "How long; 0: until told to end", "N"},
        {"rate", 'r', 0, G_OPTION_ARG_DOUBLE, &example_options.rate, "Frames per second", "N"},
        {NULL, 0, 0, G_OPTION_ARG_NONE, NULL, NULL, NULL},
    };
    GOptionContext *context = g_option_context_new(NULL);
    GError *error = NULL;
    g_option_context_set_summary(context, summary);
    if (own != NULL)
        g_option_context_add_main_entries(context, own, NULL);
    g_option_context_add_main_entries(context, common, NULL);
    bool good = g_option_context_parse(context, argc, argv, &error);
    g_option_context_free(context);
    if (!good) {
        fprintf(stderr, "%s: %s (see --help)\n", g_get_prgname(), error->message);
        g_error_free(error);
    } else if (example_options.rate < 0 || example_options.rate > 1000 || example_options.seconds < 0) {
        fprintf(stderr, "%s: --rate is 0 to 1000, --seconds at least 0\n", g_get_prgname());
        good = false;
    }
    if (name != NULL)
        example_options.name = name; /* stays for the life of the program */
    return good;
}

bool example_start(int *argc, char ***argv, const char *summary, const GOptionEntry *own, enum pfb_format format)
{
    const struct example_options *o = &example_options;
    if (!parse(argc, argv, summary, own))
        return false;
    catch_signals();
    started = now();
    client = pfb_connect(o->name);
    if (client != NULL && pfb_create(client, format, o->x, o->y, o->width, o->height, o->level, 0) == PFB_OK)
        return true;
    fprintf(stderr, "%s: %s\n", g_get_prgname(), pfb_error_text());
    pfb_disconnect(client);
    return false;
}

pfb_client *example_client(void)
{
    return client;
}

double example_time(void)
{
    return now() - started;
}

/* Waits for `seconds` (negative: for ever) or a signal. When the server ends, the library finds the next one. */
static void wait_for(double seconds)
{
    struct pollfd server = {pfb_poll_fd(client), POLLIN, 0};
    struct timespec time = {(time_t)seconds, (long)((seconds - floor(seconds)) * 1e9)};
    const int n = ppoll(&server, 1, seconds < 0 ? NULL : &time, &while_waiting);
    if (n > 0)
        example_check(pfb_dispatch(client));
    if (n < 0 && errno != EINTR)
        failed = true;
}

bool example_next_frame(void)
{
    const struct example_options *o = &example_options;
    for (;;) {
        const double t = example_time();
        if (failed || told_to_end || (o->seconds > 0 && t >= o->seconds))
            return false;
        const double due = o->rate > 0 ? (double)frames / o->rate : INFINITY;
        if (t >= due) {
            /* Frames that this machine was too slow for are left out. */
            frames = lround(floor(t * o->rate)) + 1;
            return true;
        }
        const double end = o->seconds > 0 ? o->seconds : INFINITY;
        const double wake = fmin(due, end);
        wait_for(isinf(wake) ? -1 : wake - t);
    }
}

bool example_check(int result)
{
    if (result != PFB_OK && !failed) {
        fprintf(stderr, "%s: %s\n", g_get_prgname(), pfb_error_text());
        failed = true;
    }
    return !failed;
}

int example_end(void)
{
    pfb_disconnect(client);
    return failed ? EXIT_FAILURE : EXIT_SUCCESS;
}
