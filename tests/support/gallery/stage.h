// SPDX-License-Identifier: MIT
// A scene of docs/gallery.md. Its clients call libpfb, on the real server and a virtual panel; the same requests are
// told to the model. A picture is right when the panel shows what the model says, and the file in docs/gallery shows it
// too. The calls are written down as C, and the page has to say the same.
//
// With PFB_GALLERY_WRITE set in the environment, files and page are written instead of compared.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "../model/model.h"
#include "../running_server.h"
#include "../test_client.h"
#include "canvas.h"
#include "pfb.h"

class GalleryStage;

struct GalleryScene {
    const char *name;
    std::vector<const char *> pictures; // files in docs/gallery, without ".png", in the order of taking
    const char *format = "xrgb8888";    // of the panel
    int width = 320;                    // of the panel, pixels
    int height = 200;
    int rotation = 0; // what the clients expect, degrees
    bool layer2 = false;
    bool given_size = false; // stands on the server's command line; else the server asks the device
    void (*play)(GalleryStage &) = nullptr;
};

// One client. Each function calls the one of libpfb whose name it has.
class GalleryClient {
public:
    // `name`: with "fb2." before it on the second layer; without that, the variable in the C text.
    GalleryClient(GalleryStage &stage, const char *name);
    ~GalleryClient();
    GalleryClient(const GalleryClient &) = delete;
    GalleryClient &operator=(const GalleryClient &) = delete;

    // Connects, and makes the surface. The first call.
    void create(pfb_format format, int x, int y, int width, int height, int level);
    // Puts the picture into the surface's memory, where it is as large as the surface; "draw_evening" as C.
    void draw(const char *function, const Canvas &canvas);
    void show();
    void hide();
    void move(int x, int y);
    void set_layer(int level);
    void set_clip(int x, int y, int width, int height);
    void set_opaque_area(int x, int y, int width, int height);
    void set_color_plane(uint32_t plane, const char *text);
    void set_scale(int source_x, int source_y, int source_width, int source_height, int x, int y, int width,
                   int height);
    void dirty(int x, int y, int width, int height);

private:
    friend class GalleryStage;
    void call(const std::string &function, int result, const char *word, const std::vector<int32_t> &values);
    void synchronise();

    GalleryStage &stage_;
    std::string name_;
    std::string variable_;
    pfb_client *client_ = nullptr;
    int id_; // in the model
    pfb_format format_ = PFB_FORMAT_XRGB32;
    model::ClientMemory memory_;
};

class GalleryStage {
public:
    explicit GalleryStage(const GalleryScene &scene);
    ~GalleryStage();

    const GalleryScene &scene() const { return scene_; }
    int depth() const { return depth_; }
    // The size of the screen as its viewer sees it.
    int width() const { return scene_.rotation == 0 ? scene_.width : scene_.height; }
    int height() const { return scene_.rotation == 0 ? scene_.height : scene_.width; }

    // What was called so far is drawn now, in one pass. Nothing is drawn in between: the stage holds the render lock.
    void pass();
    // The same, and takes the scene's next picture. `to_the_eye`: what the viewer of a turned display must see,
    // composed without any turning.
    void picture(const Picture *to_the_eye = nullptr);

private:
    friend class GalleryClient;
    void write_down(const std::string &line);
    void tell(int client, const char *word, const std::vector<int32_t> &values);
    void create_in_model(int client, const std::string &name, const model::ClientMemory &memory,
                         const std::vector<int32_t> &values);
    void run_pass();
    Picture seen(const std::vector<uint8_t> &first, const std::vector<uint8_t> &second) const;
    Picture panel_seen() const;
    Picture model_seen() const;
    void check(const char *name, const Picture *to_the_eye);

    const GalleryScene &scene_;
    int depth_; // of the panel
    RunningServer server_;
    TestClient hand_; // holds the lock
    model::Model model_;
    std::vector<GalleryClient *> clients_;
    std::string lines_;
    size_t taken_ = 0;
};

void gallery_play(const GalleryScene &scene);
