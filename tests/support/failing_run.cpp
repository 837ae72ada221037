// Runs that must fail: the tests start this program, with the failure's name as its argument, under
// the launcher and look at its output and exit status.
#include <cstring>
#include <iostream>
#include <vector>

#include "support/world.hpp"
#include "talvik.hpp"

using namespace talvik;

namespace {

test::World world = test::random_world({});

int split_resident(const char* output_file) {
  float* D = nullptr;
  return rwmd2_parallel(50, world.embeddings.data(), 5, 3, 0, false, world.resident,
                        world.resident_labels, 12, test::count_entries(world.resident),
                        world.queries, world.query_labels, 9, test::count_entries(world.queries),
                        &D, true, output_file, false);
}

int scale_out(const char* output_file) {
  std::vector<float> D_max(9 * 12);
  return rwmd2_scaleout_wrapper(
      50, world.embeddings.data(), 5, 3, 0, false, world.resident, world.resident_labels, 12,
      test::count_entries(world.resident), world.queries, world.query_labels, 9,
      test::count_entries(world.queries), D_max.data(), true, output_file, false);
}

// Process 0 is said to hold 2^30 documents, so that the matrix is larger than any address space.
int huge_matrix() {
  constexpr int num_docs = 1 << 30, num_queries = 1 << 17;
  load_balancing(world.resident, 12, 1);
  for (int p = 0; p < num_procs; ++p) {
    grp_start[p] = p == 0 ? 0 : num_docs;
    grp_length[p] = p == 0 ? num_docs : 0;
  }
  float* D = nullptr;
  return rwmd2_parallel_query(world.embeddings.data(), 5, 3, 0, false, num_docs, {},
                              DocumentSet(num_queries), {}, num_queries, 0, &D, false, nullptr,
                              false);
}

int ground_distances() {
  float ground = 0;  // of a single word
  float* D = nullptr;
  return remd2_twoway_ground(1, &ground, 1, 0, {{{1, 1.f}}}, {1}, {{{0, 1.f}}}, {1}, &D, false,
                             nullptr, false);
}

int too_long_lists() {
  load_balancing(world.resident, 12, test::count_entries(world.resident));
  std::vector<float> distances(static_cast<size_t>(grp_length[myid]), 1), val(13);
  std::vector<int> ind(13);
  sort_cpu_parallel(1, grp_length[myid], 13, distances.data(), ind.data(), val.data());
  return 0;
}

int run(const char* failure) {
  const auto is = [&](const char* name) { return std::strcmp(failure, name) == 0; };
  if (is("missing folder")) return split_resident("/nonexistent/out.csv");
  if (is("no path")) return split_resident(nullptr);
  if (is("missing folder, scale-out")) return scale_out("/nonexistent/out.csv");
  if (is("full disk")) return split_resident("/dev/full");
  if (is("huge matrix")) return huge_matrix();
  if (is("too long lists")) return too_long_lists();
  if (is("foreign split")) {
    load_balancing(world.queries, 9, test::count_entries(world.queries));
    return split_resident("/dev/null");
  }
  if (is("unknown word")) {
    for (Document& doc : world.resident) doc[0].first = 50;
    return split_resident("/dev/null");
  }
  if (is("unknown query word")) {
    world.queries.back().back().first = 51;
    return split_resident("/dev/null");
  }
  if (is("missing labels")) {
    world.resident_labels.pop_back();
    return split_resident("/dev/null");
  }
  if (is("unknown word, ground distances")) return ground_distances();
  std::cout << "No failure of this name: " << failure << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
  if (argc > 1) run(argv[1]);
  std::cout << "The run went on" << std::endl;
  barrier_mpi();
  finalize_mpi();
  return 0;
}
