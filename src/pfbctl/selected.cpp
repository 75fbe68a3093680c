// SPDX-License-Identifier: MIT
#include "selected.h"

#include <algorithm>
#include <vector>

#include "../panelimage/message.h"
#include "connect.h"
#include "values.h"

namespace {

constexpr int ANSWER_MS = 2000;

const GOptionEntry ENTRIES[] = {
    {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
};

// The server answers this question for a surface that is there, and not at all for one that is not.
int confirm(pfb_client *client, const char *surface)
{
    int depth = 0;
    pfb_set_timeout(client, ANSWER_MS);
    if (pfb_get_color_depth(client, &depth) == PFB_OK)
        return STATUS_DONE;
    if (pfb_error() != PFB_ERROR_TIMEOUT)
        return connect_complain();
    complain("no surface is named %s (or the server does not answer); \"pfbctl status\" makes it print its surfaces",
             surface);
    return STATUS_NO_SURFACE;
}

int run(const SelectedVerb &verb, const char *surface, const int *numbers)
{
    pfb_client *client = connect_server("pfbctl");
    if (client == nullptr)
        return connect_status();
    int status = selected_result(pfb_set_surface(client, surface));
    if (status == STATUS_DONE)
        status = confirm(client, surface);
    if (status == STATUS_DONE)
        status = verb.request(client, numbers);
    if (status == STATUS_DONE)
        status = confirm(client, surface);
    pfb_disconnect(client);
    return status;
}

} // namespace

int selected_result(int result)
{
    return result == PFB_OK ? STATUS_DONE : connect_complain();
}

int selected_verb(const SelectedVerb &verb, int argc, char **argv)
{
    if (!options_parse(verb.text, ENTRIES, &argc, &argv))
        return STATUS_USAGE;
    if (argc != 2 + verb.count) {
        complain("which words? %s (see --help)", verb.text.usage);
        return STATUS_USAGE;
    }
    std::vector<int> numbers(static_cast<size_t>(std::max(verb.count, 1)));
    if (!value_numbers("the numbers", argv + 2, verb.count, numbers.data()) ||
        (verb.check != nullptr && !verb.check(numbers.data())))
        return STATUS_USAGE;
    return run(verb, argv[1], numbers.data());
}
