// Scores neighbour lists against class labels.
#include <iostream>
#include <locale>
#include <numeric>  // partial_sum
#include <sstream>
#include <vector>

#include "internal/index.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

using internal::Index;

/// The cut-offs 1, 2, 4, ... below the number of scored neighbours, and that number itself.
///   scored = 8: 1 2 4 8      scored = 5: 1 2 4 5      scored = 1: 1
std::vector<int> cut_offs_of(int scored) {
  std::vector<int> cut_offs;
  for (long long c = 1; c < scored; c *= 2) cut_offs.push_back(static_cast<int>(c));
  cut_offs.push_back(scored);
  return cut_offs;
}

/// Counts the neighbours of one row that share the label, each at the first level that includes it.
void count_hits(const int* neighbours, unsigned long label, const unsigned long* resident_labels,
                const std::vector<int>& cut_offs, std::vector<int>& hits) {
  int j = 0;
  for (Index level = 0; level < std::ssize(cut_offs); ++level) {
    for (; j < cut_offs[level]; ++j) hits[level] += resident_labels[neighbours[j]] == label;
  }
}

void print_report(const std::vector<int>& cut_offs, const std::vector<float>& precisions) {
  std::ostringstream report;  // a stream by itself: the format settings of std::cout stay
  report.imbue(std::locale::classic());
  report << "Averaged accuracy results\n" << std::fixed;
  for (Index level = 0; level < std::ssize(cut_offs); ++level) {
    report << cut_offs[level] << ' ' << precisions[level] << '\n';
  }
  std::cout << report.str() << std::endl;
}

}  // namespace

std::vector<float> evaluate_topk_precision(int num_queries, int k, int* neighbours,
                                           unsigned long* query_labels,
                                           unsigned long* resident_labels, bool skip_first,
                                           bool print_results) {
  const int skipped = skip_first ? 1 : 0;
  const int scored = k - skipped;
  if (scored <= 0) return {};

  const int rows = grp_length != nullptr ? grp_length[myid] : num_queries;
  const int first_query = grp_start != nullptr ? grp_start[myid] : 0;
  const std::vector<int> cut_offs = cut_offs_of(scored);
  std::vector<int> hits(cut_offs.size(), 0);
  for (int r = 0; r < rows; ++r) {
    count_hits(neighbours + internal::elements(r, k) + skipped, query_labels[first_query + r],
               resident_labels, cut_offs, hits);
  }
  std::partial_sum(hits.begin(), hits.end(), hits.begin());
  std::vector<int> total(hits.size());
  reduce_mpi_sum_int(hits.data(), total.data(), static_cast<int>(hits.size()));

  std::vector<float> precisions;
  for (Index level = 0; level < std::ssize(cut_offs); ++level) {
    const double compared = static_cast<double>(num_queries) * cut_offs[level];
    // 0 without queries, rather than a division by zero.
    precisions.push_back(compared > 0 ? static_cast<float>(total[level] / compared) : 0.0f);
  }
  if (print_results && myid == 0) print_report(cut_offs, precisions);
  return precisions;
}

}  // namespace talvik
