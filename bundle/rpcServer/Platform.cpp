#include "Platform.h"

#include <unistd.h>

namespace {

constexpr int firstInherited = STDERR_FILENO + 1;

} // namespace

#ifdef __APPLE__

#include <cstdint>
#include <mach-o/dyld.h>

std::string ownDirectory()
{
    std::uint32_t bytes = 0;
    _NSGetExecutablePath(nullptr, &bytes); // sets how many it takes
    std::string path(bytes, '\0');
    _NSGetExecutablePath(path.data(), &bytes);
    return path.substr(0, path.rfind('/'));
}

void closeInherited()
{
    for (int descriptor = firstInherited; descriptor < getdtablesize(); ++descriptor) {
        close(descriptor);
    }
}

#else

#include <filesystem>
#include <system_error>

std::string ownDirectory()
{
    std::error_code unreadable;
    return std::filesystem::read_symlink("/proc/self/exe", unreadable).parent_path();
}

void closeInherited()
{
    closefrom(firstInherited); // there may be no limit to count to
}

#endif
