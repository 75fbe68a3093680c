// SPDX-License-Identifier: MIT
#include "options.h"

#include <cstring>

#include "message.h"

ScreenOptions screen_options;

namespace {

// Where negative numbers are words, GLib has left unknown options in the vector as well.
bool check_words(int argc, char *const *argv)
{
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; i++) {
        if (argv[i][0] == '-' && !g_ascii_isdigit(argv[i][1])) {
            complain("Unknown option %s (see --help)", argv[i]);
            return false;
        }
    }
    return true;
}

} // namespace

bool options_parse(const OptionText &text, const GOptionEntry *entries, int *argc, char ***argv)
{
    GOptionContext *context = g_option_context_new(text.usage);
    g_option_context_set_summary(context, text.summary);
    g_option_context_set_description(context, text.description);
    g_option_context_set_strict_posix(context, text.before_program);
    g_option_context_set_ignore_unknown_options(context, text.numbers);
    g_option_context_add_main_entries(context, entries, nullptr);
    GError *error = nullptr;
    bool parsed = g_option_context_parse(context, argc, argv, &error);
    if (parsed && text.numbers) {
        parsed = check_words(*argc, *argv);
    } else if (!parsed) {
        complain("%s (see --help)", error->message);
        g_error_free(error);
    }
    g_option_context_free(context);
    if (parsed && *argc > 1 && strcmp((*argv)[1], "--") == 0) {
        memmove(*argv + 1, *argv + 2, sizeof **argv * static_cast<size_t>(*argc - 1)); // with the null at the end
        *argc -= 1;
    }
    return parsed;
}

bool options_screen(ScreenChoice *choice)
{
    const ScreenOptions &options = screen_options;
    if ((options.name != nullptr) + (options.panel != nullptr) + (options.fb != nullptr) > 1) {
        complain("--name, --panel and --fb exclude each other");
        return false;
    }
    *choice = {options.name != nullptr ? options.name : "", options.panel != nullptr ? options.panel : "",
               options.fb != nullptr ? options.fb : "", options.layer2 != FALSE};
    if (options.fb == nullptr || !options.layer2)
        return true;
    complain("--layer2 is a panel's; name the second layer's device with --fb");
    return false;
}
