// SPDX-License-Identifier: MIT
#include "model.h"

#include <algorithm>

namespace model {

Model model_new(int32_t width, int32_t height, const Device &primary, const Device &second)
{
    Model m;
    m.w = m.native_w = width;
    m.h = m.native_h = height;
    m.outputs[PRIMARY].device = primary;
    m.outputs[SECOND].device = second;
    for (Output &o : m.outputs)
        o.frame.bytes.assign(o.device.memory, 0);
    return m;
}

namespace {

Image shared_image(int32_t w, int32_t h, const ClientMemory *memory, int format, int32_t stride)
{
    Image image;
    image.width = w;
    image.height = h;
    image.stride = stride;
    image.format = format;
    image.depth = depth_of_format(format);
    image.alpha = format == ARGB32;
    image.shared = memory;
    image.extent = wrap(int64_t{stride} * h);
    return image;
}

int format_of_depth(uint32_t depth, bool has_alpha)
{
    if (depth < 24)
        return depth == 18 ? RGB18 : RGB16;
    return has_alpha ? ARGB32 : XRGB32;
}

void take_over_size(Model &m, const Device &device, Surface &being_made)
{
    m.native_w = device.width;
    m.native_h = device.height;
    bool swapped = m.rotation == 90 || m.rotation == 270;
    m.w = swapped ? device.height : device.width;
    m.h = swapped ? device.width : device.height;
    for (Surface &s : m.surfaces)
        crop_drawing_area(m, s);
    crop_drawing_area(m, being_made);
}

void make_images(Model &m, Output &o, int format, int32_t frame_w, int32_t frame_h)
{
    o.has_images = frame_w > 0 && frame_h > 0 && m.w > 0 && m.h > 0;
    for (Image *image : {&o.frame, &o.work}) {
        image->format = format;
        image->depth = depth_of_format(format);
        image->alpha = format == ARGB32;
    }
    o.frame.stride = static_cast<int32_t>(o.device.stride);
    o.frame.extent = o.device.memory;
    o.work.stride = wrap(int64_t{m.w} * 4);
    o.work.extent = o.has_images ? int64_t{m.w} * 4 * m.h : 0;
    o.work.bytes.assign(m.with_pixels ? static_cast<size_t>(o.work.extent) : 0, 0);
}

// Opens an output. False: it cannot be had.
bool open_output(Model &m, int which, Surface &being_made)
{
    Output &o = m.outputs[which];
    const Device &d = o.device;
    int32_t w = m.w, h = m.h;
    print(m.calls.emplace_back(), "%s init %d x %d", which == SECOND ? "fb2" : "fb", w, h);
    if (o.broken) {
        m.err += "init failed\n";
        return false;
    }
    if (which == SECOND)
        std::fill(o.frame.bytes.begin(), o.frame.bytes.end(), uint8_t{0});
    bool from_device = w == -1 && h == -1;
    if (from_device) {
        w = d.width;
        h = d.height;
    }
    print(m.out, "screen info is\nwidth = %d height = %d depth = %u stride = %u\n", w, h, d.depth, d.stride);
    print(m.out, "colormask = red:%08x, green:%08x, blue:%08x, alpha:%08x, has_alph = %d\n", d.red, d.green, d.blue,
          d.alpha, which == SECOND);
    print(m.out, "pixel unit: %u bytes, byte order: LSB\n", d.stride / static_cast<uint32_t>(d.width));
    if (from_device)
        take_over_size(m, d, being_made);
    make_images(m, o, format_of_depth(d.depth, which == SECOND), w, h);
    o.clear.clear();
    o.damage.clear();
    m.in_use.push_back(which);
    o.state = 1;
    return true;
}

// The output that a surface's name chooses: by the text before the first dot that follows any other character.
int choose_output(const std::string &name)
{
    size_t begin = name.find_first_not_of('.');
    if (begin == std::string::npos)
        return NO_OUTPUT;
    std::string word = name.substr(begin, name.find('.', begin) - begin);
    return word == "x" ? NOWHERE : word == "fb2" ? SECOND : PRIMARY;
}

void bind_output(Model &m, Surface &s)
{
    int which = choose_output(s.name);
    if (which == NO_OUTPUT)
        return;
    Output &o = m.outputs[which];
    if (which == NOWHERE) {
        o.state = 1;
    } else {
        if (o.state == 0) {
            o.state = -1;
            o.use_count = o.sync_count = 0;
        }
        if (o.state < 1 && !open_output(m, which, s))
            return;
    }
    o.use_count++;
    s.output = which;
}

void close_output(Model &m, int which)
{
    Output &o = m.outputs[which];
    if (which == NOWHERE)
        return;
    std::erase(m.in_use, which);
    m.calls.push_back(which == SECOND ? "fb2 release" : "fb release");
    std::fill(o.frame.bytes.begin(), o.frame.bytes.end(), uint8_t{0});
    o.has_images = false;
    o.frame.alpha = false;
    o.state = 0;
}

size_t place_of_level(const Model &m, int32_t level)
{
    size_t i = 0;
    while (i < m.surfaces.size() && m.surfaces[i].level <= level)
        i++;
    return i;
}

int add_surface(Model &m, const Surface &described)
{
    Surface s = described;
    s.id = m.next_id++;
    if (s.rotation != m.rotation)
        rotate_display(m, s.rotation);
    crop_drawing_area(m, s);
    s.direct = s.image.format == RGB16 || s.image.format == RGB18;
    if (s.image.format != ARGB32)
        s.opaque = region_of(0, 0, s.image.width, s.image.height);
    bind_output(m, s);
    m.surfaces.insert(m.surfaces.begin() + static_cast<ptrdiff_t>(place_of_level(m, s.level)), s);
    return s.id;
}

// The bytes that the server maps for a surface. Aborts where there is no object or nothing can be mapped.
const ClientMemory *map_memory(Model &m, const std::string &name, int32_t size)
{
    auto object = m.shared_memory.find(name);
    if (object == m.shared_memory.end()) {
        m.err += name.empty() ? "shm_open: Invalid argument\n" : "shm_open: No such file or directory\n";
        throw Aborted{"0", "create"};
    }
    if (size <= 0) {
        m.err += size == 0 ? "mmap: Invalid argument\n" : "mmap: Cannot allocate memory\n";
        throw Aborted{"0", "create"};
    }
    const ClientMemory *memory = object->second;
    m.shared_memory.erase(object);
    return memory;
}

int format_of_request(int32_t depth, int32_t alpha)
{
    switch (depth) {
    case 32:
        return alpha ? ARGB32 : XRGB32;
    case 16:
        return RGB16;
    case 18:
        return RGB18;
    }
    return -1;
}

void release_rotation_hold(Model &m)
{
    if (!m.rotation_lock)
        return;
    for (const Surface &s : m.surfaces) {
        if (s.shown && s.rotation != m.rotation)
            return;
    }
    for (; m.rotation_lock > 0; m.rotation_lock--)
        unlock_render(m);
}

} // namespace

void create(Model &m, Client &client, const std::vector<Argument> &arguments)
{
    static const char signature[] = "iiiiiiiiis";
    int32_t v[9] = {};
    std::string shm_name;
    // Values that the packet does not carry stay 0 and empty.
    for (size_t i = 0; i < arguments.size() && i < 10 && arguments[i].type == signature[i]; i++) {
        if (i < 9)
            v[i] = arguments[i].number;
        else
            shm_name = arguments[i].text;
    }
    int32_t alpha = v[0], depth = v[1], x = v[2], y = v[3], w = v[4], h = v[5], stride = v[6];
    if (w <= 0 || h <= 0) {
        print(m.out, "Invalid pfb width/height (%d/%d)\n", w, h);
        return;
    }
    const ClientMemory *memory = map_memory(m, shm_name, wrap(int64_t{stride} * h));
    int format = format_of_request(depth, alpha);
    if (format < 0) {
        print(m.out, "unsupported color depth&alpha combination:depth=%d alpha=%d\n", depth, alpha);
        return;
    }
    Surface s;
    s.name = client.name;
    s.image = shared_image(w, h, memory, format, stride);
    s.level = v[7];
    s.rotation = v[8];
    s.area = {x, y, wrap(int64_t{x} + w), wrap(int64_t{y} + h)};
    client.surface = add_surface(m, s);
}

void remove_surface(Model &m, int id)
{
    Surface *held = model_surface(m, id);
    if (held->lock_counter != 0) {
        held->lock_counter = 1;
        set_unlock(m, *held);
    }
    set_sync(m, *held, false);
    Surface s = *held;
    m.surfaces.erase(m.surfaces.begin() + (held - m.surfaces.data()));
    if (s.shown) {
        damage_surface(m, s);
        if (output_has_alpha(m, s))
            m.outputs[s.output].clear = region_union(m.outputs[s.output].clear, region_of(s.drawing_area));
    }
    if (s.output != NO_OUTPUT && --m.outputs[s.output].use_count == 0)
        close_output(m, s.output);
    release_rotation_hold(m);
}

void set_level(Model &m, Surface &surface, int32_t level)
{
    Surface s = surface;
    m.surfaces.erase(m.surfaces.begin() + (&surface - m.surfaces.data()));
    s.level = level;
    size_t place = place_of_level(m, level);
    m.surfaces.insert(m.surfaces.begin() + static_cast<ptrdiff_t>(place), s);
    damage_surface(m, m.surfaces[place]);
    m.surfaces[place].dirty = true;
}

} // namespace model
