// Prints, for each line that it reads and once before, three texts with a zero byte behind each:
// its directory, the install root of a new runner, and that of its first runner.

#include "process/MyProgress.h"

#include <cstdio>
#include <string>
#include <sys/resource.h>

namespace {

/// A look-up that never ends must not take the machine's memory. The address sanitizer maps more
/// than that for itself.
void limitMemory()
{
#ifndef __SANITIZE_ADDRESS__
    constexpr rlim_t gibibyte = 1U << 30U;
    const rlimit limit{gibibyte, gibibyte};
    setrlimit(RLIMIT_AS, &limit);
#endif
}

} // namespace

int main()
{
    limitMemory();
    MyProgress first;
    int character = '\n';
    while (character != EOF) {
        if (character == '\n') {
            MyProgress runner;
            for (const std::string &text :
                 {runner.GetExeDir(), runner.getBasePath(), first.getBasePath()}) {
                std::fwrite(text.c_str(), 1, text.size() + 1, stdout);
            }
            std::fflush(stdout);
        }
        character = std::getchar();
    }
}
