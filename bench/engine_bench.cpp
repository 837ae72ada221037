// The CPU engine against the plain way and against the dense product alone, on a generated world,
// in one process: the table of ratios at the end is the result.
#include <benchmark/benchmark.h>
#include <cblas.h>
#include <omp.h>
#include <sys/resource.h>  // getrusage

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "plain_way.hpp"
#include "ratio_reporter.hpp"
#include "talvik.hpp"
#include "zipf_world.hpp"

namespace talvik::bench {
namespace {

constexpr long long plain_block_floats = 1ll << 30;  // 4 GiB, as the plain way has always had
constexpr long long dense_block_floats = 1ll << 28;  // 1 GiB

const ZipfWorld& text_world() {
  static const ZipfWorld world = make_zipf_world(ZipfShape{});
  return world;
}

// A vocabulary whose ground distances fit any machine: 1.6 GB.
const ZipfWorld& small_world() {
  static const ZipfWorld world = make_zipf_world(ZipfShape{.voc_size = 20000});
  return world;
}

std::vector<float>& result_block() {
  static std::vector<float> Z(static_cast<size_t>(text_world().shape.num_resident) *
                              static_cast<size_t>(text_world().shape.num_queries));
  return Z;
}

// The interface takes plain pointers; what stands behind them is only read.
template <class T>
T* plain_pointer(const std::vector<T>& values) {
  return const_cast<T*>(values.data());
}

void load_resident(const ZipfWorld& world, const std::vector<int>& ind) {
  copy_raw_data_cpu(static_cast<int>(ind.size()), plain_pointer(ind), plain_pointer(world.weight),
                    world.shape.num_resident, plain_pointer(world.start));
}

void compute_block(int steps, bool precompute) {
  if (steps <= 1) {
    ed_min_vocab_cpu(result_block().data(), steps, precompute);
  } else {
    ed_min_vocab_cpu_multi(result_block().data(), steps, precompute);
  }
}

// A figure of /proc/self/status in MiB.
double status_mib(const char* name) {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    double kib = 0;
    if (word == name && status >> kib) return kib / 1024;
  }
  return 0;
}

// Peak resident memory since it was made, beyond what there was then: the batch's distinct rows and
// all that the computation works with.
class PeakMemory {
 public:
  PeakMemory() {
    std::ofstream("/proc/self/clear_refs") << 5;  // the peak starts again
    before_mib_ = status_mib("VmRSS:");
  }
  double mib() const { return status_mib("VmHWM:") - before_mib_; }

