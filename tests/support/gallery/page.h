// SPDX-License-Identifier: MIT
// docs/gallery.md and the pictures beside it.
#pragma once

#include <string>
#include <vector>

bool gallery_writes(); // instead of comparing
std::string gallery_picture_path(const std::string &picture);
// The pictures that the page shows, in its order, and those that there are, sorted.
std::vector<std::string> gallery_page_pictures();
std::vector<std::string> gallery_files();
// The C text that follows a picture on the page; or, when the gallery is written, puts it there. "" when all is well,
// else what is not.
std::string gallery_check_text(const std::string &picture, const std::string &lines);
