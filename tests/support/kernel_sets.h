// SPDX-License-Identifier: MIT
// Tests of pixel loops run them in every instruction set that this processor has.
#pragma once

#include <vector>

#include "../../src/kernels/kernels.h"

inline std::vector<const Kernels *> all_kernel_sets()
{
    const KernelList list = kernels_available();
    return {list.sets, list.sets + list.count};
}

// Puts a set into use as long as it lives.
class UsedKernels {
public:
    explicit UsedKernels(const Kernels *set) { kernels = set; }
    ~UsedKernels() { kernels = before; }
    UsedKernels(const UsedKernels &) = delete;
    UsedKernels &operator=(const UsedKernels &) = delete;

private:
    const Kernels *before = kernels;
};
