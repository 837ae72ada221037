// Whole runs in this process: what they spend outside the computation of distances, and what a
// two-way run costs beside its two directions.
#include <unistd.h>  // getpid

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "engine_calls.hpp"
#include "figures.hpp"
#include "talvik/compress.hpp"
#include "talvik/result_file.hpp"
#include "worlds.hpp"

namespace talvik::bench {
namespace {

constexpr int neighbours = 16;

// Counts the batches of a run, which it is handed as the context.
void count_batch(const BatchResult&, void* batches) { ++*static_cast<int*>(batches); }

struct RunTimes {
  Samples whole, block;
  std::map<std::string, Samples> parts;  // in the order of their names
};

// The whole run, on copies that it may take.
void time_whole(const Collections& collections, const std::string& path, Samples& samples) {
  int batches = 0;
  batch_finished = count_batch;
  batch_finished_context = &batches;
  DocumentSet resident = collections.resident, queries = collections.queries;
  add_sample(samples, [&] {
    run_lists(collections, std::move(resident), std::move(queries), neighbours, path);
  });
  batch_finished = nullptr;
  // The parts below are those of a run in one batch.
  if (batches != 1) throw std::runtime_error("Batches of the run: " + std::to_string(batches));
}

// The same work step by step, through the functions that the run goes through.
void time_parts(const Collections& collections, const World& world, const std::string& path,
                RunTimes& times) {
  std::map<std::string, Samples>& parts = times.parts;
  const auto floats = [](size_t count) { return std::unique_ptr<float[]>(new float[count]); };
  add_sample(parts["1 resident rows, compressed vocabulary"], [&] {
    SparseRows rows{std::vector<int>(world.resident.start.size()),
                    std::vector<int>(world.resident.ind.size()),
                    std::vector<float>(world.resident.ind.size())};
    setup_raw_data(collections.resident, 0, world.num_resident, rows.ind.data(), rows.start.data(),
                   rows.weight.data());
    internal::compress_words(
        collections.voc_size, collections.embeddings.data(), collections.vec_size, num_cpu_threads,
        [&](const auto& body) { std::for_each(rows.ind.begin(), rows.ind.end(), body); });
  });
  std::unique_ptr<LoadedResident> resident;
  add_sample(parts["2 engine's copies of them"],
             [&] { resident = std::make_unique<LoadedResident>(world); });
  const auto X = floats(world.X2.size());
  add_sample(parts["3 query vectors"], [&] {
    setup_vectors(plain_pointer(collections.embeddings), world.vec_size, collections.queries, 0,
                  world.num_queries, X.get(), plain_pointer(world.queries.start),
                  plain_pointer(world.queries.weight));
  });
  add_sample(parts["4 distinct rows"], [&] { load_batch(world); });
  const auto Z = floats(block_floats_of(world));  // as in a run, its pages come with the first use
  constexpr int steps = 0;
  constexpr bool precompute = false;
  add_sample(times.block, [&] { compute_block(steps, precompute, Z.get()); });
  const size_t list_entries = static_cast<size_t>(world.num_queries) * neighbours;
  std::vector<int> ind(list_entries);
  const auto val = floats(list_entries);
  add_sample(parts["5 selection"], [&] {
    sort_cpu_parallel(world.num_queries, world.num_resident, neighbours, Z.get(), ind.data(),
                      val.get());
  });
  const LabelList resident_labels = labels_of(collections.resident);
  const LabelList query_labels = labels_of(collections.queries);
  add_sample(parts["6 writing"], [&] {
    internal::ResultFile file = internal::open_result_file(path);
    internal::write_lists(file, {0, world.num_queries, neighbours, ind.data(), val.get()},
                          query_labels, resident_labels);
    internal::close_result_file(std::move(file));
  });
  add_sample(parts["7 release"], [&] {
    remove_batch();
    resident.reset();
  });
}

void add_parts(const RunTimes& times, Table& table) {
  const double whole = median(times.whole.wall);
  double rest = 1 - median(times.block.wall) / whole;
  char line[96];
  table.remarks.push_back("Shares of the whole run outside the block computation, by wall-clock:");
  for (const auto& [name, samples] : times.parts) {
    const double share = median(samples.wall) / whole;
    rest -= share;
    std::snprintf(line, sizeof line, "  %-40s %5.1f %%", name.c_str(), 100 * share);
    table.remarks.emplace_back(line);
  }
  std::snprintf(line, sizeof line, "  %-40s %5.1f %%", "rest", 100 * rest);
  table.remarks.emplace_back(line);
}

}  // namespace

void whole_run_figures(const Options& options, Table& table) {
  const Collections collections = make_collections("text");
  const World world = world_of("text", collections);
  const std::string path =
      std::filesystem::temp_directory_path() / ("talvik-bench-lists-" + std::to_string(getpid()));
  RunTimes times;
  Samples first_use;
  time_whole(collections, path, first_use);
  for (int i = 0; i < repetitions(options, 3); ++i) {
    time_whole(collections, path, times.whole);
    time_parts(collections, world, path, times);
    say_sample("text, whole run", times.whole.wall.back(), times.whole.cpu.back());
    say_sample("text, its block", times.block.wall.back(), times.block.cpu.back());
  }
  std::filesystem::remove(path);
  char note[64];
  std::snprintf(note, sizeof note, "%.2f, %.2f", spread(times.block.wall),
                spread(times.whole.wall));
  table.figures.push_back(
      {{.world = "text", .what = "whole run with lists, share outside the block", .target = 0.15},
       1 - median(times.block.wall) / median(times.whole.wall),
       1 - median(times.block.cpu) / median(times.whole.cpu),
       note});
  add_parts(times, table);
}

void two_way_figures(const Options& options, Table& table) {
  const Collections text = make_collections("text");
  const int count = repetitions(options, 3);
  const auto times = take_turns(
      {{"text, one-way run", count, [&] { run_matrix(text, text.resident, text.queries); }},
       {"text, the other way", count, [&] { run_matrix(text, text.queries, text.resident); }},
       {"text, two-way run", count, [&] { run_two_way(text); }}});
  const Samples &one_way = times[0], &two_way = times[2];
  Samples both = times[1];
  for (size_t i = 0; i < both.wall.size(); ++i) {
    both.wall[i] += one_way.wall[i];
    both.cpu[i] += one_way.cpu[i];
  }
  add_ratio(table, {"text", "two-way run", "one-way run", 2.2}, two_way, one_way);
  add_ratio(table, {"text", "two-way run", "both one-way runs"}, two_way, both);
}

}  // namespace talvik::bench
