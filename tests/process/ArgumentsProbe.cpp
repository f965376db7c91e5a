// Prints each argument and each environment variable in brackets, a line each.

#include <cstdio>

int main(int argc, char **argv, char **environment)
{
    std::printf("arguments %d:", argc);
    for (int i = 0; i < argc; ++i) {
        std::printf(" [%s]", argv[i]);
    }
    std::printf("\nenvironment:");
    for (; *environment != nullptr; ++environment) {
        std::printf(" [%s]", *environment);
    }
    std::printf("\n");
}
