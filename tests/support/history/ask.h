// SPDX-License-Identifier: MIT
// A request of a history as a packet, and what came back.
#pragma once

#include <string>

#include "history.h"
#include "mc.h"

// `object` is the name of the action's shared-memory object. The caller frees the packet.
mc_packet *history_packet(const Action &a, const std::string &object);
// Frees the packet; null is no reply.
model::Reply history_reply(mc_packet *packet);
