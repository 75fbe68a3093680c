// SPDX-License-Identifier: MIT
// Region operations of pixman's that find no memory, on demand. Programs that link failing_regions.cpp pass
// failing_regions_link_args to the linker. A failure leaves what a real one leaves: a result that is broken.
#pragma once

// `count` operations from the nth on (1: the next) fail. Those that need no memory cannot, and do not count.
void fail_regions(int nth, int count = 1);
// How many operations there have been since then, those included that need no memory.
int regions_worked_on();
// Nothing fails any more. How many have failed since fail_regions.
int regions_failed();
