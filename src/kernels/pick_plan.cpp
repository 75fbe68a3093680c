// SPDX-License-Identifier: MIT
#include "kernels.h"

#include <algorithm>

namespace {

constexpr int32_t GROUP = 8;

// The pixels of step k begin here.
int32_t step_begin(const PickPlan *plan, int32_t k, int32_t step)
{
    return std::min(k * step, plan->n - step);
}

// How far the columns of 8 pixels lie apart, and those of a step's last 8 from its first one.
struct Reach {
    int32_t group;
    int32_t least, most;
};

Reach reach_of(const PickPlan *plan, int32_t step)
{
    Reach reach = {0, INT32_MAX, 0};
    for (int32_t k = 0; k * step < plan->n; k++) {
        const int32_t *columns = plan->columns + step_begin(plan, k, step);
        for (int32_t i = 0; i < step; i += GROUP)
            reach.group = std::max(reach.group, columns[i + GROUP - 1] - columns[i]);
        reach.least = std::min(reach.least, columns[step - GROUP] - columns[0]);
        reach.most = std::max(reach.most, columns[step - 1] - columns[0]);
    }
    return reach;
}

// Source pixels that a start is followed by.
int32_t width_of(PickShape shape, int32_t step)
{
    return shape == PICK_ONE ? step : shape == PICK_OVERLAPPED ? 3 * GROUP : 2 * GROUP;
}

PickShape shape_of(const Reach &reach, int32_t second, int32_t step)
{
    if (reach.group < GROUP && reach.most - second < GROUP && second + GROUP <= step)
        return PICK_ONE;
    if (reach.group < 2 * GROUP && reach.least >= GROUP && reach.most < 3 * GROUP)
        return PICK_OVERLAPPED;
    return reach.group < 2 * GROUP ? PICK_TWO : PICK_SINGLY;
}

// Where the first step begins that reads beyond the row, or n where none does.
int32_t whole_until(const PickPlan *plan, int32_t step)
{
    const int32_t last = plan->columns[plan->n - 1] + 1 - width_of(plan->shape, step);
    int32_t i = 0;
    while (i + step <= plan->n && plan->columns[i] <= last)
        i += step;
    return i;
}

void choose_shape(PickPlan *plan, int32_t step)
{
    plan->shape = PICK_SINGLY;
    if (plan->n < PICK_LEAST)
        return;
    const Reach reach = reach_of(plan, step);
    plan->second = std::min(reach.least, step - GROUP) & ~1;
    const PickShape shape = shape_of(reach, plan->second, step);
    const int32_t least = std::max(width_of(shape, step), step == GROUP ? 0 : width_of(PICK_TWO, step));
    if (plan->columns[plan->n - 1] + 1 < least)
        return;
    plan->shape = shape;
    plan->end = whole_until(plan, step);
}

void fill_words(uint32_t *words, const int32_t *columns, int32_t start)
{
    for (int32_t i = 0; i < GROUP; i++)
        words[i] = static_cast<uint32_t>(columns[i] - start);
}

// Both bytes of each pixel.
void fill_bytes(uint8_t *bytes, const int32_t *columns, int32_t start)
{
    for (int32_t i = 0; i < GROUP; i++) {
        bytes[2 * i] = static_cast<uint8_t>(2 * (columns[i] - start));
        bytes[2 * i + 1] = static_cast<uint8_t>(2 * (columns[i] - start) + 1);
    }
}

// The same for shuffles of 16 bytes that take what lies in them, and make zeroes of the rest: in the first half of a
// vector, and in the second.
void fill_halves(uint8_t *bytes, const int32_t *columns, int32_t start)
{
    fill_bytes(bytes, columns, start);
    for (int32_t i = 0; i < 2 * GROUP; i++) {
        bytes[i + 16] = static_cast<uint8_t>(bytes[i] - 16); // bit 7 is set where that is negative
        bytes[i] = static_cast<uint8_t>(bytes[i] + 0x70);
    }
}

// For 8 pixels, of which the columns are given, and where the vector of their step starts.
void fill_group_16(PickPlan *plan, int32_t group, const int32_t *columns, int32_t first)
{
    uint8_t *bytes = plan->bytes + group / 2 * 64;
    const bool second = group % 2 != 0;
    if (plan->shape == PICK_TWO || group * GROUP >= plan->end)
        fill_halves(bytes + 32 * second, columns, plan->starts[group]);
    else
        fill_bytes(bytes + 16 * second, columns,
                   first + (!second                   ? 0
                            : plan->shape == PICK_ONE ? plan->second
                                                      : GROUP));
}

void fill_step(PickPlan *plan, int32_t k, int32_t step)
{
    const int32_t last = plan->columns[plan->n - 1] + 1 - width_of(step == GROUP ? plan->shape : PICK_TWO, step);
    const int32_t *columns = plan->columns + step_begin(plan, k, step);
    for (int32_t i = 0; i < step; i += GROUP) {
        const int32_t group = (k * step + i) / GROUP;
        plan->starts[group] = std::min(columns[i], last);
        if (step == GROUP)
            fill_words(plan->words + k * step, columns, plan->starts[group]);
        else
            fill_group_16(plan, group, columns + i, columns[0]);
    }
}

// The first step from which on every column is `advance` after the one a step before, or the end of the row.
void find_alike(PickPlan *plan, int32_t step)
{
    const int32_t *columns = plan->columns;
    for (plan->alike = 0; plan->alike <= step && plan->alike + step < plan->n; plan->alike += step) {
        plan->advance = columns[plan->alike + step] - columns[plan->alike];
        int32_t i = plan->alike;
        while (i + step < plan->n && columns[i + step] - columns[i] == plan->advance)
            i++;
        if (i + step >= plan->n)
            return;
    }
    plan->alike = plan->n;
}

PickRhythm find_rhythm(const PickPlan *plan, int32_t step)
{
    if (plan->alike == plan->n)
        return PICK_ANY;
    const int32_t *columns = plan->columns + plan->alike;
    const int32_t odd = columns[1] - columns[0];
    bool doubled = odd <= 1, halved = true;
    for (int32_t i = 0; i <= step; i++) {
        doubled = doubled && columns[i] - columns[0] == (i + odd) / 2;
        halved = halved && columns[i] - columns[0] == 2 * i;
    }
    return doubled ? PICK_DOUBLED : halved ? PICK_HALVED : PICK_ANY;
}

// Whether the step's vectors begin at its columns, and not before.
bool starts_at_columns(const PickPlan *plan, int32_t i, int32_t step)
{
    return step == GROUP || plan->shape != PICK_TWO || plan->starts[i / GROUP + 1] == plan->columns[i + GROUP];
}

// The steps before `end`, as far as their vectors lie alike in them, too.
int32_t find_until(const PickPlan *plan, int32_t step)
{
    int32_t i = plan->alike;
    while (i + step <= plan->end && starts_at_columns(plan, i, step))
        i += step;
    return i;
}

} // namespace

void pick_plan_finish(PickPlan *plan, int32_t pixel_size)
{
    const int32_t step = 32 / pixel_size;
    find_alike(plan, step);
    plan->rhythm = find_rhythm(plan, step);
    plan->until = 0;
    choose_shape(plan, step);
    for (int32_t k = 0; plan->shape != PICK_SINGLY && k * step < plan->n; k++)
        fill_step(plan, k, step);
    if (plan->shape != PICK_SINGLY)
        plan->until = find_until(plan, step);
}
