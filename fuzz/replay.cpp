// SPDX-License-Identifier: MIT
// replay FILE-OR-FOLDER... - runs a fuzz target over each file, in the order of their names: a corpus as a test, or
// what the fuzzer has found. Ends as the target does.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include "support/fuzz.h"

namespace {

using Path = std::filesystem::path;

std::vector<Path> files_below(const Path &path)
{
    std::vector<Path> files;
    if (!std::filesystem::is_directory(path))
        return {path};
    for (const auto &entry : std::filesystem::recursive_directory_iterator(path)) {
        if (entry.is_regular_file())
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const Path &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fprintf(stderr, "replay: cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    // Of exactly this size, so that the sanitizer sees a read behind the end.
    const auto data = std::make_unique<uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), data.get());
    fprintf(stderr, "%s\n", path.c_str()); // the last line tells which file went wrong
    LLVMFuzzerTestOneInput(data.get(), bytes.size());
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    size_t replayed = 0;
    for (int i = 1; i < argc; i++) {
        for (const Path &path : files_below(argv[i])) {
            if (!replay(path))
                return 2;
            replayed++;
        }
    }
    printf("%zu inputs replayed\n", replayed);
    if (replayed == 0)
        fprintf(stderr, "replay: no inputs\n");
    return replayed == 0;
}
