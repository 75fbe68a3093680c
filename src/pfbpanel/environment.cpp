// SPDX-License-Identifier: MIT
#include "environment.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "../panelimage/message.h"

namespace {

const char *const LIBRARY = "libpfbpanel-preload.so";

std::string own_folder()
{
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string exe(path, length > 0 ? static_cast<size_t>(length) : 0);
    return exe.substr(0, exe.rfind('/') + 1);
}

// In the build tree beside the program, and installed where the build was told to put it.
std::string find_library()
{
    const std::string installed = PFBPANEL_LIBRARY_FOLDER; // relative to the program's folder, or absolute
    for (const std::string &folder : {own_folder(), installed[0] == '/' ? installed : own_folder() + installed}) {
        char *path = realpath((folder + "/" + LIBRARY).c_str(), nullptr);
        if (path != nullptr) {
            const std::string found = path;
            free(path);
            return found;
        }
    }
    return "";
}

void append(const char *variable, const std::string &word, const char *separator)
{
    const char *value = getenv(variable);
    const std::string before = value != nullptr && value[0] != '\0' ? std::string(value) + separator : "";
    setenv(variable, (before + word).c_str(), 1);
}

void preload(const std::string &library)
{
    const char *value = getenv("LD_PRELOAD");
    if (value == nullptr || value[0] == '\0')
        setenv("LD_PRELOAD", library.c_str(), 1);
    else if (strstr(value, library.c_str()) == nullptr)
        setenv("LD_PRELOAD", (library + ":" + value).c_str(), 1);
}

// Each panel's server gets a place of its own for its message channel. A panel inside a panel does not keep the outer
// one's.
void set_runtime_folder(const std::string &folder)
{
    const char *outer = getenv("PFBPANEL_DIR");
    const char *runtime = getenv("MC_RUNTIME_DIR");
    if (runtime == nullptr || (outer != nullptr && strcmp(runtime, outer) == 0))
        setenv("MC_RUNTIME_DIR", folder.c_str(), 1);
}

} // namespace

bool environment_enter(const std::string &folder)
{
    const std::string library = find_library();
    if (library.empty()) {
        complain("%s is neither beside this program nor in its library folder", LIBRARY);
        return false;
    }
    if (library.find_first_of(": ") != std::string::npos) {
        complain("%s: the dynamic linker cannot preload a path with a blank or a colon", library.c_str());
        return false;
    }
    preload(library);
    append("ASAN_OPTIONS", "verify_asan_link_order=0", ":");
    set_runtime_folder(folder);
    setenv("PFBPANEL_DIR", folder.c_str(), 1);
    return true;
}
