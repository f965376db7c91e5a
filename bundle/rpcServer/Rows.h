#pragma once

#include <chrono>
#include <cstdio>
#include <string>

/// What the server writes. Each line becomes a row of the launcher's list, whose memory is never
/// given back. Requests cost whoever sends them nothing, so all of them together cause one row a
/// second at most.
class Rows
{
public:
    /// One line, at once. Nobody may be there to read it; that stops nothing.
    static void say(const std::string &line)
    {
        std::puts(line.c_str());
        std::fflush(stdout);
    }

    /// A request is worth a row.
    void note(const std::string &row)
    {
        ++noted;
        last = row;
    }

    /// Writes one row for all that was noted since the last one, if that is a second old. Called at
    /// least once a second.
    void report()
    {
        const auto now = std::chrono::steady_clock::now();
        if (noted == 0 || now < next) {
            return;
        }
        say(noted == 1 ? last : std::to_string(noted) + " requests, the last: " + last);
        noted = 0;
        next = now + std::chrono::seconds(1);
    }

private:
    std::size_t noted = 0;
    std::string last;
    std::chrono::steady_clock::time_point next;
};
