#pragma once

#include <cstdint>
#include <ctime>

/// Nanoseconds of the monotonic clock, which every process of the machine reads alike: a child's
/// stamp can be compared with the driver's.
inline std::int64_t nanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}
