// Ordered views of a PointerMap, for the rare walks that must go in address order.
#ifndef OXA_SRC_MEMORY_POINTER_MAP_H_
#define OXA_SRC_MEMORY_POINTER_MAP_H_

#include <new>
#include <vector>

#include "oxa_memory.h"

namespace oxa::internal {

/** A copy of the map's entries sorted by key. Throws std::bad_alloc when memory runs out. */
std::vector<PointerMap::Entry> SortedEntries(const PointerMap& map);

/**
 * Calls visit(entry) for every entry in address order; in slot order when memory for the sorted
 * copy runs out, so that leak reports and clean-up in destructors never throw.
 */
template <class Visit>
void VisitInAddressOrder(const PointerMap& map, Visit visit) {
  std::vector<PointerMap::Entry> entries;
  try {
    entries = SortedEntries(map);
  } catch (const std::bad_alloc&) {
    map.ForEach(visit);
    return;
  }
  for (const PointerMap::Entry& entry : entries)
    visit(entry);
}

}  // namespace oxa::internal

#endif  // OXA_SRC_MEMORY_POINTER_MAP_H_
