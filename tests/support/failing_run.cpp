// Runs that must fail: the tests start this program, with the failure's name as its argument, under
// the launcher and look at its output and exit status.
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "support/world.hpp"
#include "talvik.hpp"

using namespace talvik;

namespace {

test::World world = test::random_world({});

void split_resident(const char* output_file) {
  float* D = nullptr;
  rwmd2_parallel(50, world.embeddings.data(), 5, 3, 0, false, world.resident, world.resident_labels,
                 12, test::count_entries(world.resident), world.queries, world.query_labels, 9,
                 test::count_entries(world.queries), &D, true, output_file, false);
}

void scale_out(const char* output_file) {
  std::vector<float> D_max(9 * 12);
  rwmd2_scaleout_wrapper(50, world.embeddings.data(), 5, 3, 0, false, world.resident,
                         world.resident_labels, 12, test::count_entries(world.resident),
                         world.queries, world.query_labels, 9, test::count_entries(world.queries),
                         D_max.data(), true, output_file, false);
}

// Process 0 is said to hold 2^30 documents, so that the matrix is larger than any address space.
void huge_matrix() {
  constexpr int num_docs = 1 << 30, num_queries = 1 << 17;
  load_balancing(world.resident, 12, 1);
  for (int p = 0; p < num_procs; ++p) {
    grp_start[p] = p == 0 ? 0 : num_docs;
    grp_length[p] = p == 0 ? num_docs : 0;
  }
  float* D = nullptr;
  rwmd2_parallel_query(world.embeddings.data(), 5, 3, 0, false, num_docs, {},
                       DocumentSet(num_queries), {}, num_queries, 0, &D, false, nullptr, false);
}

void ground_distances() {
  float ground = 0;  // of a single word
  float* D = nullptr;
  remd2_twoway_ground(1, &ground, 1, 0, {{{1, 1.f}}}, {1}, {{{0, 1.f}}}, {1}, &D, false, nullptr,
                      false);
}

void too_long_lists() {
  load_balancing(world.resident, 12, test::count_entries(world.resident));
  std::vector<float> distances(static_cast<size_t>(grp_length[myid]), 1), val(13);
  std::vector<int> ind(13);
  sort_cpu_parallel(1, grp_length[myid], 13, distances.data(), ind.data(), val.data());
}

const std::map<std::string, std::function<void()>> failures = {
    {"missing folder", [] { split_resident("/nonexistent/out.csv"); }},
    {"no path", [] { split_resident(nullptr); }},
    {"missing folder, scale-out", [] { scale_out("/nonexistent/out.csv"); }},
    {"full disk", [] { split_resident("/dev/full"); }},
    {"huge matrix", huge_matrix},
    {"too long lists", too_long_lists},
    {"foreign split",
     [] {
       load_balancing(world.queries, 9, test::count_entries(world.queries));
       split_resident("/dev/null");
     }},
    {"unknown word", [] { world.resident[0][0].first = 50, split_resident("/dev/null"); }},
    {"unknown query word",
     [] { world.queries.back().back().first = 51, split_resident("/dev/null"); }},
    {"missing labels", [] { world.resident_labels.pop_back(), split_resident("/dev/null"); }},
    {"unknown word, ground distances", ground_distances}};

}  // namespace

int main(int argc, char** argv) {
  init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
  if (argc > 1) failures.at(argv[1])();
  std::cout << "The run went on" << std::endl;
  barrier_mpi();
  finalize_mpi();
  return 0;
}
