// SPDX-License-Identifier: MIT
// What the tests of docs/what-you-see.md share: a panel with clients to look at, and the page's tables.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "../support/composer.h"
#include "../support/running_server.h"
#include "../support/test_client.h"

enum class Company { ALONE, WITH_OTHERS };

// ---- tables ----

struct Column {
    const char *name;
    const char *panel; // the format of the panel, or of its second layer
    Company company;
};

struct Row {
    std::string name;
    std::function<std::string(const Column &)> see; // the words of what the panel shows
};

struct Table {
    const char *name;   // as the page marks it
    const char *corner; // the first heading
    std::vector<Row> rows;
    std::vector<Column> columns;
};

std::vector<Column> columns_with_company();
std::vector<Column> columns_of_panels();

Table turned_by_90_table();
Table turned_by_270_table();
Table scaled_table();
Table second_layer_table();

using TableText = std::vector<std::vector<std::string>>; // headings first
// The rows of the page's table behind the line <!-- table NAME -->, without the line below the headings.
TableText page_table(const std::string &name);
// One cell of it, by the names of its row and column; a test failure, and "", where the page has none.
std::string page_cell(const std::string &table, const std::string &row, const std::string &column);

// ---- a panel ----

inline constexpr int PANEL_WIDTH = 64;
inline constexpr int PANEL_HEIGHT = 48;
inline constexpr ComposerRect PLACE{10, 8, 40, 30}; // of the surface that is looked at, upright

inline constexpr const char *UNKNOWN_SIGHT = "something that the test does not know";

// The pictures that there could be, with the words for each.
class Sights {
public:
    void add(const std::string &words, const Picture &picture) { sights_.emplace_back(words, picture); }
    // The words of the first one that is like what is seen, or UNKNOWN_SIGHT.
    std::string name(const Picture &seen) const;

private:
    std::vector<std::pair<std::string, Picture>> sights_;
};

// A panel of PANEL_WIDTH x PANEL_HEIGHT with the clients that a cell needs. At first it shows a picture that fills the
// screen and has been drawn with others, of which a small neighbour in its corner is one that cannot be told from it.
class Stage {
public:
    explicit Stage(const char *format, int rotation = 0);
    // From here on only leftovers of the picture are there, on the panel and in what was composed.
    void hide_below();
    // Shows the surface that is looked at, in a pass of its own or in one with the neighbour.
    void show(Company company);
    // Runs the requests in one pass.
    void in_one_pass(const std::function<void()> &requests);

    TestClient &surface() { return surface_; }
    TestClient &below() { return below_; }
    TestClient &neighbour() { return neighbour_; }
    int depth() const { return server_.panel().depth(); }
    int rotation() const { return rotation_; }
    int width() const { return below_pixels_.width; } // of the screen, as clients lay it out
    int height() const { return below_pixels_.height; }

    // What the screen shows when `draw` comes over the picture below: turned with the screen, not with the panel.
    Picture composed(const std::function<void(PictureComposer &)> &draw) const;
    void may_show(const std::string &words, const Picture &picture) { sights_.add(words, picture); }
    void may_show(const std::string &words, const std::function<void(PictureComposer &)> &draw)
    {
        may_show(words, composed(draw));
    }
    // The words of the sight that is there. Everything that was asked for is drawn first.
    std::string look();
    std::string look_now() const { return sights_.name(picture()); }
    Picture picture() const { return server_.panel().picture(); }
    bool is_black() const { return server_.panel().is_black(); }
    void keeper_leaves() { keeper_.hang_up(); }
    int stop() { return server_.stop(SIGTERM); }

private:
    RunningServer server_;
    int rotation_;
    Pixels below_pixels_;
    TestClient keeper_, below_, neighbour_, surface_;
    Sights sights_;
};

// ---- surfaces ----

struct SurfaceKind {
    const char *name; // of its row
    PixelFormat format;
};
inline constexpr SurfaceKind SURFACE_KINDS[] = {
    {"16 bits", PixelFormat::RGB565},
    {"18 bits", PixelFormat::RGB666},
    {"32 bits without alpha", PixelFormat::XRGB},
    {"32 bits with alpha", PixelFormat::ARGB},
};

struct Colours {
    std::string words;
    bool ignore_alpha; // how a composer draws them
};
// The ways in which a panel of a depth could treat the colours of a picture.
std::vector<Colours> colours_of(const Pixels &pixels, int depth, Company company);

// Stands in a sight's words before those of its colours, where the words tell something else first.
inline constexpr const char *COLOURS = "; colours: ";
// The words before. Those of the colours have to be what the table of surfaces says for the row and column.
std::string without_colours(const std::string &seen, const std::string &row, const std::string &column);
