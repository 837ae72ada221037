// A block of distances: the engine against the dense product alone, against the plain way, and with
// capacity steps and ground distances against itself without.
#include <algorithm>
#include <cmath>
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

std::string delta(int steps) { return "delta " + std::to_string(steps); }

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
  return {world.name + ", engine, " + delta(steps), repetitions,
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
  std::map<std::string, Samples> times;
  {
    const LoadedResident resident(world);
    const auto Y = new_floats(dense_block_floats);
    run_engine(world, 0, Z.data());  // the first use of everything
    std::vector<Contender> contenders{{"text, dense product", repetitions(options, 3),
                                       [&] { dense_product(world, dense_block_floats, Y.get()); }}};
    for (const int steps : {0, 1, 3, 7}) {
      contenders.push_back(
          engine_contender(world, steps, repetitions(options, steps == 0 ? 5 : 3), Z));
    }
    times = take_turns(contenders);
    run_engine(world, 0, Z.data());
  }
  const Samples& engine = times["text, engine, delta 0"];
  add_ratio(table, "text, delta 0: engine / dense product alone", engine,
            times["text, dense product"], 0.28);
  if (!options.quick) {
    std::vector<float> plain_Z(Z.size());
    const auto plain =
        take_turns({plain_contender(world, DenseKernel::openblas, options, 2, plain_Z),
                    plain_contender(world, DenseKernel::eigen, options, 1, plain_Z)});
    require_same_distances(Z, plain_Z);
    add_ratio(table, "text, delta 0: engine / plain way, Eigen as packaged", engine,
              plain.at("text, plain way, Eigen"), 0.06);
    add_ratio(table, "text, delta 0: engine / plain way, OpenBLAS", engine,
              plain.at("text, plain way, OpenBLAS"));
  }
  const std::pair<int, double> steps_targets[] = {{1, 1.3}, {3, 2.0}, {7, 3.0}};
  for (const auto& [steps, target] : steps_targets) {
    add_ratio(table, "text: " + delta(steps) + " / delta 0", times["text, engine, " + delta(steps)],
              engine, target);
  }
}

void distinct_figures(const Options& options, Table& table) {
  const World world = make_world("distinct");
  table.remarks.push_back(description_of(world));
  std::vector<float> Z(block_floats_of(world));
  const LoadedResident resident(world);
  const auto Y = new_floats(dense_block_floats);
  run_engine(world, 0, Z.data());
  auto times = take_turns({engine_contender(world, 0, repetitions(options, 5), Z),
                           {"distinct, dense product", repetitions(options, 5),
                            [&] { dense_product(world, dense_block_floats, Y.get()); }}});
  add_ratio(table, "distinct, delta 0: engine / dense product alone",
            times["distinct, engine, delta 0"], times["distinct, dense product"], 1.25);
}

void image_figures(const Options& options, Table& table) {
  const World world = make_world("images");
  table.remarks.push_back(description_of(world));
  std::vector<float> Z(block_floats_of(world)), plain_Z(Z.size());
  const LoadedResident resident(world);
  run_engine(world, 0, Z.data());
  const int count = repetitions(options, 3);
  auto times = take_turns({engine_contender(world, 0, count, Z),
                           plain_contender(world, DenseKernel::openblas, options, count, plain_Z),
                           plain_contender(world, DenseKernel::eigen, options, count, plain_Z)});
  require_same_distances(Z, plain_Z);
  const Samples& engine = times["images, engine, delta 0"];
  add_ratio(table, "images, delta 0: engine / plain way, Eigen as packaged", engine,
            times["images, plain way, Eigen"], 0.3);
  add_ratio(table, "images, delta 0: engine / plain way, OpenBLAS", engine,
            times["images, plain way, OpenBLAS"]);
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
  for (const int steps : {0, 1, 3, 7}) {
    const std::string vectors = "small, engine, " + delta(steps);
    const std::string ground = "small, ground distances, " + delta(steps);
    std::map<std::string, Samples> times;
    {
      const LoadedResident resident(world);
      times = take_turns({engine_contender(world, steps, repetitions(options, 3), Z)});
    }
    copy_raw_data_cpu(static_cast<int>(ind.size()), ind.data(),
                      plain_pointer(world.resident.weight), world.num_resident,
                      plain_pointer(world.resident.start));
    copy_ground_distances_cpu(collections.voc_size, D.get());
    times.merge(take_turns(
        {{ground, repetitions(options, 3), [&run_on_ground, steps] { run_on_ground(steps); }}}));
    remove_ground_distances_cpu();
    remove_raw_data_cpu();
    add_ratio(table, "small, " + delta(steps) + ": ground distances given / vectors", times[ground],
              times[vectors], 0.5);
  }
}

}  // namespace talvik::bench
