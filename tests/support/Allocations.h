#pragma once

#include <cstddef>
#include <vector>

/// Records what is made with new and deleted, in order. The test's executable replaces the global
/// operators new and delete; they note what the recording thread does and use malloc() and free().
namespace Allocations {

struct Event
{
    bool made; ///< false: deleted
    const void *address;
    std::size_t bytes; ///< 0 for a deletion
};

/// Starts a new record for this thread.
void record();
/// Ends the record. Holds at most the first 100,000 events.
std::vector<Event> recorded();
/// Whether the object at @p address was deleted since the record was started.
bool wasDeleted(const void *address);

} // namespace Allocations
