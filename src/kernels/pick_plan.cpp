// SPDX-License-Identifier: MIT
#include "kernels.h"

#include <algorithm>

namespace {

// The smallest window that any eight pixels fit into, and that the row has; 0: none.
int32_t window_of(const PickPlan *plan)
{
    int32_t reach = 0;
    for (int32_t i = 0; i + 8 <= plan->n; i += 8)
        reach = std::max(reach, plan->columns[i + 7] - plan->columns[i]);
    const int32_t window = reach < 8 ? 8 : 16;
    return reach < 16 && window <= plan->columns[plan->n - 1] + 1 ? window : 0;
}

} // namespace

void pick_plan_finish(PickPlan *plan)
{
    plan->window = window_of(plan);
    if (plan->window == 0)
        return;
    const int32_t last = plan->columns[plan->n - 1] + 1 - plan->window;
    for (int32_t i = 0; i + 8 <= plan->n; i += 8) {
        const int32_t start = std::min(plan->columns[i], last);
        plan->starts[i / 8] = start;
        for (int32_t k = i; k < i + 8; k++)
            plan->bytes[k] = static_cast<uint16_t>((plan->columns[k] - start) * 0x0202 + 0x0100);
    }
}
