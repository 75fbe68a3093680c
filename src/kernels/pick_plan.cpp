// SPDX-License-Identifier: MIT
#include "kernels.h"

#include <algorithm>

namespace {

constexpr int32_t WINDOW = 8;

bool fits(const PickPlan *plan, int32_t group)
{
    int32_t reach = 0;
    for (int32_t i = group - 1; i < plan->n; i += group)
        reach = std::max(reach, plan->columns[i] - plan->columns[i - group + 1]);
    return reach < WINDOW;
}

int32_t group_of(const PickPlan *plan)
{
    if (plan->columns[plan->n - 1] + 1 < WINDOW)
        return 0;
    return fits(plan, 8) ? 8 : fits(plan, 4) ? 4 : 0;
}

void fill_places(PickPlan *plan, int32_t i, int32_t start, int32_t pixel_size)
{
    for (int32_t end = i + plan->group; i < end; i++) {
        const auto place = static_cast<uint32_t>(plan->columns[i] - start);
        if (pixel_size == 4)
            plan->words[i] = place;
        else
            plan->bytes[i] = static_cast<uint16_t>(place * 0x0202 + 0x0100);
    }
}

} // namespace

void pick_plan_finish(PickPlan *plan, int32_t pixel_size)
{
    plan->group = group_of(plan);
    if (plan->group == 0)
        return;
    const int32_t last = plan->columns[plan->n - 1] + 1 - WINDOW;
    int32_t *start = plan->starts;
    for (int32_t i = 0; i + plan->group <= plan->n; i += plan->group, start++) {
        *start = std::min(plan->columns[i], last);
        fill_places(plan, i, *start, pixel_size);
    }
}
