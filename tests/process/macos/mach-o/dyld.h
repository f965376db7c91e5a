#pragma once

#include <cstdint>

/// Stands in for macOS's header: the one call that the launcher takes from it.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the platform's own name
extern "C" int _NSGetExecutablePath(char *buffer, std::uint32_t *size);
