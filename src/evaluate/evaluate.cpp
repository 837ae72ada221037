// Scores neighbour lists against class labels.
#include <iostream>
#include <locale>
#include <numeric>  // partial_sum
#include <sstream>
#include <vector>

#include "talvik.hpp"

namespace talvik {
namespace {

/// Neighbours counted at each level: 1, 2, 4, ... and last all that are scored.
///   scored = 8: 1 2 4 8      scored = 5: 1 2 4 5      scored = 1: 1
std::vector<int> cut_offs_of(int scored) {
  std::vector<int> cut_offs;
  for (long long c = 1; c < scored; c *= 2) cut_offs.push_back(static_cast<int>(c));
  cut_offs.push_back(scored);
  return cut_offs;
}

/// Adds the hits of one row to the level in which they first count.
void count_hits(const int* neighbours, unsigned long label, const unsigned long* resident_labels,
                const std::vector<int>& cut_offs, std::vector<int>& hits) {
  int j = 0;
  for (size_t level = 0; level < cut_offs.size(); ++level) {
    for (; j < cut_offs[level]; ++j) hits[level] += resident_labels[neighbours[j]] == label;
  }
}

void print_report(const std::vector<int>& cut_offs, const std::vector<float>& precisions) {
  std::ostringstream report;  // its own stream: the format settings of std::cout stay as they are
  report.imbue(std::locale::classic());
  report << "Averaged accuracy results\n" << std::fixed;
  for (size_t level = 0; level < cut_offs.size(); ++level) {
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
    count_hits(neighbours + static_cast<size_t>(r) * static_cast<size_t>(k) + skipped,
               query_labels[first_query + r], resident_labels, cut_offs, hits);
  }
  std::partial_sum(hits.begin(), hits.end(), hits.begin());
  std::vector<int> total(hits.size());
  reduce_mpi_sum_int(hits.data(), total.data(), static_cast<int>(hits.size()));

  std::vector<float> precisions;
  for (size_t level = 0; level < cut_offs.size(); ++level) {
    const double compared = static_cast<double>(num_queries) * cut_offs[level];
    // Without queries there is nothing to divide by.
    precisions.push_back(compared > 0 ? static_cast<float>(total[level] / compared) : 0.0f);
  }
  if (print_results && myid == 0) print_report(cut_offs, precisions);
  return precisions;
}

}  // namespace talvik
