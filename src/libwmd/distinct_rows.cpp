// Which entries of a query batch share a row: rows are hashed, then compared.
#include "libwmd/distinct_rows.hpp"

#include <algorithm>
#include <bit>         // bit_ceil
#include <functional>  // hash
#include <iterator>    // ssize
#include <string_view>
#include <utility>  // move

#include "internal/team.hpp"

namespace talvik::internal {
namespace {

// One row of so many bytes per entry.
struct EntryRows {
  const char* rows;
  Index row_bytes;
};

// Rows of no bytes may be at null.
std::string_view row_at(const EntryRows& rows, int entry) {
  return {rows.rows + entry * rows.row_bytes, static_cast<std::size_t>(rows.row_bytes)};
}

// The hashes of consecutive entries [first, last).  The team computes many at a time, before they
// are looked up one after the other.
struct EntryHashes {
  int first = 0, last = 0;
  std::vector<RowHash> hash;  // of entry e at e - first
};

constexpr int entries_hashed_at_once = 1 << 16;

void hash_entries(const EntryRows& rows, int first, int last, int threads, EntryHashes& hashes) {
  hashes.first = first;
  hashes.last = last;
  hashes.hash.resize(last - first);
  for_each_share(threads, last - first, [&](int share_first, int share_last, int) {
    for (int i = share_first; i < share_last; ++i) {
      hashes.hash[i] = std::hash<std::string_view>()(row_at(rows, first + i));
    }
  });
}

// The distinct rows of the open pass, by open addressing.
struct RowTable {
  std::vector<int> slot;          // a power of two of them: row number in the pass + 1, or 0
  std::vector<RowHash> row_hash;  // per row of the pass
};

constexpr std::size_t smallest_table = 64;  // slots

int rows_held(const RowTable& table) { return static_cast<int>(table.row_hash.size()); }

std::size_t free_slot(const std::vector<int>& slot, RowHash hash) {
  const std::size_t mask = slot.size() - 1;
  std::size_t at = hash & mask;
  while (slot[at] != 0) at = (at + 1) & mask;
  return at;
}

void grow(RowTable& table) {
  std::vector<int> larger(table.slot.size() * 2, 0);
  for (int r = 0; r < rows_held(table); ++r) larger[free_slot(larger, table.row_hash[r])] = r + 1;
  table.slot.swap(larger);
}

// The search and what it has found so far.  A section and a pass are open from the first document
// on.
struct Search {
  EntryRows rows;
  const int* start;
  int max_rows, max_docs, threads;
  EntryHashes hashes = {};
  RowTable table = {};
  DistinctRows found = {};
};

RowHash hash_of(Search& search, int entry, int num_entries) {
  if (entry >= search.hashes.last) {
    const int last = entry + std::min(num_entries - entry, entries_hashed_at_once);
    hash_entries(search.rows, entry, last, search.threads, search.hashes);
  }
  return search.hashes.hash[entry - search.hashes.first];
}

// The row of an entry among those of the open pass; the entry's own, if it is new.
int row_of(Search& search, int entry, RowHash hash) {
  RowTable& table = search.table;
  const int* first_entry_of_row =
      search.found.entry_of_row.data() + search.found.passes.back().first_row;
  const std::size_t mask = table.slot.size() - 1;
  std::size_t at = hash & mask;
  for (; table.slot[at] != 0; at = (at + 1) & mask) {
    const int row = table.slot[at] - 1;
    if (table.row_hash[row] == hash &&
        row_at(search.rows, first_entry_of_row[row]) == row_at(search.rows, entry)) {
      return row;
    }
  }
  const int row = rows_held(table);
  table.row_hash.push_back(hash);
  search.found.entry_of_row.push_back(entry);
  table.slot[at] = row + 1;
  if (2 * table.row_hash.size() > table.slot.size()) grow(table);  // at most half full
  return row;
}

void open_pass(Search& search, int entry) {
  const int row = static_cast<int>(search.found.entry_of_row.size());
  search.found.passes.push_back(
      {.first_row = row, .last_row = row, .first_entry = entry, .last_entry = entry});
  search.table.row_hash.clear();
  search.table.slot.assign(smallest_table, 0);
}

void close_pass(Search& search, int last_entry) {
  search.found.passes.back().last_row = static_cast<int>(search.found.entry_of_row.size());
  search.found.passes.back().last_entry = last_entry;
}

void open_section(Search& search, int doc) {
  const int pass = static_cast<int>(search.found.passes.size());
  search.found.sections.push_back(
      {.first_doc = doc, .last_doc = doc, .first_pass = pass, .last_pass = pass});
  open_pass(search, search.start[doc]);
}

void close_section(Search& search, int last_doc) {
  close_pass(search, search.start[last_doc]);
  search.found.sections.back().last_doc = last_doc;
  search.found.sections.back().last_pass = static_cast<int>(search.found.passes.size());
}

// Whether the open section can take another document.  How many of its rows the pass has already is
// not known before they are looked up; counting all entries as new rows only makes a pass smaller
// than it could be.
bool has_room(const Search& search, int doc) {
  const int passes = static_cast<int>(search.found.passes.size());
  const BatchSection& section = search.found.sections.back();
  const bool several_passes = passes - section.first_pass > 1;
  const int entries = search.start[doc + 1] - search.start[doc];
  return !several_passes && doc - section.first_doc < search.max_docs &&
         entries <= search.max_rows - rows_held(search.table);
}

void add_document(Search& search, int doc, int num_entries) {
  for (int entry = search.start[doc]; entry < search.start[doc + 1]; ++entry) {
    // Only a document that is alone in its section can find the pass full.
    if (rows_held(search.table) == search.max_rows) {
      close_pass(search, entry);
      open_pass(search, entry);
    }
    search.found.row_of_entry[entry] = row_of(search, entry, hash_of(search, entry, num_entries));
  }
}

}  // namespace

std::vector<RowHash> hash_rows(const void* rows, Index row_bytes, int count, int threads) {
  EntryHashes hashes;
  hash_entries({static_cast<const char*>(rows), row_bytes}, 0, count, threads, hashes);
  return std::move(hashes.hash);
}

std::vector<EqualRows> find_equal_hashes(std::span<const RowHash> words,
                                         std::span<const RowHash> rows) {
  std::vector<int> slot(std::bit_ceil(2 * rows.size() + 1), 0);  // as in RowTable
  for (int r = 0; r < std::ssize(rows); ++r) slot[free_slot(slot, rows[r])] = r + 1;
  const std::size_t mask = slot.size() - 1;
  std::vector<EqualRows> found;
  for (int v = 0; v < std::ssize(words); ++v) {
    for (std::size_t at = words[v] & mask; slot[at] != 0; at = (at + 1) & mask) {
      const int row = slot[at] - 1;
      if (rows[row] == words[v]) found.push_back({.word = v, .row = row});
    }
  }
  return found;
}

DistinctRows find_distinct_rows(const void* rows, Index row_bytes, const int* start, int num_docs,
                                int max_rows, int threads, int max_docs) {
  const int num_entries = start[num_docs];
  Search search{.rows = {static_cast<const char*>(rows), row_bytes},
                .start = start,
                .max_rows = max_rows,
                .max_docs = max_docs,
                .threads = threads};
  search.found.row_of_entry.assign(Index{num_entries} + row_padding, 0);
  for (int doc = 0; doc < num_docs; ++doc) {
    const bool go_on = doc > 0 && has_room(search, doc);
    if (doc > 0 && !go_on) close_section(search, doc);
    if (!go_on) open_section(search, doc);
    add_document(search, doc, num_entries);
  }
  if (num_docs > 0) close_section(search, num_docs);
  return std::move(search.found);
}

int largest_pass(const DistinctRows& distinct, int first_pass, int last_pass) {
  int rows = 0;
  for (int p = first_pass; p < last_pass; ++p) {
    rows = std::max(rows, distinct.passes[p].last_row - distinct.passes[p].first_row);
  }
  return rows;
}

void order_rows(const int* key, DistinctRows& distinct) {
  std::vector<int> place;  // per row of a pass, its new number
  for (const RowPass& pass : distinct.passes) {
    const auto rows = distinct.entry_of_row.begin();
    std::vector<int> entries(rows + pass.first_row, rows + pass.last_row);
    std::sort(entries.begin(), entries.end(), [key](int a, int b) { return key[a] < key[b]; });
    place.resize(entries.size());
    int r = 0;
    for (const int entry : entries) place[distinct.row_of_entry[entry]] = r++;
    std::copy(entries.begin(), entries.end(), rows + pass.first_row);
    for (int e = pass.first_entry; e < pass.last_entry; ++e) {
      int& row = distinct.row_of_entry[e];
      row = place[row];
    }
  }
}

}  // namespace talvik::internal
