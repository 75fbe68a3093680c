// SPDX-License-Identifier: MIT
#include "ask.h"

#include <cstring>

mc_packet *history_packet(const Action &a, const std::string &object)
{
    mc_packet *packet = mc_packet_new_command(a.word.c_str());
    for (const model::Argument &argument : a.arguments) {
        const std::string &text = a.object && &argument == &a.arguments.back() ? object : argument.text;
        if (argument.type == 'i')
            mc_packet_build_args(packet, "i", argument.number);
        else
            mc_packet_build_args(packet, "s", text.c_str());
    }
    return packet;
}

model::Reply history_reply(mc_packet *packet)
{
    if (!packet)
        return {};
    std::vector<int32_t> values;
    int32_t value = 0;
    const char *signature = mc_packet_signature(packet);
    if (strcmp(signature, "i") == 0 && mc_packet_parse_args(packet, "i", &value) == 1)
        values.push_back(value);
    else if (*signature != '\0')
        values.assign(strlen(signature), -99);
    mc_packet_free(packet);
    return values;
}
