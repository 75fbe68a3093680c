// SPDX-License-Identifier: MIT
// Shared memory that its owner changes under a surface.
#pragma once

#include <string>
#include <sys/types.h>

#include "mc.h"

class ChangingMemory {
public:
    explicit ChangingMemory(off_t bytes);
    ~ChangingMemory();
    ChangingMemory(const ChangingMemory &) = delete;
    ChangingMemory &operator=(const ChangingMemory &) = delete;

    // Sends "create" of a surface over it, without "show".
    void create_hidden(mc_connection *connection, int width, int height, int stride, int alpha, int depth = 32) const;
    // The same of a 32-bit surface, and "show".
    void create(mc_connection *connection, int width, int height, int stride, int alpha) const;
    void resize(off_t bytes) const;
    // Writes the same byte everywhere up to `bytes`, which must be there.
    void fill(off_t bytes, int byte) const;

private:
    std::string name_;
    int fd_;
};

// Sends a word with four integers or none.
void send_word(mc_connection *connection, const char *word);
void send_dirty(mc_connection *connection, int width, int height);
// Asks for the depth and waits for the answer: false when the connection ends instead.
bool is_answered(mc_connection *connection);
// Waits until every earlier request is handled and every render that was due then has run. False when the connection
// ends instead.
bool settles(mc_connection *connection);
