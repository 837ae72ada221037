// The distribution info: how a collection is split over the processes.
#include <memory>

#include "internal/failure.hpp"
#include "talvik.hpp"
#include "talvik/collections.hpp"
#include "talvik/split.hpp"

namespace talvik {

int* grp_start = nullptr;
int* grp_length = nullptr;
int* grp_data_start = nullptr;
int* grp_data_length = nullptr;

int load_balancing(const DocumentSet& docs, int doc_count, int entry_count) {
  if (num_procs < 1) internal::fail("load_balancing: the process group is not set up");
  internal::count_entries(docs, 0, doc_count);  // ends the process if ints do not reach

  auto start = std::make_unique<int[]>(num_procs), length = std::make_unique<int[]>(num_procs);
  auto data_start = std::make_unique<int[]>(num_procs);
  auto data_length = std::make_unique<int[]>(num_procs);
  int p = 0;
  for (const auto& group : internal::split_documents(docs, doc_count, entry_count, num_procs)) {
    start[p] = group.start;
    length[p] = group.length;
    data_start[p] = group.data_start;
    data_length[p] = group.data_length;
    ++p;
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
