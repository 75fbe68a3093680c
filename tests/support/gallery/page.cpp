// SPDX-License-Identifier: MIT
#include "page.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "../process.h"

namespace {

const std::string FOLDER = "gallery/", ENDING = ".png", CODE = "```c\n", CODE_END = "```";

std::string page_path()
{
    return from_build("PFB_TEST_DOCS") + "/gallery.md";
}

// Where the text after a picture begins and ends on the page; npos: the page does not show it so. Pictures that stand
// before one text share it: the same calls, on different panels.
std::pair<size_t, size_t> find_text(const std::string &page, const std::string &picture)
{
    const size_t shown = page.find(FOLDER + picture + ENDING);
    const size_t begin = shown == std::string::npos ? shown : page.find(CODE, shown);
    if (begin == std::string::npos)
        return {begin, begin};
    const size_t from = begin + CODE.size();
    return {from, page.find(CODE_END, from)};
}

} // namespace

bool gallery_writes()
{
    return getenv("PFB_GALLERY_WRITE") != nullptr;
}

std::string gallery_picture_path(const std::string &picture)
{
    return from_build("PFB_TEST_DOCS") + "/" + FOLDER + picture + ENDING;
}

std::vector<std::string> gallery_page_pictures()
{
    const std::string page = file_text(page_path());
    std::vector<std::string> pictures;
    for (size_t at = page.find(FOLDER); at != std::string::npos; at = page.find(FOLDER, at + 1)) {
        const size_t name = at + FOLDER.size();
        pictures.push_back(page.substr(name, page.find(ENDING, name) - name));
    }
    return pictures;
}

std::vector<std::string> gallery_files()
{
    std::vector<std::string> files;
    for (const std::string &name : folder_entries(from_build("PFB_TEST_DOCS") + "/" + FOLDER))
        files.push_back(name.substr(0, name.rfind(ENDING)));
    std::sort(files.begin(), files.end());
    return files;
}

std::string gallery_check_text(const std::string &picture, const std::string &lines)
{
    std::string page = file_text(page_path());
    const auto [begin, end] = find_text(page, picture);
    if (begin == std::string::npos || end == std::string::npos)
        return page_path() + " shows no " + FOLDER + picture + ENDING + " with C text after it";
    const std::string written = page.substr(begin, end - begin);
    if (written == lines)
        return "";
    if (!gallery_writes())
        return page_path() + " says of " + picture + ":\n" + written + "and this was played:\n" + lines;
    std::ofstream(page_path()) << page.replace(begin, end - begin, lines);
    return "";
}
