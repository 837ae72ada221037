#include "gpu_predictions.hpp"

#include <algorithm>
#include <cmath>

#include "libwmd/distinct_rows.hpp"
#include "talvik.hpp"

namespace talvik::bench {
namespace {

using internal::GpuStep;

// A load that has no neighbours brings a whole sector along.
constexpr double sector_bytes = 32, float_bytes = 4;

internal::DistinctRows plan(const World& world, int steps) {
  const internal::GpuBudget budget;
  return internal::find_distinct_rows(
      world.queries.ind.data(), sizeof(int), world.queries.start.data(), world.num_queries,
      internal::rows_of_block(budget, world.voc_size), num_cpu_threads,
      internal::table_docs(budget, world.voc_size, internal::topk_size(steps)));
}

}  // namespace

double rows_of_block(const World& world, int steps) {
  return static_cast<double>(plan(world, steps).entry_of_row.size());
}

double floor_of(const Work& work, const DeviceRates& rates) {
  return std::max(work.device_bytes / rates.device_bytes,
                  work.multiply_adds / rates.multiply_adds) +
         work.upload / rates.upload + work.download / rates.download;
}

std::vector<Work> predict_block(const World& world, int steps) {
  const internal::DistinctRows distinct = plan(world, steps);
  const auto rows = static_cast<double>(distinct.entry_of_row.size());
  // The rows of a batch are side by side; those of a part of it need not be.
  const double gathered = distinct.passes.size() > 1 ? rows : 0;
  const double words = world.voc_size, dims = world.vec_size;
  const double queries = world.num_queries, resident = world.num_resident;
  const auto entries = static_cast<double>(world.queries.ind.size());
  const auto resident_entries = static_cast<double>(world.resident.ind.size());
  const double kept = internal::topk_size(steps), tables = steps > 0 ? 2 : 1;
  const double block = float_bytes * rows * words;
  // Every step reads a distance and a capacity, and the last one a distance alone; they are side by
  // side, but the words of a document are not.
  const double sectors =
      queries * resident_entries * std::ceil(float_bytes * (2 * steps + 1) / sector_bytes);
  return {
      {.step = GpuStep::prepare, .name = "prepare", .upload = float_bytes * (entries + gathered)},
      {.step = GpuStep::gather,
       .name = "gather",
       .device_bytes = 2 * float_bytes * gathered * dims},
      {.step = GpuStep::product,
       .name = "product",
       .device_bytes = float_bytes * dims * (rows + words) + block,
       .multiply_adds = rows * words * dims},
      {.step = GpuStep::equal, .name = "equal"},
      {.step = GpuStep::nearest,
       .name = "nearest",
       .device_bytes = block + float_bytes * queries * words * kept * tables},
      {.step = GpuStep::pour, .name = "pour", .device_bytes = sector_bytes * sectors},
      {.step = GpuStep::copy, .name = "copy", .download = float_bytes * queries * resident},
      {.step = GpuStep::release, .name = "release"},
  };
}

}  // namespace talvik::bench
