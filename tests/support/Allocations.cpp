#include "tests/support/Allocations.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>

namespace {

std::array<Allocations::Event, 100'000> events;
std::size_t count = 0;
thread_local bool recording = false;

void add(const Allocations::Event &event)
{
    if (recording && count < events.size()) {
        events[count++] = event;
    }
}

} // namespace

void Allocations::record()
{
    count = 0;
    recording = true;
}

std::vector<Allocations::Event> Allocations::recorded()
{
    recording = false;
    return {events.begin(), events.begin() + static_cast<std::ptrdiff_t>(count)};
}

bool Allocations::wasDeleted(const void *address)
{
    return std::any_of(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(count),
                       [&](const Event &event) { return !event.made && event.address == address; });
}

void *operator new(std::size_t bytes)
{
    void *memory = std::malloc(bytes == 0 ? 1 : bytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    add({true, memory, bytes});
    return memory;
}

void operator delete(void *memory) noexcept
{
    add({false, memory, 0});
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept
{
    operator delete(memory);
}
