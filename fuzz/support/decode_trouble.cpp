// SPDX-License-Identifier: MIT
#include "decode_trouble.h"

#include <algorithm>
#include <bit>

namespace {

constexpr uint32_t MOST_MEMORY = 1 << 16; // of a device, bytes: more takes only longer

fb_bitfield field_of(uint32_t mask)
{
    if (mask == 0)
        return {};
    return {static_cast<uint32_t>(std::countr_zero(mask)), static_cast<uint32_t>(std::popcount(mask)), 0};
}

// Sizes whose products are small, or larger than any image.
uint32_t odd_size(FuzzInput &in)
{
    static const uint32_t sizes[] = {0, 1, 2, 255, 32767, 32768, 65536, 100000, INT32_MAX, 0x80000000, UINT32_MAX, 3};
    const uint8_t kind = in.byte();
    return kind < 128 ? kind % 64 : sizes[kind % 12];
}

bool is_heavy(int64_t w, int64_t h)
{
    const int64_t pixels = w * h;
    return w > 0 && h > 0 && pixels > 1 << 16 && pixels <= INT32_MAX / 4;
}

void spoil_form(FuzzInput &in, DeviceForm &form)
{
    for (int i = in.below(4); i >= 0; i--) {
        switch (in.below(9)) {
        case 0:
            form.var.xres = odd_size(in);
            break;
        case 1:
            form.var.yres = odd_size(in);
            break;
        case 2:
            form.var.bits_per_pixel = in.byte();
            break;
        case 3:
            form.fix.line_length = in.chance(64) ? odd_size(in) : in.half() % 400u;
            break;
        case 4:
            form.fix.smem_len = in.half() % 5000u;
            break;
        case 5:
            form.fix.smem_len = in.chance(64) ? 0 : in.word() % MOST_MEMORY;
            break;
        case 6:
            form.var.red = {in.byte(), in.byte(), in.byte() & 1u};
            break;
        case 7:
            form.var.transp = {in.byte() % 40u, in.byte() % 40u, 0};
            break;
        default:
            form.fix.smem_len = form.fix.smem_len / 4096 * 4096; // ends where its pages end
        }
    }
    if (is_heavy(static_cast<int32_t>(form.var.xres), static_cast<int32_t>(form.var.yres)))
        form.var.yres = 2;
}

DeviceForm odd_form(FuzzInput &in, const model::Device &device)
{
    DeviceForm form = plain_form(device);
    spoil_form(in, form);
    return form;
}

std::string number_word(FuzzInput &in)
{
    static const char *const numbers[] = {"0", "-1", "48x", "99999999999999999999", "-2147483648", "7"};
    const uint8_t kind = in.byte();
    if (kind < 128)
        return std::to_string(kind % 64);
    return kind < 192 ? std::to_string(static_cast<int32_t>(odd_size(in))) : numbers[kind % 6];
}

std::string command_word(FuzzInput &in)
{
    static const char *const options[] = {"-console",    "-fb",        "-use-input", "-benchmark",
                                          "-send-event", "-scale",     "/dev/fb0",   "/dev/other",
                                          "/dev/tty0",   "-no-option", "",           "%s%n"};
    const uint8_t kind = in.byte();
    return kind < 128 ? number_word(in) : options[kind % 12];
}

// The last two numbers are the size: of a command line that could not be borne they are made small.
void lighten(std::vector<std::string> &words)
{
    for (size_t i = 1; i < words.size(); i++) {
        const long w = strtol(words[i - 1].c_str(), nullptr, 10);
        const long h = strtol(words[i].c_str(), nullptr, 10);
        if (is_heavy(static_cast<int32_t>(w), static_cast<int32_t>(h)))
            words[i] = "3";
    }
}

void make_smaller(Decoder &d)
{
    if (d.objects.empty())
        return;
    const auto &object = d.objects[static_cast<size_t>(d.in.below(static_cast<int>(d.objects.size())))];
    d.trouble.object = object.number;
    d.trouble.size = static_cast<uint32_t>(d.in.word() % (object.size + 1));
}

} // namespace

DeviceForm plain_form(const model::Device &device)
{
    DeviceForm form{};
    form.fix.line_length = device.stride;
    form.fix.smem_len = device.memory;
    form.var.xres = static_cast<uint32_t>(device.width);
    form.var.yres = static_cast<uint32_t>(device.height);
    form.var.bits_per_pixel = device.depth;
    form.var.red = field_of(device.red);
    form.var.green = field_of(device.green);
    form.var.blue = field_of(device.blue);
    form.var.transp = field_of(device.alpha);
    return form;
}

std::string decode_text(FuzzInput &in, int most)
{
    std::string text(static_cast<size_t>(in.half() % (most + 1)), '\0');
    const auto pattern = in.take(in.byte() % 24u);
    for (size_t i = 0; i < text.size(); i++) {
        const uint8_t byte = pattern.empty() ? uint8_t{'x'} : pattern[i % pattern.size()];
        text[i] = static_cast<char>(byte != 0 ? byte : 1);
    }
    return text;
}

void decode_surroundings(Decoder &d, uint8_t kinds)
{
    d.forms[0] = kinds & 1 ? odd_form(d.in, d.config.primary) : plain_form(d.config.primary);
    d.forms[1] = kinds & 2 ? odd_form(d.in, d.config.second) : plain_form(d.config.second);
    d.other_names = (kinds & 8) != 0;
    if (kinds & 16) {
        decode_trouble(d);
        d.other_trouble = d.trouble;
    }
    if (kinds & 4) {
        for (int i = d.in.below(6); i > 0; i--)
            d.words.push_back(command_word(d.in));
        lighten(d.words);
    } else {
        d.words = {std::to_string(d.config.requested_w), std::to_string(d.config.requested_h)};
    }
}

void decode_trouble(Decoder &d)
{
    static const Trouble::Kind kinds[] = {
        Trouble::NO_MEMORY, Trouble::NO_MEMORY,    Trouble::NO_MEMORY, Trouble::NO_MAPPING, Trouble::SHORTER,
        Trouble::SHORTER,   Trouble::NO_UNMAPPING, Trouble::NO_OBJECT, Trouble::NO_DEVICE,  Trouble::NO_CONTROL};
    const uint8_t kind = d.in.byte();
    if (kind < 224) {
        d.trouble.kind = kinds[kind % 10];
        const uint8_t which = d.in.byte();
        // Allocations are many; of everything else there is one or a few in an action.
        d.trouble.nth = d.trouble.kind == Trouble::NO_MEMORY || which >= 192 ? 1 + which % 12 : 1;
        if (d.trouble.kind == Trouble::SHORTER)
            make_smaller(d);
    } else if (kind < 240) {
        d.readers = static_cast<Readers>(kind % 3);
    } else {
        d.described = kind % 2;
        d.forms[d.described] = odd_form(d.in, kind % 2 ? d.config.second : d.config.primary);
    }
}
