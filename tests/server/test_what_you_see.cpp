// SPDX-License-Identifier: MIT
// What a panel shows of each kind of surface. Every cell of the tables in docs/what-you-see.md is one test: it draws,
// recognises what the panel then shows, and looks whether the page says the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <sstream>

#include "../support/composer.h"
#include "../support/running_server.h"
#include "../support/test_client.h"

namespace {

constexpr int WIDTH = 64;
constexpr int HEIGHT = 48;
constexpr ComposerRect PLACE{10, 8, 40, 30}; // of the surface that is looked at

const Pixels BELOW = pixels_photograph(PixelFormat::XRGB, WIDTH, HEIGHT, 1);

// A panel with the clients that a cell needs. What they show is compared with each of the sights that there could be.
class Stage {
public:
    explicit Stage(const char *format)
        : server_({.size = "64x48", .format = format}), keeper_("fb.keeper"), below_("fb.below"), surface_("fb.surface")
    {
        keeper_.create(pixels_new(PixelFormat::XRGB, 1, 1), 0, 0, -2); // the output stays open whoever goes
        keeper_.native_depth();
        below_.create(BELOW, 0, 0, -1);
        below_.send("show");
        below_.settle();
    }
    // From here on only leftovers of it are there.
    void hide_below()
    {
        below_.send("hide");
        below_.settle();
    }
    TestClient &surface() { return surface_; }
    TestClient &below() { return below_; }
    int depth() const { return server_.panel().depth(); }

