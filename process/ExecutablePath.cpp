#include "process/ExecutablePath.h"

#ifdef __APPLE__

#include <mach-o/dyld.h>

int executablePath(char *buffer, std::uint32_t *size)
{
    return _NSGetExecutablePath(buffer, size);
}

#else

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/auxv.h>
#include <system_error>
#include <unistd.h>

namespace {

/// The target of /proc/self/exe, or an empty string. readlink(2) cuts what does not fit without
/// saying so, hence the larger buffer until there is room to spare.
std::string linkedPath()
{
    constexpr std::size_t firstGuessBytes = 256;
    std::string path(firstGuessBytes, '\0');
    for (;;) {
        const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
        if (length < 0) {
            return {};
        }
        if (static_cast<std::size_t>(length) < path.size()) {
            path.resize(static_cast<std::size_t>(length));
            return path;
        }
        path.resize(2 * path.size());
    }
}

/// The path that the program was started by, made absolute. It stands in where /proc is not
/// mounted, or where the path is longer than the one page that the kernel gives the link
/// (ENAMETOOLONG, proc(5)); such a program was started by a relative path or through a link.
std::string invokedPath()
{
    // getauxval(3) returns the address as a number.
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast,performance-no-int-to-ptr)
    std::string invoked = reinterpret_cast<const char *>(getauxval(AT_EXECFN));
    if (invoked.front() == '/') {
        return invoked;
    }
    std::error_code unreadable;
    return std::filesystem::current_path(unreadable).string() + '/' + invoked;
}

} // namespace

int executablePath(char *buffer, std::uint32_t *size)
{
    std::string path = linkedPath();
    if (path.empty()) {
        path = invokedPath();
    }
    const std::size_t needed = path.size() + 1;
    if (*size < needed) {
        *size = static_cast<std::uint32_t>(needed);
        return -1;
    }
    std::memcpy(buffer, path.c_str(), needed);
    return 0;
}

#endif
