// Finds documents by their ids: a hash table of numbers with open addressing, so that ids are not
// held twice.
#ifndef TALVIK_SEARCH_ID_TABLE_HPP
#define TALVIK_SEARCH_ID_TABLE_HPP

#include <bit>
#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "talvik/api.hpp"

namespace talvik::internal {

/// A power of two, at most half full; a free slot is 0, else the number of a document, plus 1.
using IdSlots = std::vector<Count>;

/// The slot of an id, or the free one where it belongs.
template <class IdOf>
std::size_t slot_of(const IdSlots& slots, std::string_view id, const IdOf& id_of) {
  const std::size_t mask = slots.size() - 1;
  std::size_t at = std::hash<std::string_view>{}(id)&mask;
  while (slots[at] != 0 && std::string_view(id_of(slots[at] - 1)) != id) at = (at + 1) & mask;
  return at;
}

/// A pair of documents with the same id.
struct SameId {
  Count first, second;
};

/// Adds the documents [begin, end) to slots that have those before; the slots grow as they must.
/// @param id_of  the id of a document
template <class IdOf>
std::optional<SameId> add_ids(IdSlots& slots, Count begin, Count end, const IdOf& id_of) {
  const std::size_t wanted = std::bit_ceil(2 * static_cast<std::size_t>(end) + 1);
  if (slots.size() < wanted) {
    slots.assign(wanted, 0);
    begin = 0;
  }
  for (Count i = begin; i < end; ++i) {
    Count& slot = slots[slot_of(slots, id_of(i), id_of)];
    if (slot != 0) return SameId{slot - 1, i};
    slot = i + 1;
  }
  return std::nullopt;
}

inline std::optional<Count> find_id(const IdSlots& slots, std::span<const std::string> ids,
                                    std::string_view id) {
  if (slots.empty()) return std::nullopt;
  const Count slot =
      slots[slot_of(slots, id, [&](Count i) -> const std::string& { return ids[i]; })];
  return slot == 0 ? std::nullopt : std::optional(slot - 1);
}

}  // namespace talvik::internal

#endif
