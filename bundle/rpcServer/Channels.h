#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>

/// The open channels. Each is a moving test picture: a ball that runs a closed curve in changing
/// colours, the first frame at once and then 25 for every second since it was opened.
class Channels
{
public:
    std::uint64_t open()
    {
        if (opened.size() == 16) { // nobody says when a page is closed
            opened.erase(opened.begin());
        }
        opened[++lastOpened] = Clock::now();
        return lastOpened;
    }

    /// The frames after the frame @p after, no more than the newest two seconds of them: the ball's
    /// centre in thousandths of the picture, its hue in degrees. A channel that is not open throws
    /// std::out_of_range.
    [[nodiscard]] nlohmann::json frames(std::uint64_t channel, std::uint64_t after) const
    {
        const auto shown = Clock::now() - opened.at(channel);
        const auto newest = 1 + static_cast<std::uint64_t>(shown / std::chrono::milliseconds(40));
        auto list = nlohmann::json::array();
        for (after = std::max(after, newest - std::min(newest, std::uint64_t{50}));
             after < newest;) {
            const double angle = static_cast<double>(++after) / 40;
            const auto x = std::lround(500 + 400 * std::cos(2 * angle));
            const auto y = std::lround(500 + 400 * std::sin(3 * angle));
            list.push_back({{"number", after}, {"x", x}, {"y", y}, {"hue", after * 2 % 360}});
        }
        return list;
    }

private:
    using Clock = std::chrono::steady_clock;

    std::map<std::uint64_t, Clock::time_point> opened;
    std::uint64_t lastOpened = 0;
};
