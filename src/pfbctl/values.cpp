// SPDX-License-Identifier: MIT
#include "values.h"

#include <climits>
#include <glib.h>
#include <pango/pango.h>

#include "../panelimage/message.h"

namespace {

bool parse(const char *text, int least, int *number)
{
    gint64 value = 0;
    if (!g_ascii_string_to_signed(text, 10, least, INT_MAX, &value, nullptr))
        return false;
    *number = static_cast<int>(value);
    return true;
}

bool parse_pair(const char *text, const char *separator, int least, int *first, int *second)
{
    char **const parts = g_strsplit(text, separator, -1);
    const bool good = g_strv_length(parts) == 2 && parse(parts[0], least, first) && parse(parts[1], least, second);
    g_strfreev(parts);
    return good;
}

} // namespace

bool value_number(const char *what, const char *text, int *number)
{
    if (parse(text, INT_MIN, number))
        return true;
    complain("%s: %s is no number", what, text);
    return false;
}

bool value_numbers(const char *what, char *const *words, int count, int *numbers)
{
    for (int i = 0; i < count; i++) {
        if (!value_number(what, words[i], &numbers[i]))
            return false;
    }
    return true;
}

bool value_position(const char *what, const char *text, int *x, int *y)
{
    if (parse_pair(text, ",", INT_MIN, x, y))
        return true;
    complain("%s: %s is no position such as 100,50", what, text);
    return false;
}

bool value_size(const char *what, const char *text, int *width, int *height)
{
    if (parse_pair(text, "x", 1, width, height))
        return true;
    complain("%s: %s is no size such as 320x200", what, text);
    return false;
}

bool value_colour(const char *what, const char *text, uint32_t *colour)
{
    PangoColor rgb;
    guint16 alpha = 0;
    if (!pango_color_parse_with_alpha(&rgb, &alpha, text)) {
        complain("%s: %s is no colour such as red, #ff8000 or #ff800080", what, text);
        return false;
    }
    const auto byte = [](guint16 channel) { return static_cast<uint32_t>(channel >> 8); };
    *colour = byte(alpha) << 24 | byte(rgb.red) << 16 | byte(rgb.green) << 8 | byte(rgb.blue);
    return true;
}

bool value_percent(const char *what, double percent)
{
    if (percent >= 0 && percent <= 100)
        return true;
    complain("%s takes 0 to 100", what);
    return false;
}

bool value_rotation(int degrees)
{
    if (degrees == 0 || degrees == 90 || degrees == 270)
        return true;
    complain("--rotation takes 0, 90 or 270");
    return false;
}
