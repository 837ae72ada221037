// Which entries of a query batch share a row: hashed, then verified by comparison.
#include "libwmd/distinct_rows.hpp"

#include <algorithm>
#include <functional>  // hash
#include <string_view>

#include "internal/team.hpp"

namespace talvik::internal {
namespace {

using Hash = std::size_t;

// Entries hashed by the team before they are looked up one after the other.
constexpr int hash_block_entries = 1 << 16;

// Open addressing over the rows of the current pass.
struct RowTable {
  const char* rows;
  std::size_t row_bytes;
  std::vector<int> slot;        // row number + 1, or 0; a power of two of them
  std::vector<Hash> row_hash;   // per row of the pass
  std::vector<int>& row_entry;  // per row of all passes
  int first_row;                // of the pass
};

constexpr std::size_t smallest_table = 64;  // slots

// The row of an entry; rows of no bytes may lie at null.
std::string_view row_at(const char* rows, std::size_t row_bytes, int entry) {
  return {rows + static_cast<std::size_t>(entry) * row_bytes, row_bytes};
}

bool same_row(const RowTable& table, int a, int b) {
  return row_at(table.rows, table.row_bytes, a) == row_at(table.rows, table.row_bytes, b);
}

std::size_t free_slot(const std::vector<int>& slot, Hash hash) {
  const std::size_t mask = slot.size() - 1;
  std::size_t at = hash & mask;
  while (slot[at] != 0) at = (at + 1) & mask;
  return at;
}

// Kept at most half full.
void grow(RowTable& table) {
  std::vector<int> larger(table.slot.size() * 2, 0);
  for (std::size_t r = 0; r < table.row_hash.size(); ++r) {
    larger[free_slot(larger, table.row_hash[r])] = static_cast<int>(r) + 1;
  }
  table.slot.swap(larger);
}

int row_of(RowTable& table, int entry, Hash hash) {
  const std::size_t mask = table.slot.size() - 1;
  std::size_t at = hash & mask;
  for (; table.slot[at] != 0; at = (at + 1) & mask) {
    const int row = table.slot[at] - 1;
    if (table.row_hash[static_cast<std::size_t>(row)] == hash &&
        same_row(table, table.row_entry[static_cast<std::size_t>(table.first_row + row)], entry)) {
      return row;
    }
  }
  const int row = static_cast<int>(table.row_hash.size());
  table.row_hash.push_back(hash);
  table.row_entry.push_back(entry);
  table.slot[at] = row + 1;
  if (2 * table.row_hash.size() > table.slot.size()) grow(table);
  return row;
}

void start_pass(RowTable& table) {
  table.first_row = static_cast<int>(table.row_entry.size());
  table.row_hash.clear();
  table.slot.assign(smallest_table, 0);
}

// Hashes of the block of entries that holds `entry`, computed by the team when first asked for.
struct EntryHashes {
  const char* rows;
  std::size_t row_bytes;
  int num_entries, threads;
  int first = 0, last = 0;
  std::vector<Hash> hash = {};
};

Hash hash_of(EntryHashes& block, int entry) {
  if (entry >= block.last || entry < block.first) {
    block.first = entry;
    block.last = std::min(block.num_entries - entry, hash_block_entries) + entry;
    block.hash.resize(static_cast<std::size_t>(block.last - block.first));
    for_each_share(block.threads, block.last - block.first, [&](int first, int last, int) {
      for (int i = first; i < last; ++i) {
        block.hash[static_cast<std::size_t>(i)] =
            std::hash<std::string_view>()(row_at(block.rows, block.row_bytes, block.first + i));
      }
    });
  }
  return block.hash[static_cast<std::size_t>(entry - block.first)];
}

}  // namespace

DistinctRows find_distinct_rows(const void* rows, std::size_t row_bytes, const int* start,
                                int num_docs, int max_rows, int threads) {
  DistinctRows found;
  const int num_entries = start[num_docs];
  found.row_of_entry.assign(static_cast<std::size_t>(num_entries) + row_padding, 0);
  RowTable table{static_cast<const char*>(rows), row_bytes, {}, {}, found.entry_of_row, 0};
  EntryHashes hashes{table.rows, row_bytes, num_entries, threads};

  int first_doc = 0;  // of the open group
  const auto open_pass = [&](int entry) {
    start_pass(table);
    found.passes.push_back({table.first_row, table.first_row, entry, entry});
  };
  const auto close_pass = [&](int entry) {
    found.passes.back().last_row = static_cast<int>(found.entry_of_row.size());
    found.passes.back().last_entry = entry;
  };
  int first_pass = 0;
  const auto close_group = [&](int last_doc) {
    close_pass(start[last_doc]);
    const int last_pass = static_cast<int>(found.passes.size());
    found.sections.push_back({first_doc, last_doc, first_pass, last_pass});
    first_doc = last_doc;
    first_pass = last_pass;
  };

  if (num_docs > 0) open_pass(0);
  for (int doc = 0; doc < num_docs; ++doc) {
    const int held = static_cast<int>(table.row_hash.size());
    // Rows that a document shares with the pass are not known before they are looked up; counting
    // all of its entries as new rows only makes a pass smaller than it could be.
    if (doc > first_doc && start[doc + 1] - start[doc] > max_rows - held) {
      close_group(doc);
      open_pass(start[doc]);
    }
    for (int entry = start[doc]; entry < start[doc + 1]; ++entry) {
      // Only a document that is alone in its group gets here with a full pass.
      if (static_cast<int>(table.row_hash.size()) == max_rows) {
        close_pass(entry);
        open_pass(entry);
      }
      found.row_of_entry[static_cast<std::size_t>(entry)] =
          row_of(table, entry, hash_of(hashes, entry));
    }
    const bool several_passes = static_cast<int>(found.passes.size()) > first_pass + 1;
    if (several_passes && doc + 1 < num_docs) {
      close_group(doc + 1);
      open_pass(start[doc + 1]);
    }
  }
  if (num_docs > 0) close_group(num_docs);
  return found;
}

int largest_pass(const DistinctRows& distinct, int first_pass, int last_pass) {
  int rows = 0;
  for (int p = first_pass; p < last_pass; ++p) {
    const RowPass& pass = distinct.passes[static_cast<std::size_t>(p)];
    rows = std::max(rows, pass.last_row - pass.first_row);
  }
  return rows;
}

void order_rows(const int* key, DistinctRows& distinct) {
  std::vector<int> place;  // per row of a pass, its new number
  for (const RowPass& pass : distinct.passes) {
    const auto rows = distinct.entry_of_row.begin();
    std::vector<int> entry(rows + pass.first_row, rows + pass.last_row);
    std::sort(entry.begin(), entry.end(), [key](int a, int b) { return key[a] < key[b]; });
    place.resize(entry.size());
    for (std::size_t r = 0; r < entry.size(); ++r) {
      const int old = distinct.row_of_entry[static_cast<std::size_t>(entry[r])];
      place[static_cast<std::size_t>(old)] = static_cast<int>(r);
    }
    std::copy(entry.begin(), entry.end(), rows + pass.first_row);
    for (int e = pass.first_entry; e < pass.last_entry; ++e) {
      int& row = distinct.row_of_entry[static_cast<std::size_t>(e)];
      row = place[static_cast<std::size_t>(row)];
    }
  }
}

}  // namespace talvik::internal
