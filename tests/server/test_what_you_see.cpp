// SPDX-License-Identifier: MIT
// What a panel shows of each kind of surface. Every cell of the tables in docs/what-you-see.md is one test: it draws,
// recognises what the panel then shows, and looks whether the page says the same.
#include "what_you_see.h"

#include <algorithm>

namespace {

const Pixels OPAQUE = pixels_random(PixelFormat::RGB565, PLACE.width, PLACE.height, 3);

// ---- surfaces ----

std::string see_surface(Stage &stage, PixelFormat format, Company company)
{
    const Pixels pixels = pixels_random(format, PLACE.width, PLACE.height, 2);
    if (company == Company::ALONE)
        stage.hide_below();
    stage.surface().create(pixels, PLACE.x, PLACE.y, 0);
    stage.show(company);
    for (const Colours &way : colours_of(pixels, stage.depth(), company))
        stage.may_show(way.words,
                       [&](PictureComposer &composer) { composer.draw(pixels, PLACE.x, PLACE.y, way.ignore_alpha); });
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
    stage.show(company);
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

std::string see_hidden_over_others(Stage &stage)
{
    show_opaque(stage, OPAQUE);
    stage.surface().send("hide");
    return stage.look();
}

std::string see_hidden_over_nothing(Stage &stage)
{
    stage.hide_below();
    show_opaque(stage, OPAQUE);
    stage.surface().send("hide");
    return stage.look();
}

std::string see_moved_over_nothing(Stage &stage)
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

std::string see_ended_over_nothing(Stage &stage)
{
    stage.hide_below();
    show_opaque(stage, OPAQUE);
    stage.surface().hang_up();
    stage.below().settle(); // still connected, and hidden
    return stage.look_now();
}

std::string see_last_ended(Stage &stage)
{
    show_opaque(stage, OPAQUE);
    stage.keeper_leaves();
    stage.below().hang_up();
    stage.neighbour().hang_up();
    stage.surface().hang_up();
    return wait_until([&] { return stage.is_black(); }) ? "black" : stage.look_now();
}

std::string see_translucent_redrawn(Stage &stage)
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

std::string see_plane_of_an_opaque_surface(Stage &stage)
{
    stage.surface().create(OPAQUE, PLACE.x, PLACE.y, 0);
    stage.surface().send("color_plane", {static_cast<int32_t>(0xFF204080)});
    stage.surface().send("show");
    stage.may_show("its own picture", [&](PictureComposer &composer) { composer.draw(OPAQUE, PLACE.x, PLACE.y); });
    stage.may_show("the colour", [&](PictureComposer &composer) { composer.fill(PLACE, 0x204080); });
    return stage.look();
}

// ---- the tables ----

// A row about an upright panel of its own.
template <typename See> Row row(const char *name, See see)
{
    return {name, [see](const Column &column) {
                Stage stage(column.panel);
                const std::string seen = see(stage, column.company);
                EXPECT_EQ(stage.stop(), 0);
                return seen;
            }};
}

Row plane_row(const char *name, uint32_t plane)
{
    return row(name, [plane](Stage &stage, Company company) { return see_plane(stage, plane, company); });
}

Row leftover_row(const char *name, std::string (*see)(Stage &))
{
    return row(name, [see](Stage &stage, Company) { return see(stage); });
}

Table surface_table()
{
    Table table{"surfaces", "surface", {}, columns_with_company()};
    for (const SurfaceKind &kind : SURFACE_KINDS) {
        table.rows.push_back(
            row(kind.name, [kind](Stage &stage, Company company) { return see_surface(stage, kind.format, company); }));
    }
    return table;
}

const std::vector<Table> &tables()
{
    static const std::vector<Table> all{
        surface_table(),
        {"planes",
         "colour plane",
         {plane_row("veil, 0x80FFFFFF", 0x80FFFFFF), plane_row("black veil, 0x00FFFFFF", 0x00FFFFFF),
          plane_row("colour, 0xFF3467CD", 0xFF3467CD), plane_row("translucent colour, 0x803467CD", 0x803467CD)},
         columns_with_company()},
        {"leftovers",
         "what happens",
         {leftover_row("hidden, others shown below", see_hidden_over_others),
          leftover_row("hidden, nothing shown below", see_hidden_over_nothing),
          leftover_row("moved, nothing shown below", see_moved_over_nothing),
          leftover_row("client ends, nothing shown below", see_ended_over_nothing),
          leftover_row("last client of the panel ends", see_last_ended),
          leftover_row("redrawn with alpha, nothing shown below", see_translucent_redrawn),
          leftover_row("plane of a surface without alpha", see_plane_of_an_opaque_surface)},
         columns_of_panels()},
        turned_by_90_table(),
        turned_by_270_table(),
        scaled_table(),
        second_layer_table(),
    };
    return all;
}

struct Cell {
    const Table *table;
    size_t row;
    size_t column;
};

std::vector<Cell> all_cells()
{
    std::vector<Cell> cells;
    for (const Table &table : tables()) {
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
    const Row &row = cell.table->rows[cell.row];
    const std::string seen = row.see(column);
    EXPECT_EQ(page_cell(cell.table->name, row.name, column.name), seen);
}

INSTANTIATE_TEST_SUITE_P(Cells, WhatYouSee, testing::ValuesIn(all_cells()), cell_name);

// The page's tables have the rows and columns that the tests look at, and no others.
TEST(WhatYouSeePage, HasTheTablesOfTheTests)
{
    for (const Table &table : tables()) {
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
    EXPECT_EQ(count_of(text, "<!-- table "), tables().size());
}
