// SPDX-License-Identifier: MIT
#include "options.h"

#include <cstdlib>
#include <cstring>

#include "../backend/backend.h"
#include "../base/output.h"

int32_t use_input;
int32_t send_event_remote;
const char *remote_addr;
int32_t use_x;
int32_t output_scale = 1;

namespace {

// strtol, base 10: no word is refused, a word that is no number is 0. The null behind the last argument is 0 too.
int32_t to_number(const char *word)
{
    return word != nullptr ? static_cast<int32_t>(strtol(word, nullptr, 10)) : 0;
}

bool set_positional(int counter, const char *word, Options *options)
{
    int32_t *const targets[] = {&options->w, &options->h, &use_x};
    if (counter >= 3)
        return false;
    *targets[counter] = to_number(word);
    return true;
}

// An option that takes a value, and the message for a missing one.
struct ValueOption {
    const char *word;
    const char *missing;
    void (*set)(const char *value);
};

constexpr ValueOption VALUE_OPTIONS[] = {
    {"-console", "console option needs argument\n", [](const char *value) { console_device = value; }},
    {"-fb", "fb option needs argument\n", [](const char *value) { fb_device = value; }},
    {"-send-event", "send-event needs argument\n",
     [](const char *value) {
         remote_addr = value;
         send_event_remote = 1;
     }},
    {"-scale", "scale option needs argument\n", [](const char *value) { output_scale = to_number(value); }},
};

const ValueOption *find_value_option(const char *word)
{
    for (const ValueOption &option : VALUE_OPTIONS) {
        if (strcmp(word, option.word) == 0)
            return &option;
    }
    return nullptr;
}

const char *or_null(const char *text)
{
    return text != nullptr ? text : "(null)";
}

} // namespace

int options_parse(int argc, char **argv, Options *options)
{
    int positional = 0;
    for (int i = 1; i < argc;) {
        const char *word = argv[i];
        if (const ValueOption *option = find_value_option(word)) {
            // Never true inside this loop: an option at the end takes the null behind the arguments as its value,
            // and start-up scripts that end in one rely on the server starting all the same.
            if (argc < i + 1) {
                err_printf("%s", option->missing);
                return -1;
            }
            option->set(argv[i + 1]);
            i += 2;
            continue;
        }
        if (strcmp(word, "-use-input") == 0) {
            use_input = 1;
        } else if (strcmp(word, "-benchmark") == 0) {
            options->benchmark = 1;
        } else if (!set_positional(positional++, word, options)) {
            err_printf("USAGE:%s [-console DEVICE] [-fb DEVICE] [W [H[USE_X(EMUL)]]]\n", argv[0]);
            return -1;
        }
        i++;
    }
    return 0;
}

void options_print(const Options *options)
{
    out_puts("option is ");
    out_printf("\t w = %d h = %d use_input = %d\n", options->w, options->h, use_input);
    out_printf("\t fb = %s\n", or_null(fb_device));
    out_printf("\t console = %s\n", or_null(console_device));
    out_printf("\t scale = %d\n", output_scale);
}
