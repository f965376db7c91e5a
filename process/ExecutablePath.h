#pragma once

#include <cstdint>

/// Copies the path of the running executable, with its terminating zero, into @p buffer, which
/// holds @p *size bytes. Returns 0 on success. A buffer that is too small stays untouched: @p *size
/// then becomes the number of bytes needed and -1 is returned, so a first call with size 0 asks for
/// the size. The path always holds at least one '/'. Any thread.
int executablePath(char *buffer, std::uint32_t *size);
