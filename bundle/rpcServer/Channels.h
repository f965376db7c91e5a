#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>

/// The open channels. Each is a moving test picture: a ball that runs a closed curve in changing
/// colours, the first frame at once and then 25 for every second since it was opened.
///
/// Nobody says when a page is closed, so the channel that nobody has asked for the longest makes
/// room for a new one. A page that loses its channel opens another: there are more than anybody has
/// pages open, or they would take each other's channels for ever.
class Channels
{
public:
    std::uint64_t open()
    {
        if (channels.size() == mostChannels) {
            channels.erase(std::min_element(channels.begin(), channels.end(), askedEarlier));
        }
        const auto now = Clock::now();
        channels[++lastOpened] = {now, now};
        return lastOpened;
    }

    /// The frames after the frame @p after, no more than the newest two seconds of them. A channel
    /// that is not open throws std::out_of_range.
    nlohmann::json frames(std::uint64_t number, std::uint64_t after)
    {
        Channel &channel = channels.at(number);
        channel.asked = Clock::now();
        const auto shown = channel.asked - channel.opened;
        const auto newest = 1 + static_cast<std::uint64_t>(shown / frameTime);
        const auto oldest = newest - std::min(newest, mostDelivered) + 1;

        auto list = nlohmann::json::array();
        for (auto next = std::max(oldest, std::min(newest, after) + 1); next <= newest; ++next) {
            list.push_back(frame(next));
        }
        return list;
    }

private:
    using Clock = std::chrono::steady_clock;

    struct Channel
    {
        Clock::time_point opened;
        Clock::time_point asked; // for frames, or for the channel itself
    };

    using Numbered = std::map<std::uint64_t, Channel>;

    static bool askedEarlier(const Numbered::value_type &one, const Numbered::value_type &other)
    {
        return one.second.asked < other.second.asked;
    }

    /// The ball's centre in thousandths of the picture, its hue in degrees.
    static nlohmann::json frame(std::uint64_t number)
    {
        const double angle = static_cast<double>(number) / 40;
        return {{"number", number},
                {"x", std::lround(500 + 400 * std::cos(2 * angle))},
                {"y", std::lround(500 + 400 * std::sin(3 * angle))},
                {"hue", number * 2 % 360}};
    }

    static constexpr std::size_t mostChannels = 1024;  // 64 bytes each
    static constexpr std::uint64_t mostDelivered = 50; // frames
    static constexpr std::chrono::milliseconds frameTime{40};

    Numbered channels;
    std::uint64_t lastOpened = 0;
};