    // What the panel shows when `draw` comes over the picture below.
    Picture composed(const std::function<void(PictureComposer &)> &draw) const
    {
        PictureComposer composer(WIDTH, HEIGHT);
        composer.draw(BELOW, 0, 0);
        draw(composer);
        return composer.picture(depth());
    }
    void may_show(const std::string &words, const Picture &picture) { sights_.emplace_back(words, picture); }
    void may_show(const std::string &words, const std::function<void(PictureComposer &)> &draw)
    {
        may_show(words, composed(draw));
    }
    // The words of the sight that is there. Everything that was asked for is drawn first.
    std::string look()
    {
        surface_.settle();
        return look_now();
    }
    std::string look_now() const
    {
        const Picture seen = server_.panel().picture();
        for (const auto &[words, picture] : sights_) {
            if (seen == picture)
                return words;
        }
        return "something that the test does not know";
    }
    bool is_black() const { return server_.panel().is_black(); }
    void keeper_leaves() { keeper_.hang_up(); }
    int stop() { return server_.stop(SIGTERM); }

private:
    RunningServer server_;
    TestClient keeper_, below_, surface_;
    std::vector<std::pair<std::string, Picture>> sights_;
};

enum class Company { ALONE, WITH_OTHERS };

struct Column {
    const char *name;
    const char *panel;
    Company company;
};

constexpr Column COLUMNS[] = {
    {"16-bit panel, alone", "rgb565", Company::ALONE},
    {"16-bit panel, with others", "rgb565", Company::WITH_OTHERS},
    {"18-bit panel, alone", "rgb666", Company::ALONE},
    {"18-bit panel, with others", "rgb666", Company::WITH_OTHERS},
    {"32-bit panel, alone", "xrgb8888", Company::ALONE},
    {"32-bit panel, with others", "xrgb8888", Company::WITH_OTHERS},
};
constexpr Column PANEL_COLUMNS[] = {
    {"16-bit panel", "rgb565", Company::ALONE},
    {"18-bit panel", "rgb666", Company::ALONE},
    {"32-bit panel", "xrgb8888", Company::ALONE},
};

// ---- surfaces ----

// Whether the panel has a place for every bit of the picture's colours.
bool loses_bits(const Pixels &pixels, int depth)
{
    PictureComposer composer(pixels.width, pixels.height);
    composer.draw(pixels, 0, 0, true);
    return !(composer.picture(depth) == composer.picture(32));
}

std::string see_surface(Stage &stage, PixelFormat format, Company company)
{
    const Pixels pixels = pixels_random(format, PLACE.width, PLACE.height, 2);
    if (company == Company::ALONE)
        stage.hide_below();
    stage.surface().create(pixels, PLACE.x, PLACE.y, 0);
    stage.surface().send("show");
    const bool loses = loses_bits(pixels, stage.depth());
    if (format == PixelFormat::ARGB) {
        stage.may_show(company == Company::ALONE ? "blended over leftovers" : "blended",
                       [&](PictureComposer &composer) { composer.draw(pixels, PLACE.x, PLACE.y); });
    }
    const std::string ignored = format == PixelFormat::ARGB ? "alpha ignored, " : "";
    stage.may_show(ignored + (loses ? "low bits cut off" : "exact"),
                   [&](PictureComposer &composer) { composer.draw(pixels, PLACE.x, PLACE.y, true); });
    return stage.look();
}

// ---- colour planes ----

// What 32-bit arithmetic makes of words that hold 18-bit colours.
Picture plane_on_18_bits(const Stage &stage, uint32_t plane)
{
    Picture picture = stage.composed([](PictureComposer &) {});
    for (int y = PLACE.y; y < PLACE.y + PLACE.height; y++) {
        for (int x = PLACE.x; x < PLACE.x + PLACE.width; x++) {
            const uint32_t p = picture.at(x, y);
            const uint32_t word = (p >> 18 & 0x3F) << 12 | (p >> 10 & 0x3F) << 6 | (p >> 2 & 0x3F);
            uint32_t painted = plane;
            if ((plane & 0xFFFFFF) == 0xFFFFFF) {
                painted = 0;
                for (int shift : {0, 8, 16})
                    painted |= ((word >> shift & 0xFF) * (plane >> 24) >> 8) << shift;
            }
            picture.at(x, y) = (painted >> 12 & 0x3F) << 18 | (painted >> 6 & 0x3F) << 10 | (painted & 0x3F) << 2;
        }
    }
    return picture;
}

std::string see_plane(Stage &stage, uint32_t plane, Company company)
{
    const Pixels pixels = pixels_random(PixelFormat::ARGB, PLACE.width, PLACE.height, 2);
    if (company == Company::ALONE)
        stage.hide_below();
    stage.surface().create(pixels, PLACE.x, PLACE.y, 0);
    stage.surface().send("color_plane", {static_cast<int32_t>(plane)});
    stage.surface().send("show");
    stage.may_show("nothing of it", [](PictureComposer &) {});
    stage.may_show("its own picture",
                   [&](PictureComposer &composer) { composer.draw(pixels, PLACE.x, PLACE.y, stage.depth() != 32); });
    stage.may_show(plane >> 24 == 0 ? "black" : "what lies below, dimmed",
                   [&](PictureComposer &composer) { composer.veil(PLACE, plane >> 24); });
    stage.may_show(stage.depth() == 16 ? "the colour, low bits cut off" : "the colour",
                   [&](PictureComposer &composer) { composer.fill(PLACE, plane & 0xFFFFFF); });
    if (stage.depth() == 18)
        stage.may_show("wrong colours", plane_on_18_bits(stage, plane));
    return stage.look();
}

// ---- what stays ----

const char *const STAYS = "its last picture stays";

void show_opaque(Stage &stage, const Pixels &pixels)
{
    stage.surface().create(pixels, PLACE.x, PLACE.y, 0);
    stage.surface().send("show");
    stage.surface().settle();
    stage.may_show(STAYS, [&](PictureComposer &composer) { composer.draw(pixels, PLACE.x, PLACE.y); });
    stage.may_show("what lies below", [](PictureComposer &) {});
}

const Pixels OPAQUE = pixels_random(PixelFormat::RGB565, PLACE.width, PLACE.height, 3);

std::string see_hidden_over_others(Stage &stage, Company)
{
    show_opaque(stage, OPAQUE);
    stage.surface().send("hide");
    return stage.look();
}

std::string see_hidden_over_nothing(Stage &stage, Company)
{
    stage.hide_below();
    show_opaque(stage, OPAQUE);
    stage.surface().send("hide");
    return stage.look();
}

std::string see_moved_over_nothing(Stage &stage, Company)
{
    stage.hide_below();
    show_opaque(stage, OPAQUE);
    stage.surface().send("move", {PLACE.x + 5, PLACE.y + 4});
    stage.may_show("its last picture stays at the old place", [&](PictureComposer &composer) {
        composer.draw(OPAQUE, PLACE.x, PLACE.y);
        composer.draw(OPAQUE, PLACE.x + 5, PLACE.y + 4);
    });
    stage.may_show("the new place only",
                   [&](PictureComposer &composer) { composer.draw(OPAQUE, PLACE.x + 5, PLACE.y + 4); });
    return stage.look();
}

std::string see_ended_over_nothing(Stage &stage, Company)
{
    stage.hide_below();
    show_opaque(stage, OPAQUE);
    stage.surface().hang_up();
    stage.below().settle(); // still connected, and hidden
    return stage.look_now();
}

std::string see_last_ended(Stage &stage, Company)
{
    show_opaque(stage, OPAQUE);
    stage.keeper_leaves();
    stage.below().hang_up();
    stage.surface().hang_up();
    return wait_until([&] { return stage.is_black(); }) ? "black" : stage.look_now();
}

std::string see_translucent_redrawn(Stage &stage, Company)
{
    const Pixels pixels = pixels_random(PixelFormat::ARGB, PLACE.width, PLACE.height, 4);
    stage.hide_below();
    stage.surface().create(pixels, PLACE.x, PLACE.y, 0);
    stage.surface().send("show");
    stage.surface().settle();
    stage.surface().send("dirty", {0, 0, PLACE.width, PLACE.height});
    stage.may_show("the same",
                   [&](PictureComposer &composer) { composer.draw(pixels, PLACE.x, PLACE.y, stage.depth() != 32); });
    stage.may_show("blended over itself once more", [&](PictureComposer &composer) {
        composer.draw(pixels, PLACE.x, PLACE.y);
        composer.draw(pixels, PLACE.x, PLACE.y);
    });
    return stage.look();
}

std::string see_plane_of_an_opaque_surface(Stage &stage, Company)
{
    stage.surface().create(OPAQUE, PLACE.x, PLACE.y, 0);
    stage.surface().send("color_plane", {static_cast<int32_t>(0xFF204080)});
    stage.surface().send("show");
    stage.may_show("its own picture", [&](PictureComposer &composer) { composer.draw(OPAQUE, PLACE.x, PLACE.y); });
    stage.may_show("the colour", [&](PictureComposer &composer) { composer.fill(PLACE, 0x204080); });
    return stage.look();
}

// ---- the tables ----

struct Row {
    const char *name;
    std::function<std::string(Stage &, Company)> see;
};

struct Table {
    const char *name;   // as the page marks it
    const char *corner; // the first heading
    std::vector<Row> rows;
    std::vector<Column> columns;
};

Row surface_row(const char *name, PixelFormat format)
{
    return {name, [format](Stage &stage, Company company) { return see_surface(stage, format, company); }};
}

Row plane_row(const char *name, uint32_t plane)
{
    return {name, [plane](Stage &stage, Company company) { return see_plane(stage, plane, company); }};
}

const std::vector<Column> ALL_COLUMNS(std::begin(COLUMNS), std::end(COLUMNS));
const std::vector<Column> PANELS_ONLY(std::begin(PANEL_COLUMNS), std::end(PANEL_COLUMNS));

const Table TABLES[] = {
    {"surfaces",
     "surface",
     {surface_row("16 bits", PixelFormat::RGB565), surface_row("18 bits", PixelFormat::RGB666),
      surface_row("32 bits without alpha", PixelFormat::XRGB), surface_row("32 bits with alpha", PixelFormat::ARGB)},
     ALL_COLUMNS},
    {"planes",
     "colour plane",
     {plane_row("veil, 0x80FFFFFF", 0x80FFFFFF), plane_row("black veil, 0x00FFFFFF", 0x00FFFFFF),
      plane_row("colour, 0xFF3467CD", 0xFF3467CD), plane_row("translucent colour, 0x803467CD", 0x803467CD)},
     ALL_COLUMNS},
    {"leftovers",
     "what happens",
     {{"hidden, others shown below", see_hidden_over_others},
      {"hidden, nothing shown below", see_hidden_over_nothing},
      {"moved, nothing shown below", see_moved_over_nothing},
      {"client ends, nothing shown below", see_ended_over_nothing},
      {"last client of the panel ends", see_last_ended},
      {"redrawn with alpha, nothing shown below", see_translucent_redrawn},
      {"plane of a surface without alpha", see_plane_of_an_opaque_surface}},
     PANELS_ONLY},
};

using TableText = std::vector<std::vector<std::string>>; // headings first

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

// The rows of the page's table behind the line <!-- table NAME -->, without the line below the headings.
TableText page_table(const char *name)
{
    TableText rows;
    bool inside = false;
    for (const std::string &line : lines_of(file_text(from_build("PFB_TEST_PAGE")))) {
        if (line.rfind("<!-- ", 0) == 0)
            inside = line == std::string("<!-- table ") + name + " -->";
        else if (inside && line.rfind("|--", 0) != 0 && line.rfind("|", 0) == 0)
            rows.push_back(cells_of(line));
        else if (!line.empty() && line[0] != '|')
            inside = false;
    }
    return rows;
}

struct Cell {
    const Table *table;
    size_t row;
    size_t column;
};

std::vector<Cell> all_cells()
{
    std::vector<Cell> cells;
    for (const Table &table : TABLES) {
        for (size_t row = 0; row < table.rows.size(); row++) {
            for (size_t column = 0; column < table.columns.size(); column++)
                cells.push_back({&table, row, column});
        }
    }
    return cells;
}

std::string cell_name(const testing::TestParamInfo<Cell> &info)
{
    const Cell &cell = info.param;
    std::string name = std::string(cell.table->name) + "_" + cell.table->rows[cell.row].name + "_" +
                       cell.table->columns[cell.column].name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return isalnum(c) == 0; }, '_');
    return name;
}

