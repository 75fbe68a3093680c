// SPDX-License-Identifier: MIT
#include "stage.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "../composer.h"
#include "../picture_file.h"
#include "page.h"

namespace {

constexpr int TIMEOUT_MS = WAIT_SECONDS * 1000;
constexpr int HAND = 0; // in the model
const char *const SECOND_LAYER = "fb2.";

int depth_of_panel(const std::string &format)
{
    return format == "rgb565" ? 16 : format == "rgb666" ? 18 : 32;
}

model::Device device(int width, int height, int depth)
{
    model::Device d;
    d.width = width;
    d.height = height;
    d.depth = static_cast<uint32_t>(depth);
    d.stride = static_cast<uint32_t>(width * (depth == 16 ? 2 : 4));
    d.memory = d.stride * static_cast<uint32_t>(height);
    return d;
}

ServerOptions options(const GalleryScene &scene)
{
    const std::string size = std::to_string(scene.width) + "x" + std::to_string(scene.height);
    ServerOptions options{.size = size, .format = scene.format};
    if (scene.layer2)
        options.panel = {"--layer2", size + ":argb8888"};
    if (scene.given_size)
        options.server = {std::to_string(scene.width), std::to_string(scene.height)};
    return options;
}

// The colour 0x00RRGGBB that an eye sees where channels of `depth` bits in all lie in the upper bits of their bytes:
// the largest value of a channel is full light.
uint32_t lit(uint32_t rgb, int depth)
{
    switch (depth) {
    case 16:
        return rgb | (rgb >> 5 & 0x070007) | (rgb >> 6 & 0x000300);
    case 18:
        return rgb | (rgb >> 6 & 0x030303);
    default:
        return rgb;
    }
}

// The colour of a panel's word.
uint32_t colour(uint32_t word, int depth)
{
    switch (depth) {
    case 16:
        return lit((word >> 11 & 31) << 19 | (word >> 5 & 63) << 10 | (word & 31) << 3, depth);
    case 18:
        return lit((word >> 12 & 63) << 18 | (word >> 6 & 63) << 10 | (word & 63) << 2, depth);
    default:
        return word & 0xFFFFFF;
    }
}

std::string numbers(const std::vector<int32_t> &values)
{
    std::string text;
    for (int32_t value : values)
        text += ", " + std::to_string(value);
    return text;
}

std::vector<model::Argument> arguments_of(const std::vector<int32_t> &values)
{
    std::vector<model::Argument> arguments;
    for (int32_t value : values)
        arguments.push_back({'i', value, ""});
    return arguments;
}

struct Format {
    const char *text;
    PixelFormat pixels;
    int32_t alpha, depth; // of the request
};

Format format_of(pfb_format format)
{
    switch (format) {
    case PFB_FORMAT_ARGB32:
        return {"PFB_FORMAT_ARGB32", PixelFormat::ARGB, 1, 32};
    case PFB_FORMAT_XRGB32:
        return {"PFB_FORMAT_XRGB32", PixelFormat::XRGB, 0, 32};
    case PFB_FORMAT_RGB16:
        return {"PFB_FORMAT_RGB16", PixelFormat::RGB565, 0, 16};
    default:
        return {"PFB_FORMAT_RGB18", PixelFormat::RGB666, 0, 18};
    }
}

} // namespace

// ---- clients ----

GalleryClient::GalleryClient(GalleryStage &stage, const char *name)
    : stage_(stage), name_(name), variable_(name), id_(static_cast<int>(stage.clients_.size()) + HAND + 1)
{
    if (variable_.rfind(SECOND_LAYER, 0) == 0)
        variable_.erase(0, strlen(SECOND_LAYER));
    stage_.clients_.push_back(this);
}

GalleryClient::~GalleryClient()
{
    pfb_disconnect(client_);
}

void GalleryClient::call(const std::string &function, int result, const char *word, const std::vector<int32_t> &values)
{
    EXPECT_EQ(result, PFB_OK) << pfb_error_text();
    stage_.write_down("pfb_" + function + ";");
    stage_.tell(id_, word, values);
}

