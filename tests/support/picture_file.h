// SPDX-License-Identifier: MIT
// Pictures as PNG files.
#pragma once

#include <string>

#include "panel_view.h"

// Both return "", or the path and what is wrong with it.
std::string picture_write(const Picture &picture, const std::string &path);
std::string picture_read(Picture &picture, const std::string &path);
