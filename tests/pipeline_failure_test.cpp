// A run that cannot go on prints its line and ends all processes with status 1; none waits for the
// others.  This program starts itself under the launcher, with the failure's number as its
// argument.
#include <gtest/gtest.h>
#include <sys/wait.h>  // WIFEXITED

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "support/world.hpp"
#include "talvik.hpp"

static int buffers_left = -1;  // until one fails; negative: none does

// The engine's working buffers come from here.  Weak: a sanitizer may keep its own.
[[gnu::weak]] void* operator new[](size_t bytes, const std::nothrow_t&) noexcept try {
  return buffers_left-- == 0 ? nullptr : operator new[](bytes);
} catch (const std::bad_alloc&) {
  return nullptr;
}

namespace talvik {
namespace {

test::World world = test::random_world({});
const int num_words1 = test::count_entries(world.resident);
const int num_words2 = test::count_entries(world.queries);
std::string self;

void split_resident(int steps = 0, const char* output_file = "/dev/null") {
  float* D = nullptr;
  rwmd2_parallel(50, world.embeddings.data(), 5, 3, steps, false, world.resident,
                 world.resident_labels, 12, num_words1, world.queries, world.query_labels, 9,
                 num_words2, &D, true, output_file, false);
}

void scale_out(const char* output_file, bool compute_topk = true) {
  std::vector<float> D_max(9 * 12);
  rwmd2_scaleout_wrapper(50, world.embeddings.data(), 5, 3, 0, false, world.resident,
                         world.resident_labels, 12, num_words1, world.queries, world.query_labels,
                         9, num_words2, D_max.data(), compute_topk, output_file, false);
}

// Process 0 is said to hold 2^30 documents, so that the matrix is larger than any address space.
void ask_for_a_huge_matrix() {
  constexpr int num_docs = 1 << 30, num_queries = 1 << 17;
  load_balancing(world.resident, 12, 1);
  grp_length[0] = grp_start[1] = num_docs;
  grp_length[1] = 0;
  float* D = nullptr;
  rwmd2_parallel_query(world.embeddings.data(), 5, 3, 0, false, num_docs, {},
                       DocumentSet(num_queries), {}, num_queries, 0, &D, false, nullptr, false);
}

void ask_for_too_long_lists() {
  load_balancing(world.resident, 12, num_words1);
  std::vector<float> distances(grp_length[myid], 1), val(13);
  std::vector<int> ind(13);
  sort_cpu_parallel(1, grp_length[myid], 13, distances.data(), ind.data(), val.data());
}

struct Failure {
  int processes;  // 2: one process fails while the other may be waiting for it
  std::string line;
  void (*run)();
};

const std::vector<Failure> failures{
    {2, "Failed to open result file: /nonexistent/out.csv",
     [] { split_resident(0, "/nonexistent/out.csv"); }},
    {2, "Failed to open result file: /nonexistent/out.csv.thread0-0",
     [] { scale_out("/nonexistent/out.csv"); }},
    {1, "Failed to open result file: ", [] { scale_out(nullptr); }},
    {2, "Failed to write result file: /dev/full", [] { split_resident(0, "/dev/full"); }},
    {1, "Failed to allocate memory for weight_delta", [] { buffers_left = 4, split_resident(1); }},
    {1, "Failed to allocate memory for X2t: " + std::to_string(5 * num_words2),
     [] { buffers_left = 6, split_resident(1); }},
    {1, "Failed to allocate memory for weights_min_k", [] { buffers_left = 2, split_resident(2); }},
    {2, "Failed to allocate memory for D_trans: 562949953421312", ask_for_a_huge_matrix},
    {2, "sort_cpu_parallel: k is 13, but all processes together hold 12 resident documents",
     ask_for_too_long_lists},
    {1,
     "The distribution info splits 9 documents, not the 12 of this run: call "
     "cleanup_distribution_info first",
     [] {
       load_balancing(world.queries, 9, num_words2);
       split_resident();
     }},
    {1, "A document holds word 50, but the vocabulary has 50 words",
     [] { world.resident[0][0].first = 50, split_resident(); }},
    {1, "A document holds word 4294967295, but the vocabulary has 50 words",
     [] { world.resident[1][0].first = -1u, split_resident(); }},
    // In the second process's part of the queries.
    {2, "A document holds word 50, but the vocabulary has 50 words",
     [] { world.queries.back().back().first = 50, scale_out(nullptr, false); }},
    // The attached matrix decides, whatever vocabulary is announced.
    {1, "A document holds word 1, but the vocabulary has 1 words",
     [] {
       float ground = 0, *D = nullptr;
       copy_ground_distances_cpu(1, &ground);
       rwmd2_parallel_init(2, nullptr, 0, true, {{{0, 1.f}}}, {1}, 1, 1, false);
       rwmd2_parallel_query(nullptr, 0, 1, 0, true, 1, {}, {{{1, 1.f}}}, {}, 1, 1, &D, false,
                            nullptr, false);
     }},
    // Process 0 alone writes lists.
    {2, "The resident collection's labels: 12 announced, 11 present",
     [] { world.resident_labels.resize(myid == 0 ? 11 : 0), split_resident(); }}};

class PipelineFailure : public testing::TestWithParam<size_t> {};

TEST_P(PipelineFailure, PrintsItsLineAndEndsTheJob) {
  const Failure& failure = failures[GetParam()];
  // The launcher tells on standard error that the job was aborted; the time limit is for a hang.
  const std::string command =
      "ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=0 timeout 60 " +
      std::string(failure.processes > 1 ? TALVIK_TEST_MPIRUN " 2 " : "") + self + " " +
      std::to_string(GetParam()) + " 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output = "\n";
  for (int c; (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  const int status = pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status << output;
  EXPECT_NE(output.find("\n" + failure.line + "\n"), std::string::npos) << output;
}

INSTANTIATE_TEST_SUITE_P(Calls, PipelineFailure, testing::Range(size_t{0}, failures.size()));

}  // namespace
}  // namespace talvik

int main(int argc, char** argv) {
  using namespace talvik;
  testing::InitGoogleTest(&argc, argv);
  self = argv[0];
  if (argc < 2) return RUN_ALL_TESTS();
  init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
  failures.at(std::stoul(argv[1])).run();
  barrier_mpi();
  finalize_mpi();
  return 0;
}