void GalleryClient::create(pfb_format format, int x, int y, int width, int height, int level)
{
    const int rotation = stage_.scene().rotation;
    client_ = pfb_connect(name_.c_str());
    ASSERT_NE(client_, nullptr) << pfb_error_text();
    pfb_set_timeout(client_, TIMEOUT_MS);
    model_connect(stage_.model_, id_, name_);
    ASSERT_EQ(pfb_create(client_, format, x, y, width, height, level, rotation), PFB_OK) << pfb_error_text();
    const Format f = format_of(format);
    if (!stage_.lines_.empty())
        stage_.write_down("");
    stage_.write_down("pfb_client *" + variable_ + " = pfb_connect(\"" + name_ + "\");");
    stage_.write_down("pfb_create(" + variable_ + ", " + f.text + numbers({x, y, width, height, level, rotation}) +
                      ");");
    format_ = format;
    const int32_t stride = pfb_stride(client_);
    memory_ = {static_cast<const uint8_t *>(pfb_pixels(client_)), static_cast<size_t>(stride * height)};
    stage_.create_in_model(id_, variable_, memory_, {f.alpha, f.depth, x, y, width, height, stride, level, rotation});
}

void GalleryClient::draw(const char *function, const Canvas &canvas)
{
    ASSERT_EQ(canvas.width, pfb_width(client_));
    ASSERT_EQ(canvas.height, pfb_height(client_));
    const Pixels pixels = canvas_pixels(canvas, format_of(format_).pixels);
    auto *row = static_cast<uint8_t *>(pfb_pixels(client_));
    for (int y = 0; y < pixels.height; y++, row += pfb_stride(client_))
        memcpy(row, &pixels.bytes[static_cast<size_t>(y * pixels.stride)], static_cast<size_t>(pixels.stride));
    stage_.write_down(std::string(function) + "(" + variable_ + ");");
}

void GalleryClient::show()
{
    call("show(" + variable_ + ")", pfb_show(client_), "show", {});
}

void GalleryClient::hide()
{
    call("hide(" + variable_ + ")", pfb_hide(client_), "hide", {});
}

void GalleryClient::move(int x, int y)
{
    call("move(" + variable_ + numbers({x, y}) + ")", pfb_move(client_, x, y), "move", {x, y});
}

void GalleryClient::set_layer(int level)
{
    call("set_layer(" + variable_ + numbers({level}) + ")", pfb_set_layer(client_, level), "set_layer", {level});
}

void GalleryClient::set_clip(int x, int y, int width, int height)
{
    call("set_clip(" + variable_ + numbers({x, y, width, height}) + ")", pfb_set_clip(client_, x, y, width, height),
         "set_clip", {x, y, width, height});
}

void GalleryClient::set_opaque_area(int x, int y, int width, int height)
{
    call("set_opaque_area(" + variable_ + numbers({x, y, width, height}) + ")",
         pfb_set_opaque_area(client_, x, y, width, height), "opaque_area", {x, y, width, height});
}

void GalleryClient::set_color_plane(uint32_t plane, const char *text)
{
    call("set_color_plane(" + variable_ + ", " + text + ")", pfb_set_color_plane(client_, plane), "color_plane",
         {static_cast<int32_t>(plane)});
}

void GalleryClient::set_scale(int source_x, int source_y, int source_width, int source_height, int x, int y, int width,
                              int height)
{
    const std::vector<int32_t> values = {source_x, source_y, source_width, source_height, x, y, width, height};
    call("set_scale(" + variable_ + numbers(values) + ")",
         pfb_set_scale(client_, source_x, source_y, source_width, source_height, x, y, width, height), "set_scale",
         values);
}

void GalleryClient::dirty(int x, int y, int width, int height)
{
    call("dirty(" + variable_ + numbers({x, y, width, height}) + ")", pfb_dirty(client_, x, y, width, height), "dirty",
         {x, y, width, height});
}

// Every call so far has been handled when this question is answered.
void GalleryClient::synchronise()
{
    int depth;
    EXPECT_EQ(pfb_get_color_depth(client_, &depth), PFB_OK) << pfb_error_text();
}

// ---- the stage ----

GalleryStage::GalleryStage(const GalleryScene &scene)
    : scene_(scene), depth_(depth_of_panel(scene.format)), server_(options(scene)), hand_("hand"),
      model_(model::model_new(scene.given_size ? scene.width : -1, scene.given_size ? scene.height : -1,
                              device(scene.width, scene.height, depth_), device(scene.width, scene.height, 32)))
{
    static const uint8_t pixel[4] = {};
    static const model::ClientMemory memory{pixel, sizeof pixel};
    SurfaceRequest request{.width = 1, .height = 1};
    request.rotation = scene.rotation;
    hand_.create(request);
    hand_.lock(0, 0, 0, 0);
    model_connect(model_, HAND, "hand");
    create_in_model(HAND, "hand", memory, {0, 32, 0, 0, 1, 1, 4, 0, scene.rotation});
    tell(HAND, "lock_area", {0, 0, 0, 0});
}

