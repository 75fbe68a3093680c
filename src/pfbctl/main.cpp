// SPDX-License-Identifier: MIT
// pfbctl: the display server from the command line.
#include <clocale>
#include <cstdio>
#include <cstring>
#include <glib.h>
#include <string>

#include "../panelimage/message.h"
#include "verbs.h"

namespace {

struct Verb {
    const char *word;
    const char *summary;
    int (*run)(int argc, char **argv);
};

constexpr Verb VERBS[] = {
    {"show", "show a picture file", verb_show},
    {"fill", "show a rectangle of one colour", verb_fill},
    {"text", "show words", verb_text},
    {"veil", "dim a part of the screen", verb_veil},
    {"move", "move another program's surface", verb_move},
    {"hide", "hide another program's surface", verb_hide},
    {"unhide", "show it again", verb_unhide},
    {"level", "raise or lower another program's surface", verb_level},
    {"clip", "limit another program's surface to a rectangle", verb_clip},
    {"scale", "stretch or shrink another program's surface", verb_scale},
    {"status", "make the server print its surfaces", verb_status},
    {"shot", "write what the panel shows as a PNG picture", verb_shot},
    {"watch", "show where and how often the panel changes", verb_watch},
    {"bench", "measure how fast frames reach the panel", verb_bench},
};

void print_help()
{
    printf("Usage: pfbctl VERB [OPTION...] [WORD...]\n\nVerbs (each with its own --help):\n");
    for (const Verb &verb : VERBS)
        printf("  %-8s %s\n", verb.word, verb.summary);
    printf(
        "\nshow, fill, text and veil make a surface, which lives as long as its program: they stay in the foreground "
        "until\na signal ends them, or for the seconds of --for.\n\n"
        "The server is looked for in $MC_RUNTIME_DIR, else $XDG_RUNTIME_DIR, else /run/mc.\n"
        "Exit status: 0 done, 1 failed, 2 wrong usage, 3 no server, 4 no surface of that name.\n");
}

const Verb *find_verb(const char *word)
{
    for (const Verb &verb : VERBS) {
        if (strcmp(verb.word, word) == 0)
            return &verb;
    }
    return nullptr;
}

int run_verb(const Verb &verb, int argc, char **argv)
{
    g_set_prgname((std::string("pfbctl ") + verb.word).c_str());
    return verb.run(argc, argv);
}

} // namespace

int main(int argc, char **argv)
{
    setlocale(LC_ALL, "");
    g_set_prgname("pfbctl");
    const char *const word = argc > 1 ? argv[1] : "";
    const Verb *const verb = find_verb(word);
    if (verb != nullptr)
        return run_verb(*verb, argc - 1, argv + 1);
    if (strcmp(word, "--help") == 0 || strcmp(word, "-h") == 0) {
        print_help();
        return STATUS_DONE;
    }
    if (strcmp(word, "--version") == 0) {
        printf("pfbctl %s\n", PFBCTL_VERSION);
        return STATUS_DONE;
    }
    if (word[0] == '\0')
        complain("which verb? (see --help)");
    else
        complain("there is no verb %s (see --help)", word);
    return STATUS_USAGE;
}