 private:
  double before_mib_ = 0;
};

// Loading the batch counts: the distinct rows are found there.
void engine(benchmark::State& state, const ZipfWorld& (*make)(), int steps) {
  const ZipfWorld& world = make();
  load_resident(world, world.ind);
  copy_vocabulary_cpu(world.comp_voc_size, world.shape.vec_size,
                      plain_pointer(world.comp_embeddings));
  std::fill(result_block().begin(), result_block().end(), 0.0f);
  const PeakMemory peak;
  for (auto _ : state) {
    copy_vectors2_cpu(static_cast<int>(world.ind2.size()), world.shape.vec_size,
                      plain_pointer(world.X2), plain_pointer(world.weight2),
                      world.shape.num_queries, plain_pointer(world.start2));
    const bool precompute = false;
    compute_block(steps, precompute);
    remove_vectors2_cpu();
  }
  state.counters["peak_MiB"] = peak.mib();
  remove_vocabulary_cpu();
  remove_raw_data_cpu();
}

// The matrix is given: it covers the whole vocabulary, so that both sides index it.
void ground_engine(benchmark::State& state, int steps) {
  const ZipfWorld& world = small_world();
  std::vector<int> ind;
  for (const Document& doc : world.resident) {
    for (const auto& [word, weight] : doc) ind.push_back(static_cast<int>(word));
  }
  const size_t voc_size = static_cast<size_t>(world.shape.voc_size);
  const std::unique_ptr<float[]> D(new float[voc_size * voc_size]);
  copy_vocabulary_cpu(world.shape.voc_size, world.shape.vec_size, plain_pointer(world.embeddings));
  compute_ground_distances_cpu(D.get());
  remove_vocabulary_cpu();
  load_resident(world, ind);
  copy_ground_distances_cpu(world.shape.voc_size, D.get());
  for (auto _ : state) {
    copy_raw_data2_cpu(static_cast<int>(world.ind2.size()), plain_pointer(world.ind2),
                       plain_pointer(world.weight2), world.shape.num_queries,
                       plain_pointer(world.start2));
    const bool precompute = true;
    compute_block(steps, precompute);
    remove_raw_data2_cpu();
  }
  remove_ground_distances_cpu();
  remove_raw_data_cpu();
}

// A whole one-way run that returns the matrix.
void run_one_way(const DocumentSet& resident, const DocumentSet& queries) {
  const ZipfWorld& world = text_world();
  const auto entries_of = [](const DocumentSet& docs) {
    int entries = 0;
    for (const Document& doc : docs) entries += static_cast<int>(doc.size());
    return entries;
  };
  const int k = 1, steps = 0;
  const bool precompute = false, compute_topk = false, use_gpu = false;
  float* D = nullptr;
  cleanup_distribution_info();
  rwmd2_parallel(world.shape.voc_size, plain_pointer(world.embeddings), world.shape.vec_size, k,
                 steps, precompute, resident, {}, static_cast<int>(resident.size()),
                 entries_of(resident), queries, {}, static_cast<int>(queries.size()),
                 entries_of(queries), &D, compute_topk, nullptr, use_gpu);
  std::free(D);
}

void one_way_run(benchmark::State& state) {
  for (auto _ : state) run_one_way(text_world().resident, text_world().queries);
}

// Both directions, one after the other: what a two-way run has to compute.
void both_ways_run(benchmark::State& state) {
  for (auto _ : state) {
    run_one_way(text_world().resident, text_world().queries);
    run_one_way(text_world().queries, text_world().resident);
  }
}

void two_way_run(benchmark::State& state) {
  const ZipfWorld& world = text_world();
  const int k = 1, steps = 0;
  const bool compute_topk = false, use_gpu = false;
  for (auto _ : state) {
    float* D = nullptr;
    rwmd2_twoway_wrapper(world.shape.voc_size, plain_pointer(world.embeddings),
                         world.shape.vec_size, k, steps, world.resident, {}, world.queries, {}, &D,
                         compute_topk, nullptr, use_gpu);
    std::free(D);
  }
}

void plain(benchmark::State& state, DenseKernel kernel) {
  for (auto _ : state) {
    plain_distance_block(text_world(), kernel, plain_block_floats, result_block().data());
  }
}

void dense(benchmark::State& state) {
  const std::unique_ptr<float[]> Y(new float[static_cast<size_t>(dense_block_floats)]);
  for (auto _ : state) dense_product(text_world(), dense_block_floats, Y.get());
}

void print_context() {
  const ZipfWorld& world = text_world();
  std::printf(
      "world: %d resident and %d query documents, %zu and %zu entries, vocabulary %d, %d "
      "dimensions\n"
      "threads: %d   dense products: %s\n",
      world.shape.num_resident, world.shape.num_queries, world.ind.size(), world.ind2.size(),
      world.comp_voc_size, world.shape.vec_size, num_cpu_threads, openblas_get_config());
}

}  // namespace
}  // namespace talvik::bench

int main(int argc, char** argv) {
  using namespace talvik::bench;
  talvik::num_cpu_threads = omp_get_num_procs();
  omp_set_num_threads(talvik::num_cpu_threads);
  print_context();
  const auto add = [](const char* name, auto function, auto... arguments) {
    return benchmark::RegisterBenchmark(name, function, arguments...)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MeasureProcessCPUTime()
        ->Iterations(1)
        ->Repetitions(5);
  };
  add("engine", engine, text_world, 0);
  add("dense_product", dense)->Repetitions(3);
  for (const int steps : {1, 3, 7}) {
    add(("engine_delta_" + std::to_string(steps)).c_str(), engine, text_world, steps);
    add(("small_vectors_delta_" + std::to_string(steps)).c_str(), engine, small_world, steps);
    add(("small_ground_delta_" + std::to_string(steps)).c_str(), ground_engine, steps);
  }
  add("small_vectors", engine, small_world, 0);
  add("small_ground", ground_engine, 0);
  add("one_way_run", one_way_run)->Repetitions(3);
  add("both_ways_run", both_ways_run)->Repetitions(3);
  add("two_way_run", two_way_run)->Repetitions(3);
  add("plain_openblas", plain, DenseKernel::openblas)->Repetitions(2);
  add("plain_eigen", plain, DenseKernel::eigen)->Repetitions(1);
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\nratios of medians\n");
  reporter.print_ratio("engine", "dense_product", 0.5);
  reporter.print_ratio("engine", "plain_eigen", 0.15);
  reporter.print_ratio("engine", "plain_openblas");
  reporter.print_ratio("engine_delta_1", "engine", 1.5);
  reporter.print_ratio("engine_delta_3", "engine", 2.5);
  reporter.print_ratio("engine_delta_7", "engine", 5);
  reporter.print_ratio("small_ground", "small_vectors", 0.5);
  for (const std::string steps : {"1", "3", "7"}) {
    reporter.print_ratio("small_ground_delta_" + steps, "small_vectors_delta_" + steps, 0.5);
  }
  reporter.print_ratio("two_way_run", "one_way_run", 2.2);
  reporter.print_ratio("two_way_run", "both_ways_run");
  talvik::finalize_mpi();
  return 0;
}