GalleryStage::~GalleryStage()
{
    EXPECT_EQ(taken_, scene_.pictures.size()) << "not every picture was taken";
    EXPECT_EQ(server_.stop(SIGTERM), 0) << server_.err();
}

void GalleryStage::write_down(const std::string &line)
{
    lines_ += line + "\n";
}

void GalleryStage::tell(int client, const char *word, const std::vector<int32_t> &values)
{
    model_request(model_, client, word, arguments_of(values));
}

void GalleryStage::create_in_model(int client, const std::string &name, const model::ClientMemory &memory,
                                   const std::vector<int32_t> &values)
{
    std::vector<model::Argument> arguments = arguments_of(values);
    arguments.push_back({'s', 0, name});
    model_.shared_memory[name] = &memory;
    model_request(model_, client, "create", arguments);
}

void GalleryStage::run_pass()
{
    for (GalleryClient *client : clients_)
        client->synchronise();
    hand_.send("unlock");
    hand_.settle();
    hand_.lock(0, 0, 0, 0);
    tell(HAND, "unlock", {});
    model_render_if_pending(model_);
    tell(HAND, "lock_area", {0, 0, 0, 0});
}

void GalleryStage::pass()
{
    run_pass();
    write_down("/* the server draws */");
}

void GalleryStage::picture(const Picture *to_the_eye)
{
    ASSERT_LT(taken_, scene_.pictures.size());
    const char *name = scene_.pictures[taken_++];
    if (!::testing::Test::HasFailure()) {
        run_pass();
        check(name, to_the_eye);
    }
    lines_.clear();
}

// What a viewer sees of the devices' memories: the panel upright, and the second layer over it where it is opaque.
Picture GalleryStage::seen(const std::vector<uint8_t> &first, const std::vector<uint8_t> &second) const
{
    const size_t bytes = depth_ == 16 ? 2 : 4;
    PictureComposer composer(width(), height());
    Pixels below = pixels_new(PixelFormat::XRGB, width(), height());
    for (int y = 0; y < height(); y++) {
        for (int x = 0; x < width(); x++) {
            // A display turned by 90 degrees: the right edge of the panel is the top of the screen.
            const int column = scene_.rotation == 90 ? scene_.width - 1 - y : x;
            const int row = scene_.rotation == 90 ? x : y;
            uint32_t word = 0;
            memcpy(&word, &first[static_cast<size_t>(row * scene_.width + column) * bytes], bytes);
            below.set(x, y, colour(word, depth_));
        }
    }
    composer.draw(below, 0, 0);
    if (scene_.layer2)
        composer.draw({PixelFormat::ARGB, scene_.width, scene_.height, scene_.width * 4, second}, 0, 0);
    return composer.picture(32);
}

Picture GalleryStage::panel_seen() const
{
    const volatile uint8_t *memory = server_.panel().memory();
    const size_t size = static_cast<size_t>(scene_.height) * server_.panel().stride();
    const std::string layer2 = scene_.layer2 ? file_text(server_.panel_folder() + "/dev/fb2") : "";
    return seen({memory, memory + size}, {layer2.begin(), layer2.end()});
}

Picture GalleryStage::model_seen() const
{
    return seen(model_.outputs[model::PRIMARY].frame.bytes, model_.outputs[model::SECOND].frame.bytes);
}

void GalleryStage::check(const char *name, const Picture *to_the_eye)
{
    const Picture expected = model_seen();
    ASSERT_EQ(picture_difference(panel_seen(), expected), "") << name << ": the panel differs from the model";
    if (to_the_eye != nullptr) {
        Picture upright = *to_the_eye;
        for (uint32_t &p : upright.pixels)
            p = lit(p, depth_);
        ASSERT_EQ(picture_difference(panel_seen(), upright), "") << name << ": the panel is not right to the eye";
    }
    const std::string wrong = gallery_check_text(name, lines_);
    EXPECT_TRUE(wrong.empty()) << wrong;
    const std::string path = gallery_picture_path(name);
    if (gallery_writes()) {
        EXPECT_EQ(picture_write(expected, path), "");
        return;
    }
    Picture committed;
    ASSERT_EQ(picture_read(committed, path), "");
    EXPECT_EQ(picture_difference(expected, committed), "")
        << path << " differs from the model; after a wanted change, scripts/gallery writes it anew";
}

void gallery_play(const GalleryScene &scene)
{
    GalleryStage stage(scene);
    scene.play(stage);
}
