#pragma once

/// Whether an object was deleted: the test's executable replaces the global operators new and
/// delete.
namespace Deletions {

/// From now on looks out for the deletion of what lies at these places.
void watch(const void *first, const void *second = nullptr);
/// Whether @p watched was deleted since.
bool happened(const void *watched);

} // namespace Deletions
