#pragma once

#include <chrono>
#include <cstdio>
#include <string>

/// What the server writes. Each line becomes a row of the launcher's list, whose memory is never
/// given back: refusals, which cost whoever asks for them nothing, get one row a second at most.
class Rows
{
public:
    /// One line, at once. Nobody may be there to read it; that stops nothing.
    static void say(const std::string &line)
    {
        std::puts(line.c_str());
        std::fflush(stdout);
    }

    /// Counts a refusal.
    void refuse(const char *why)
    {
        ++refused;
        last = why;
    }

    /// Says what was refused since the last such row, if that one is a second old. Called at least
    /// once a second.
    void report()
    {
        const auto now = std::chrono::steady_clock::now();
        if (refused == 0 || now < next) {
            return;
        }
        const std::string many =
            refused == 1 ? "" : std::to_string(refused) + " requests, the last for: ";
        say("refused: " + many + last);
        refused = 0;
        next = now + std::chrono::seconds(1);
    }

private:
    std::size_t refused = 0;
    const char *last = "";
    std::chrono::steady_clock::time_point next;
};
