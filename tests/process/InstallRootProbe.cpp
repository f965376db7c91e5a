// Prints, for each line that it reads and once before, three texts with a zero byte behind each:
// its directory, the install root of a new runner, and that of its first runner.

#include "process/MyProgress.h"

#include <cstdio>
#include <string>

int main()
{
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
