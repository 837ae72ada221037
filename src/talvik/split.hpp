// The split of a collection into contiguous groups of documents: a pure function, so that a host
// program can ask for a split without making it.  The split that is made, as an object.
#ifndef TALVIK_TALVIK_SPLIT_HPP
#define TALVIK_TALVIK_SPLIT_HPP

#include <memory>
#include <vector>

#include "talvik.hpp"

namespace talvik::internal {

struct DocumentGroup {
  int start;        ///< first document of the group
  int length;       ///< documents of the group
  int data_start;   ///< entries of all groups before it
  int data_length;  ///< entries of the group
};

/// A group that reaches this multiple of the target gives its last document back.
inline constexpr double overfull = 1.25;

/// Groups of about entry_count / num_groups entries, as load_balancing makes them.  A group takes
/// documents until it reaches that target.  If its last document makes it overfull, and is not its
/// only one, the group gives it back.  The last group takes all remaining documents.
///   sizes 4 10 2 4 1, entry_count 21, 3 groups: target 7, {4} {10} {2 4 1}
/// @param doc_count    documents of docs
/// @param entry_count  entries of docs, which an int holds
/// @param num_groups   at least 1
inline std::vector<DocumentGroup> split_documents(const DocumentSet& docs, int doc_count,
                                                  int entry_count, int num_groups) {
  const int target = entry_count / num_groups;
  const auto entries_of = [&](int d) { return static_cast<int>(docs[d].size()); };
  std::vector<DocumentGroup> groups;
  int first = 0, entries_before = 0;
  for (int g = 0; g < num_groups; ++g) {
    int end = first, entries = 0;
    if (target > 0) {
      while (entries < target && end < doc_count) entries += entries_of(end++);
      if (entries >= overfull * target && end > first + 1) entries -= entries_of(--end);
    }
    if (g == num_groups - 1) {
      while (end < doc_count) entries += entries_of(end++);
    }
    groups.push_back({first, end - first, entries_before, entries});
    first = end;
    entries_before += entries;
  }
  return groups;
}

/// The arrays of the distribution info, all null if there is none.
struct DistributionInfo {
  std::unique_ptr<int[]> start, length, data_start, data_length;
};

/// Afterwards there is no distribution info.
DistributionInfo take_distribution_info();

/// Replaces the distribution info.
void set_distribution_info(DistributionInfo info);

}  // namespace talvik::internal

#endif
