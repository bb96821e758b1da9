// How far a step is that was asked of a lower-layer service.
#pragma once

#include <cstdint>

enum proc_step_state : uint32_t {
    PROC_STEP_IDLE = 0,
    PROC_STEP_ONGOING = 1,
    PROC_STEP_OK = 2,
    PROC_STEP_FAILED = 3,
};
