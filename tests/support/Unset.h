#pragma once

#include <cstddef>
#include <new>
#include <utility>

/// An object made in memory where every byte is 0xAA, so that a field without an initial value
/// shows. Holds for what the constructor leaves alone in a build without optimisation.
template <typename Object>
class Unset
{
public:
    template <typename... Arguments>
    explicit Unset(Arguments &&...arguments)
    {
        volatile std::byte *bytes = memory;
        for (std::size_t i = 0; i < sizeof(Object); ++i) {
            bytes[i] = std::byte{0xAA};
        }
        object = ::new (memory) Object(std::forward<Arguments>(arguments)...);
    }
    ~Unset() { object->~Object(); }
    Unset(const Unset &) = delete;
    Unset &operator=(const Unset &) = delete;

    Object *operator->() const { return object; }
    Object &operator*() const { return *object; }

private:
    alignas(Object) std::byte memory[sizeof(Object)];
    Object *object;
};
