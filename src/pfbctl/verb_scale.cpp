// SPDX-License-Identifier: MIT
#include "verbs.h"

#include <cstdint>

#include "../panelimage/message.h"
#include "mc.h"
#include "selected.h"

namespace {

constexpr int ANSWER_MS = 5000;
constexpr int SIZE_MAX_PIXELS = 32767;

bool is_size(int width, int height)
{
    return width >= 1 && height >= 1 && width <= SIZE_MAX_PIXELS && height <= SIZE_MAX_PIXELS &&
           int64_t{width} * height <= INT32_MAX / 4;
}

// What the server needs to know is left to it: it alone knows the surface, and skips pixels that there are not.
bool check(const int *n)
{
    if (n[0] >= 0 && n[1] >= 0 && is_size(n[2], n[3]) && is_size(n[6], n[7]))
        return true;
    complain("the source begins at 0,0 or more, and sizes are 1 to %d", SIZE_MAX_PIXELS);
    return false;
}

// The answer to the question behind the request tells that the request was handled.
bool send_scale(mc_connection *connection, const int *n)
{
    mc_packet *request = mc_packet_new_command("set_scale"),
              *question = mc_packet_new_command("get_native_color_depth");
    mc_packet *answer = nullptr;
    if (mc_packet_build_args(request, "iiiiiiii", n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7]) == 8 &&
        mc_send(connection, request) == 0)
        answer = mc_call(connection, question, ANSWER_MS);
    const bool answered = answer != nullptr;
    for (mc_packet *packet : {request, question, answer})
        mc_packet_free(packet);
    return answered;
}

// pfb_set_scale checks the source against its client's own pixels, and so refuses a client that has none. On a selected
// surface the request goes over the channel itself; the selection counts for all connections.
int scale(pfb_client *, const int *n)
{
    mc_connection *connection = mc_connect_in_time("pfb", "pfbctl", ANSWER_MS);
    if (connection == nullptr || !send_scale(connection, n)) {
        complain_errno("set_scale");
        mc_close(connection);
        return STATUS_FAILED;
    }
    mc_close(connection);
    return STATUS_DONE;
}

} // namespace

int verb_scale(int argc, char **argv)
{
    const SelectedVerb verb = {
        {"NAME SOURCE_X SOURCE_Y SOURCE_WIDTH SOURCE_HEIGHT X Y WIDTH HEIGHT",
         "Shows a rectangle of another program's pixels stretched or shrunk to a rectangle of the screen. Equal sizes "
         "end\n"
         "that. The source has to lie within the surface; 18-bit surfaces come out as noise.",
         SELECTED_TEXT, false, true},
        8,
        scale,
        check,
    };
    return selected_verb(verb, argc, argv);
}
