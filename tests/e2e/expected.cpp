// SPDX-License-Identifier: MIT
// expected SCENE FOLDER: the surfaces of a scene as clients draw them, and the picture that the panel shows then.
//
// A scene is a text of one line for the panel and one for each surface, from the bottom to the top:
//
//   panel WIDTH HEIGHT DEPTH ROTATION      of the panel itself; the surfaces of a turned one lie on its logical screen
//   layer WIDTH HEIGHT DEPTH ROTATION      the same, with alpha and nothing below the surfaces
//   surface NAME FORMAT X Y WIDTH HEIGHT KIND [plane WORD] [clip X Y WIDTH HEIGHT]
//
// with FORMAT argb, xrgb, rgb565 or rgb666 and KIND photograph or random, or "hidden" for a surface that takes no
// part. Writes NAME.pixels for each surface, picture.ppm, and picture.words: 0xAARRGGBB, of which the top bytes count
// on a layer.
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "../support/composer.h"

namespace {

struct Panel {
    int width, height, depth, rotation;
};

PixelFormat format_of(const std::string &word)
{
    return word == "argb"     ? PixelFormat::ARGB
           : word == "rgb565" ? PixelFormat::RGB565
           : word == "rgb666" ? PixelFormat::RGB666
                              : PixelFormat::XRGB;
}

void write_pixels(const std::string &path, const Pixels &pixels)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(pixels.bytes.data()), static_cast<std::streamsize>(pixels.bytes.size()));
}

void write_words(const std::string &path, const std::vector<uint32_t> &words)
{
    std::ofstream file(path, std::ios::binary);
    for (uint32_t word : words) {
        for (int shift : {0, 8, 16, 24})
            file.put(static_cast<char>(word >> shift));
    }
}

void write_picture(const std::string &path, const Picture &picture)
{
    std::ofstream file(path, std::ios::binary);
    file << "P6\n" << picture.width << " " << picture.height << "\n255\n";
    for (uint32_t p : picture.pixels) {
        for (int shift : {16, 8, 0})
            file.put(static_cast<char>(p >> shift));
    }
}

// How a panel that is turned by 90 degrees shows the logical screen: its first row from right to left is the logical
// screen's first column from top to bottom.
Picture turned(const Picture &logical, const Panel &panel)
{
    if (panel.rotation != 90)
        return logical;
    Picture picture{panel.width, panel.height, std::vector<uint32_t>(logical.pixels.size())};
    for (int y = 0; y < logical.height; y++) {
        for (int x = 0; x < logical.width; x++)
            picture.at(panel.width - 1 - y, x) = logical.at(x, y);
    }
    return picture;
}

void draw_plane(PictureComposer &composer, const ComposerRect &area, uint32_t plane)
{
    if ((plane & 0xFFFFFF) == 0xFFFFFF)
        composer.veil(area, plane >> 24);
    else
        composer.fill(area, plane & 0xFFFFFF);
}

void draw_surface(PictureComposer &composer, const Panel &panel, std::istringstream &line, const std::string &folder,
                  uint32_t seed)
{
    std::string name, format, kind, word;
    int x, y, width, height;
    line >> name >> format >> x >> y >> width >> height >> kind;
    // Rows of whole words: pixman takes no others.
    const int padding = format == "rgb565" ? width % 2 * 2 : 0;
    const Pixels pixels = kind == "photograph" ? pixels_photograph(format_of(format), width, height, seed, padding)
                                               : pixels_random(format_of(format), width, height, seed, padding);
    write_pixels(folder + "/" + name + ".pixels", pixels);
    std::optional<uint32_t> plane;
    composer.clear_clip();
    bool hidden = false;
    while (line >> word) {
        ComposerRect clip;
        if (word == "hidden")
            hidden = true;
        else if (word == "plane" && line >> word)
            plane = static_cast<uint32_t>(std::stoul(word, nullptr, 0));
        else if (word == "clip" && line >> clip.x >> clip.y >> clip.width >> clip.height)
            composer.set_clip(clip);
    }
    if (hidden)
        return;
    if (plane)
        draw_plane(composer, {x, y, width, height}, *plane);
    else
        composer.draw(pixels, x, y, panel.depth != 32);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " SCENE FOLDER\n";
        return 2;
    }
    std::ifstream scene(argv[1]);
    const std::string folder = argv[2];
    std::string text, word;
    Panel panel{};
    std::optional<PictureComposer> composer;
    uint32_t seed = 0;
    while (std::getline(scene, text)) {
        std::istringstream line(text);
        line >> word;
        const bool layer = word == "layer";
        if ((layer || word == "panel") && line >> panel.width >> panel.height >> panel.depth >> panel.rotation) {
            const bool upright = panel.rotation == 0;
            composer.emplace(upright ? panel.width : panel.height, upright ? panel.height : panel.width, layer);
        } else if (word == "surface" && composer) {
            draw_surface(*composer, panel, line, folder, ++seed);
        }
    }
    if (!composer)
        return 1;
    write_words(folder + "/picture.words", composer->words());
    write_picture(folder + "/picture.ppm", turned(composer->picture(panel.depth), panel));
    return 0;
}