class WhatYouSee : public testing::TestWithParam<Cell> {};

} // namespace

TEST_P(WhatYouSee, IsWhatThePageSays)
{
    const Cell &cell = GetParam();
    const Column &column = cell.table->columns[cell.column];
    Stage stage(column.panel);
    const std::string seen = cell.table->rows[cell.row].see(stage, column.company);
    EXPECT_EQ(stage.stop(), 0);
    const TableText page = page_table(cell.table->name);
    ASSERT_GT(page.size(), cell.row + 1);
    ASSERT_GT(page[cell.row + 1].size(), cell.column + 1);
    EXPECT_EQ(page[cell.row + 1][cell.column + 1], seen);
}

INSTANTIATE_TEST_SUITE_P(Cells, WhatYouSee, testing::ValuesIn(all_cells()), cell_name);

// The page's tables have the rows and columns that the tests look at, and no others.
TEST(WhatYouSeePage, HasTheTablesOfTheTests)
{
    for (const Table &table : TABLES) {
        std::vector<std::string> headings{table.corner};
        for (const Column &column : table.columns)
            headings.push_back(column.name);
        const TableText page = page_table(table.name);
        ASSERT_EQ(page.size(), table.rows.size() + 1) << table.name;
        EXPECT_EQ(page[0], headings);
        for (size_t i = 0; i < table.rows.size(); i++) {
            EXPECT_EQ(page[i + 1].size(), headings.size()) << table.name;
            EXPECT_EQ(page[i + 1][0], table.rows[i].name);
        }
    }
    const std::string text = file_text(from_build("PFB_TEST_PAGE"));
    EXPECT_EQ(count_of(text, "<!-- table "), std::size(TABLES));
}
