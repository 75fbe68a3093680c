// SPDX-License-Identifier: MIT
#include "what_you_see.h"

#include <csignal>
#include <sstream>

namespace {

constexpr int NEIGHBOUR = 3; // pixels along its edges

std::vector<std::string> cells_of(const std::string &line)
{
    std::vector<std::string> cells;
    std::istringstream stream(line.substr(1));
    for (std::string cell; std::getline(stream, cell, '|');) {
        const size_t first = cell.find_first_not_of(' ');
        const size_t last = cell.find_last_not_of(' ');
        cells.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
    }
    return cells;
}

Pixels top_left_of(const Pixels &pixels, int size)
{
    Pixels part = pixels_new(pixels.format, size, size);
    for (int y = 0; y < size; y++) {
        for (int x = 0; x < size; x++)
            part.set(x, y, pixels.at(x, y));
    }
    return part;
}

Pixels picture_below(int rotation)
{
    const bool upright = rotation == 0;
    return pixels_photograph(PixelFormat::XRGB, upright ? PANEL_WIDTH : PANEL_HEIGHT,
                             upright ? PANEL_HEIGHT : PANEL_WIDTH, 1);
}

// Whether the panel has a place for every bit of the picture's colours.
bool loses_bits(const Pixels &pixels, int depth)
{
    PictureComposer composer(pixels.width, pixels.height);
    composer.draw(pixels, 0, 0, true);
    return !(composer.picture(depth) == composer.picture(32));
}

} // namespace

std::vector<Column> columns_with_company()
{
    return {
        {"16-bit panel, alone", "rgb565", Company::ALONE},
        {"16-bit panel, with others", "rgb565", Company::WITH_OTHERS},
        {"18-bit panel, alone", "rgb666", Company::ALONE},
        {"18-bit panel, with others", "rgb666", Company::WITH_OTHERS},
        {"32-bit panel, alone", "xrgb8888", Company::ALONE},
        {"32-bit panel, with others", "xrgb8888", Company::WITH_OTHERS},
    };
}

std::vector<Column> columns_of_panels()
{
    return {
        {"16-bit panel", "rgb565", Company::ALONE},
        {"18-bit panel", "rgb666", Company::ALONE},
        {"32-bit panel", "xrgb8888", Company::ALONE},
    };
}

TableText page_table(const std::string &name)
{
    TableText rows;
    bool inside = false;
    for (const std::string &line : lines_of(file_text(from_build("PFB_TEST_PAGE")))) {
        if (line.rfind("<!-- ", 0) == 0)
            inside = line == "<!-- table " + name + " -->";
        else if (inside && line.rfind("|--", 0) != 0 && line.rfind("|", 0) == 0)
            rows.push_back(cells_of(line));
        else if (!line.empty() && line[0] != '|')
            inside = false;
    }
    return rows;
}

std::string page_cell(const std::string &table, const std::string &row, const std::string &column)
{
    const TableText rows = page_table(table);
    for (size_t y = 1; y < rows.size(); y++) {
        for (size_t x = 1; x < rows[y].size() && x < rows[0].size(); x++) {
            if (rows[y][0] == row && rows[0][x] == column)
                return rows[y][x];
        }
    }
    ADD_FAILURE() << "the page's table " << table << " has no cell " << row << ", " << column;
    return "";
}

std::string Sights::name(const Picture &seen) const
{
    for (const auto &[words, picture] : sights_) {
        if (seen == picture)
            return words;
    }
    return UNKNOWN_SIGHT;
}

Stage::Stage(const char *format, int rotation)
    : server_({.size = "64x48", .format = format}), rotation_(rotation), below_pixels_(picture_below(rotation)),
      keeper_("fb.keeper"), below_("fb.below"), neighbour_("fb.neighbour"), surface_("fb.surface")
{
    keeper_.create(pixels_new(PixelFormat::XRGB, 1, 1), 0, 0, -2, rotation); // the output stays open whoever goes
    keeper_.native_depth();
    below_.create(below_pixels_, 0, 0, -1, rotation);
    neighbour_.create(top_left_of(below_pixels_, NEIGHBOUR), 0, 0, 0, rotation);
    show_together({&below_, &neighbour_});
}

void Stage::in_one_pass(const std::function<void()> &requests)
{
    keeper_.lock(0, 0, 0, 0);
    requests();
    for (TestClient *client : {&below_, &neighbour_, &surface_}) {
        if (client->memory() != nullptr) // without a surface it gets no answer
            client->native_depth();
    }
    keeper_.send("unlock");
    keeper_.settle();
}

void Stage::hide_below()
{
    in_one_pass([this] {
        below_.send("hide");
        neighbour_.send("hide");
    });
}

void Stage::show(Company company)
{
    in_one_pass([&] {
        surface_.send("show");
        if (company == Company::WITH_OTHERS)
            neighbour_.send("dirty", {0, 0, NEIGHBOUR, NEIGHBOUR});
    });
}

Picture Stage::composed(const std::function<void(PictureComposer &)> &draw) const
{
    PictureComposer composer(width(), height());
    composer.draw(below_pixels_, 0, 0);
    draw(composer);
    return composer.picture(depth());
}

std::string Stage::look()
{
    surface_.settle();
    return look_now();
}

std::vector<Colours> colours_of(const Pixels &pixels, int depth, Company company)
{
    const bool has_alpha = pixels.format == PixelFormat::ARGB;
    std::vector<Colours> ways;
    if (has_alpha)
        ways.push_back({company == Company::ALONE ? "blended over leftovers" : "blended", false});
    const std::string ignored = has_alpha ? "alpha ignored, " : "";
    ways.push_back({ignored + (loses_bits(pixels, depth) ? "low bits cut off" : "exact"), true});
    return ways;
}

std::string without_colours(const std::string &seen, const std::string &row, const std::string &column)
{
    const size_t end = seen.find(COLOURS);
    if (end == std::string::npos)
        return seen;
    EXPECT_EQ(seen.substr(end), COLOURS + page_cell("surfaces", row, column));
    return seen.substr(0, end);
}
