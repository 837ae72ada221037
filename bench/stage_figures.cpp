// Stages of a computation by themselves: from tables of nearest distances to document distances,
// and the selection of the nearest documents.
#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <stdexcept>
#include <tuple>  // tie
#include <utility>

#include "engine_calls.hpp"
#include "figures.hpp"
#include "internal/large_pages.hpp"
#include "internal/team.hpp"
#include "libwmd/cpu/cache_line.hpp"
#include "libwmd/cpu/pour.hpp"
#include "libwmd/cpu/sizes.hpp"
#include "plain_way.hpp"
#include "worlds.hpp"

namespace talvik::bench {
namespace {

// Word distances as they are, between 0.5 and 1.5: row v, column d at v*cols + d.
std::vector<float> draw_table(int rows, int cols) {
  std::minstd_rand random(20);
  std::uniform_real_distribution<float> distance(0.5f, 1.5f);
  std::vector<float> table(static_cast<size_t>(rows) * static_cast<size_t>(cols));
  for (float& x : table) x = distance(random);
  return table;
}

// Writes the same values where the engine's tables have them: as NearestTables says.
void copy_in_chunks(const std::vector<float>& table, int rows, int cols, int width, float* chunks) {
  for (int v = 0; v < rows; ++v) {
    for (int j = 0; j < cols; ++j) {
      chunks[(1ll * (j / width) * rows + v) * width + j % width] =
          table[static_cast<size_t>(1ll * v * cols + j)];
    }
  }
}

void require_same_sums(const std::vector<float>& Z, const float* product, int docs, int cols) {
  constexpr float most = 1e-4f;
  for (int i = 0; i < docs; ++i) {
    for (int d = 0; d < cols; ++d) {
      const float ours =
          Z[static_cast<size_t>(d) * static_cast<size_t>(docs) + static_cast<size_t>(i)];
      if (!(std::fabs(ours - product[1ll * i * cols + d]) <= most * ours)) {
        throw std::runtime_error("The sparse stage and the sparse product differ");
      }
    }
  }
}

// Pairs of value and index, of which the k first are brought to the front and sorted.
void select_from_pairs(int rows, int cols, const float* data, int k, int threads, int* ind_out,
                       float* val_out) {
  internal::for_each_share(threads, rows, [&](int first, int last, int) {
    std::vector<std::pair<float, int>> pairs(static_cast<size_t>(cols));
    for (int r = first; r < last; ++r) {
      const float* row = data + 1ll * r * cols;
      for (int c = 0; c < cols; ++c) pairs[static_cast<size_t>(c)] = {row[c], c};
      std::nth_element(pairs.begin(), pairs.begin() + k - 1, pairs.end());
      std::sort(pairs.begin(), pairs.begin() + k);
      for (int j = 0; j < k; ++j) {
        std::tie(val_out[1ll * r * k + j], ind_out[1ll * r * k + j]) =
            pairs[static_cast<size_t>(j)];
      }
    }
  });
}

}  // namespace

void sparse_figures(const Options& options, Table& table) {
  const World world = make_world("large");
  table.remarks.push_back(description_of(world));
  const int width = internal::table_width(world.num_queries);
  const std::vector<float> values = draw_table(world.voc_size, world.num_queries);
  const long long chunk_floats = world.voc_size * internal::round_up(world.num_queries, width);
  // Begun and advised as the engine's tables are.
  const size_t storage_floats = static_cast<size_t>(chunk_floats + internal::line_floats);
  const std::unique_ptr<float[]> storage(new float[storage_floats]);
  internal::begin_on_large_pages(storage.get(), storage_floats * sizeof(float));
  float* const chunks = internal::line_start(storage.get());
  copy_in_chunks(values, world.voc_size, world.num_queries, width, chunks);
  const internal::NearestTables tables{0, world.voc_size, world.num_queries, width, {chunks}, {}};
  std::vector<float> Z, product;
  for (std::vector<float>* sums : {&Z, &product}) {  // begun as a run begins its result
    sums->reserve(block_floats_of(world));
    internal::begin_on_large_pages(sums->data(), sums->capacity() * sizeof(float));
    sums->resize(sums->capacity());
  }
  const size_t docs = static_cast<size_t>(world.num_resident);
  internal::EntryRanges ranges{std::vector<int>(docs), std::vector<int>(docs)};
  const internal::CsrCollection resident{world.num_resident, world.resident.start.data(),
                                         world.resident.ind.data(), world.resident.weight.data()};
  const int count = repetitions(options, 7);
  const auto times =
      take_turns({{"large, sparse stage", count,
                   [&] { internal::pour(tables, resident, options.threads, ranges, Z.data()); }},
                  {"large, Eigen's sparse product", count, [&] {
                     sparse_product(world.resident, world.voc_size, values.data(),
                                    world.num_queries, options.threads, product.data());
                   }}});
  require_same_sums(Z, product.data(), world.num_resident, world.num_queries);
  add_ratio(table, {"large", "sparse stage", "Eigen's sparse product, same tables", 0.5}, times[0],
            times[1]);
}

void selection_figures(const Options& options, Table& table) {
  constexpr int rows = 64, cols = 1000000, k = 16;
  std::vector<float> data = draw_table(rows, cols);
  std::vector<int> ind(rows * k), ind_of_pairs(rows * k);
  std::vector<float> val(rows * k), val_of_pairs(rows * k);
  const int count = repetitions(options, 7);
  const auto times = take_turns(
      {{"sort_cpu", count, [&] { sort_cpu(rows, cols, data.data(), k, ind.data(), val.data()); }},
       {"pairs and nth_element", count, [&] {
          select_from_pairs(rows, cols, data.data(), k, options.threads, ind_of_pairs.data(),
                            val_of_pairs.data());
        }}});
  if (ind != ind_of_pairs || val != val_of_pairs) {
    throw std::runtime_error("sort_cpu and nth_element select different values");
  }
  add_ratio(table, {"64 rows of 1,000,000, k 16", "sort_cpu", "pairs with nth_element", 0.15},
            times[0], times[1]);
}

}  // namespace talvik::bench
