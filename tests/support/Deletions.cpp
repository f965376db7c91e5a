#include "tests/support/Deletions.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

struct Watched
{
    const void *address = nullptr;
    bool deleted = false;
};
Watched watched[2];

} // namespace

void Deletions::watch(const void *first, const void *second)
{
    watched[0] = {first, false};
    watched[1] = {second, false};
}

bool Deletions::happened(const void *address)
{
    return watched[watched[0].address == address ? 0 : 1].deleted;
}

void *operator new(std::size_t bytes)
{
    void *memory = std::malloc(bytes == 0 ? 1 : bytes);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void *memory) noexcept
{
    for (Watched &each : watched) {
        each.deleted = each.deleted || (memory != nullptr && each.address == memory);
    }
    std::free(memory);
}

void operator delete(void *memory, std::size_t) noexcept
{
    operator delete(memory);
}
