// Replaces the allocation of the program it is linked into, so that a test can make one allocation fail.
#pragma once

/// The number of allocations before the one that fails; negative: none fails. One thread.
extern long allocationsLeft;
