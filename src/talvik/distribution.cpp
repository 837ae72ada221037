// The split of a collection into contiguous groups of documents, one per process.
#include <memory>
#include <string>

#include "internal/failure.hpp"
#include "talvik.hpp"
#include "talvik/collections.hpp"

namespace talvik {

int* grp_start = nullptr;
int* grp_length = nullptr;
int* grp_data_start = nullptr;
int* grp_data_length = nullptr;

namespace {

// A group that reaches this multiple of the target gives its last document back.
constexpr double overfull = 1.25;

struct Group {
  int end;      // one past its last document
  int entries;  // of its documents
};

// The documents from `first` on that a group takes: none with a target of 0.
Group fill_group(const DocumentSet& docs, int doc_count, int first, int target) {
  if (first >= doc_count || target < 1) return {first, 0};
  const auto entries_of = [&](int d) { return static_cast<int>(docs[size_t(d)].size()); };
  int end = first + 1;
  int entries = entries_of(first);
  while (entries < target && end < doc_count) entries += entries_of(end++);
  if (entries >= overfull * target && end > first + 1) entries -= entries_of(--end);
  return {end, entries};
}

}  // namespace

int load_balancing(const DocumentSet& docs, int doc_count, int entry_count) {
  if (num_procs < 1) internal::fail("load_balancing: the process group is not set up");
  internal::count_entries(docs, 0, doc_count);  // ends the process where ints do not reach

  const auto groups = static_cast<size_t>(num_procs);
  auto start = std::make_unique<int[]>(groups), length = std::make_unique<int[]>(groups);
  auto data_start = std::make_unique<int[]>(groups), data_length = std::make_unique<int[]>(groups);
  const int target = entry_count / num_procs;
  int first = 0, entries_before = 0;
  for (int p = 0; p < num_procs; ++p) {
    Group group = fill_group(docs, doc_count, first, target);
    if (p == num_procs - 1) {  // what is left over
      group.entries += internal::count_entries(docs, group.end, doc_count - group.end);
      group.end = doc_count;
    }
    start[p] = first;
    length[p] = group.end - first;
    data_start[p] = entries_before;
    data_length[p] = group.entries;
    first = group.end;
    entries_before += group.entries;
  }
  grp_start = start.release();
  grp_length = length.release();
  grp_data_start = data_start.release();
  grp_data_length = data_length.release();
  return 0;
}

void cleanup_distribution_info() {
  for (int** array : {&grp_start, &grp_length, &grp_data_start, &grp_data_length}) {
    delete[] * array;
    *array = nullptr;
  }
}

}  // namespace talvik
