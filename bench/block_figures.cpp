// A block of distances: the engine against the dense product alone, against the plain way, and with
// capacity steps and ground distances against itself without.
#include <algorithm>
#include <cmath>
#include <iterator>
#include <memory>
#include <stdexcept>

#include "engine_calls.hpp"
#include "figures.hpp"
#include "plain_way.hpp"
#include "worlds.hpp"

namespace talvik::bench {
namespace {

constexpr long long plain_block_floats = 1ll << 30;  // 4 GiB, as the plain way has always had
constexpr long long dense_block_floats = 1ll << 28;  // 1 GiB

// Zeros, so that no page is new to who is timed.
std::unique_ptr<float[]> new_floats(long long count) {
  return std::make_unique<float[]>(static_cast<size_t>(count));
}

constexpr int step_counts[] = {0, 1, 3, 7};

std::string with_steps(int steps) { return std::to_string(steps) + " steps"; }

// A comparison of times means something only where both sides compute the same.  Distances differ
// by rounding: of a word that occurs on both sides, the plain distance is the root of a rounding
// error.
void require_same_distances(const std::vector<float>& a, const std::vector<float>& b) {
  constexpr float most = 1e-3f;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::fabs(a[i] - b[i]) > most * std::max(b[i], 1.0f)) {
      throw std::runtime_error("Two ways give different distances at " + std::to_string(i) + ": " +
                               std::to_string(a[i]) + " and " + std::to_string(b[i]));
    }
  }
}

Contender engine_contender(const World& world, int steps, int repetitions, std::vector<float>& Z) {
  return {world.name + ", engine, " + with_steps(steps), repetitions,
          [&world, &Z, steps] { run_engine(world, steps, Z.data()); }};
}

Contender plain_contender(const World& world, DenseKernel kernel, const Options& options,
                          int repetitions, std::vector<float>& Z) {
  const std::string name = kernel == DenseKernel::eigen ? "Eigen" : "OpenBLAS";
  return {world.name + ", plain way, " + name, repetitions, [&world, &Z, kernel, &options] {
            plain_distance_block(world, kernel, options.threads, plain_block_floats, Z.data());
          }};
}

}  // namespace

void text_figures(const Options& options, Table& table) {
  const World world = make_world("text");
  table.remarks.push_back(description_of(world));
  std::vector<float> Z(block_floats_of(world));
  std::vector<Samples> times;  // the dense product, then the engine with each number of steps
  {
    const LoadedResident resident(world);
    const auto Y = new_floats(dense_block_floats);
    run_engine(world, 0, Z.data());  // the first use of everything
    std::vector<Contender> contenders{{"text, dense product", repetitions(options, 3),
                                       [&] { dense_product(world, dense_block_floats, Y.get()); }}};
    for (const int steps : step_counts) {
      contenders.push_back(
          engine_contender(world, steps, repetitions(options, steps == 0 ? 5 : 3), Z));
    }
    times = take_turns(contenders);
    run_engine(world, 0, Z.data());
  }
  const Samples &dense = times[0], &engine = times[1];
  add_ratio(table, {"text", "engine", "dense product alone", 0.28}, engine, dense);
  if (!options.quick) {
    std::vector<float> plain_Z(Z.size());
    const auto plain =
        take_turns({plain_contender(world, DenseKernel::openblas, options, 2, plain_Z),
                    plain_contender(world, DenseKernel::eigen, options, 1, plain_Z)});
    require_same_distances(Z, plain_Z);
    add_ratio(table, {"text", "engine", "plain way, Eigen as packaged", 0.06}, engine, plain[1]);
    add_ratio(table, {"text", "engine", "plain way, OpenBLAS"}, engine, plain[0]);
  }
  constexpr double targets[] = {no_target, 1.3, 2.0, 3.0};
  for (size_t i = 1; i < std::size(step_counts); ++i) {
    add_ratio(table, {"text", with_steps(step_counts[i]), "0 steps", targets[i]}, times[1 + i],
              engine);
  }
}

void distinct_figures(const Options& options, Table& table) {
  const World world = make_world("distinct");
  table.remarks.push_back(description_of(world));
  std::vector<float> Z(block_floats_of(world));
  const LoadedResident resident(world);
  const auto Y = new_floats(dense_block_floats);
  run_engine(world, 0, Z.data());
  const auto times = take_turns({engine_contender(world, 0, repetitions(options, 5), Z),
                                 {"distinct, dense product", repetitions(options, 5),
                                  [&] { dense_product(world, dense_block_floats, Y.get()); }}});
  add_ratio(table, {"distinct", "engine", "dense product alone", 1.25}, times[0], times[1]);
}

void image_figures(const Options& options, Table& table) {
  const World world = make_world("images");
  table.remarks.push_back(description_of(world));
  std::vector<float> Z(block_floats_of(world)), plain_Z(Z.size());
  const LoadedResident resident(world);
  run_engine(world, 0, Z.data());
  const int count = repetitions(options, 3);
  const auto times =
      take_turns({engine_contender(world, 0, count, Z),
                  plain_contender(world, DenseKernel::openblas, options, count, plain_Z),
                  plain_contender(world, DenseKernel::eigen, options, count, plain_Z)});
  require_same_distances(Z, plain_Z);
  add_ratio(table, {"images", "engine", "plain way, Eigen as packaged", 0.3}, times[0], times[2]);
  add_ratio(table, {"images", "engine", "plain way, OpenBLAS"}, times[0], times[1]);
}

// The matrix is given: it covers the whole vocabulary, so that both sides index it.
void ground_figures(const Options& options, Table& table) {
  const Collections collections = make_collections("small");
  const World world = world_of("small", collections);
  table.remarks.push_back(description_of(world));
  std::vector<int> ind;
  for (const Document& doc : collections.resident) {
    for (const auto& [word, weight] : doc) ind.push_back(static_cast<int>(word));
  }
  const auto D = new_floats(1ll * collections.voc_size * collections.voc_size);
  copy_vocabulary_cpu(collections.voc_size, collections.vec_size,
                      plain_pointer(collections.embeddings));
  compute_ground_distances_cpu(D.get());
  remove_vocabulary_cpu();

  std::vector<float> Z(block_floats_of(world));
  const auto run_on_ground = [&](int steps) {
    constexpr bool precompute = true;
    copy_raw_data2_cpu(static_cast<int>(world.queries.ind.size()), plain_pointer(world.queries.ind),
                       plain_pointer(world.queries.weight), world.num_queries,
                       plain_pointer(world.queries.start));
    compute_block(steps, precompute, Z.data());
    remove_raw_data2_cpu();
  };
  for (const int steps : step_counts) {
    std::vector<Samples> vectors;
    {
      const LoadedResident resident(world);
      vectors = take_turns({engine_contender(world, steps, repetitions(options, 3), Z)});
    }
    copy_raw_data_cpu(static_cast<int>(ind.size()), ind.data(),
                      plain_pointer(world.resident.weight), world.num_resident,
                      plain_pointer(world.resident.start));
    copy_ground_distances_cpu(collections.voc_size, D.get());
    const auto ground =
        take_turns({{"small, ground distances, " + with_steps(steps), repetitions(options, 3),
                     [&run_on_ground, steps] { run_on_ground(steps); }}});
    remove_ground_distances_cpu();
    remove_raw_data_cpu();
    add_ratio(table, {"small", with_steps(steps) + ", ground distances given", "vectors", 0.5},
              ground[0], vectors[0]);
  }
}

}  // namespace talvik::bench
