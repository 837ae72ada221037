// The distribution info: how a collection is split over the processes.
#include <memory>
#include <utility>

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

  internal::DistributionInfo info{.start = std::make_unique<int[]>(num_procs),
                                  .length = std::make_unique<int[]>(num_procs),
                                  .data_start = std::make_unique<int[]>(num_procs),
                                  .data_length = std::make_unique<int[]>(num_procs)};
  int p = 0;
  for (const auto& group : internal::split_documents(docs, doc_count, entry_count, num_procs)) {
    info.start[p] = group.start;
    info.length[p] = group.length;
    info.data_start[p] = group.data_start;
    info.data_length[p] = group.data_length;
    ++p;
  }
  internal::set_distribution_info(std::move(info));
  return 0;
}

void cleanup_distribution_info() { internal::take_distribution_info(); }

namespace internal {

DistributionInfo take_distribution_info() {
  return {.start = std::unique_ptr<int[]>(std::exchange(grp_start, nullptr)),
          .length = std::unique_ptr<int[]>(std::exchange(grp_length, nullptr)),
          .data_start = std::unique_ptr<int[]>(std::exchange(grp_data_start, nullptr)),
          .data_length = std::unique_ptr<int[]>(std::exchange(grp_data_length, nullptr))};
}

void set_distribution_info(DistributionInfo info) {
  cleanup_distribution_info();
  grp_start = info.start.release();
  grp_length = info.length.release();
  grp_data_start = info.data_start.release();
  grp_data_length = info.data_length.release();
}

}  // namespace internal

}  // namespace talvik
