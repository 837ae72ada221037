// The CPU engine against the plain way and against the dense product alone, on a generated world,
// in one process: the table of ratios at the end is the result.
#include <benchmark/benchmark.h>
#include <cblas.h>
#include <omp.h>
#include <sys/resource.h>  // getrusage

#include <cstdio>
#include <cstdlib>
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

std::vector<float>& result_block() {
  static std::vector<float> Z(static_cast<size_t>(text_world().shape.num_resident) *
                              static_cast<size_t>(text_world().shape.num_queries));
  return Z;
}

void load_resident(const ZipfWorld& world) {
  ZipfWorld& w = const_cast<ZipfWorld&>(world);  // the interface takes plain pointers; only read
  copy_raw_data_cpu(static_cast<int>(w.ind.size()), w.ind.data(), w.weight.data(),
                    w.shape.num_resident, w.start.data());
}

// Loading the batch counts: the distinct rows are found there.
void run_batch(const ZipfWorld& world, int steps) {
  ZipfWorld& w = const_cast<ZipfWorld&>(world);
  copy_vectors2_cpu(static_cast<int>(w.ind2.size()), w.shape.vec_size, w.X2.data(),
                    w.weight2.data(), w.shape.num_queries, w.start2.data());
  const bool precompute = false;
  if (steps <= 1) {
    ed_min_vocab_cpu(result_block().data(), steps, precompute);
  } else {
    ed_min_vocab_cpu_multi(result_block().data(), steps, precompute);
  }
  remove_vectors2_cpu();
}

void engine(benchmark::State& state, int steps) {
  ZipfWorld& world = const_cast<ZipfWorld&>(text_world());
  load_resident(world);
  copy_vocabulary_cpu(world.comp_voc_size, world.shape.vec_size, world.comp_embeddings.data());
  for (auto _ : state) run_batch(world, steps);
  remove_vocabulary_cpu();
  remove_raw_data_cpu();
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
  add("engine", engine, 0);
  add("dense_product", dense)->Repetitions(3);
  for (const int steps : {1, 3, 7}) {
    add(("engine_delta_" + std::to_string(steps)).c_str(), engine, steps);
  }
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
  return 0;
}
