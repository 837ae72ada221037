#include "search/bound_block.hpp"

#include <algorithm>
#include <memory>
#include <vector>

#include "internal/large_pages.hpp"
#include "internal/team.hpp"
#include "libwmd/cpu/distance_block.hpp"
#include "search/search_plan.hpp"

namespace talvik::internal {
namespace {

// The offsets of a range of documents, counted from its first entry.
std::vector<int> offsets_of(const Side& side, const Range& range) {
  std::vector<int> offsets(range.count + 1);
  const Index base = side.begin(range.first);
  for (int i = 0; i <= range.count; ++i) {
    offsets[i] = static_cast<int>(side.documents().offsets()[range.first + i] - base);
  }
  return offsets;
}

// A batch whose words are known by number: entries of one word share a row.
struct Batch {
  Batch(const Side& side, const Range& range, int max_rows, int threads) : documents(side, range) {
    const auto& [num_docs, start, words, weight] = documents.csr;
    distinct = find_distinct_rows(words, sizeof(int), start, num_docs, max_rows, threads);
    const Index m = side.dimensions();
    const auto num_rows = static_cast<int>(distinct.entry_of_row.size());
    rows.resize(elements(num_rows, m));
    norms.resize(num_rows);
    for (int r = 0; r < num_rows; ++r) {
      const int word = words[distinct.entry_of_row[r]];
      std::copy_n(side.rows() + elements(word, m), m, rows.data() + elements(r, m));
      norms[r] = side.norms()[word];
    }
    batch = {.num_docs = num_docs,
             .start = start,
             .weight = weight,
             .ind = words,
             .distinct = &distinct,
             .rows = rows.data(),
             .row_norms = norms.data(),
             .unit_rows = false};
  }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  EngineDocuments documents;
  DistinctRows distinct;
  std::vector<float> rows, norms;
  QueryBatch batch;
};

}  // namespace

std::vector<Range> cut_blocks(const Side& side, Count documents_at_a_time) {
  std::vector<Range> blocks;
  const std::span<const Count> offsets = side.documents().offsets();
  for (Count first = 0; first < side.size(); first += blocks.back().count) {
    const auto beyond = std::upper_bound(offsets.begin() + first + 1, offsets.end(),
                                         offsets[first] + entries_of_block);
    const Count fitting = std::max<Count>(beyond - offsets.begin() - 1 - first, 1);
    blocks.push_back(
        {first, static_cast<int>(std::min({fitting, documents_at_a_time, side.size() - first}))});
  }
  return blocks;
}

float* Workspace::floats(size_t number, Index count) {
  if (number >= arrays_.size()) arrays_.resize(number + 1);
  Array& array = arrays_[number];
  if (array.count < count) {
    array = {};
    array.floats.reset(new float[count]);
    array.count = count;
    begin_on_large_pages(array.floats.get(), count * sizeof(float));
  }
  return array.floats.get();
}

EngineDocuments::EngineDocuments(const Side& side, const Range& range)
    : start(offsets_of(side, range)),
      csr{.num_docs = range.count,
          .start = start.data(),
          .ind = side.entry_words() + side.begin(range.first),
          .weight = side.documents().weights().data() + side.begin(range.first)} {}

void one_way_block(const Side& from, const Range& from_range, const Side& to, const Range& to_range,
                   const BlockRules& rules, Workspace& workspace, float* Z) {
  if (from.words() == 0) {  // no document of it has an entry
    std::fill_n(Z, elements(to_range.count, from_range.count), 0.0f);
    return;
  }
  const Batch batch(to, to_range, rows_per_pass(rules.budget, rules.threads), rules.threads);
  const EngineDocuments resident(from, from_range);
  const Vocabulary vocabulary{.voc_size = from.words(),
                              .vec_size = from.dimensions(),
                              .rows = from.rows(),
                              .norms = from.norms(),
                              .unit_rows = false,
                              .row_hash = from.row_hash()};
  const BlockRequest request{.source = DistanceSource::vectors,
                             .metric = engine_metric(rules.metric),
                             .ground = nullptr,
                             .steps = rules.steps,
                             .rule = NearestRule::halving,
                             .threads = rules.threads,
                             .budget = rules.budget,
                             .checkpoint = rules.checkpoint};
  const BlockSizes sizes = block_sizes(vocabulary, batch.batch, request);
  const int nearest = nearest_of_batch(batch.batch, rules.steps, request.rule);
  BlockBuffers buffers{
      .panels = workspace.floats(Workspace::panels, sizes.panels), .distance = {}, .capacity = {}};
  for (int t = 0; t < nearest; ++t) {
    buffers.distance.push_back(workspace.floats(Workspace::first_table + t, sizes.table));
  }
  for (int t = 0; t + 1 < nearest; ++t) {
    buffers.capacity.push_back(workspace.floats(Workspace::first_table + nearest + t, sizes.table));
  }
  compute_distance_block(vocabulary, resident.csr, batch.batch, request, buffers, Z);
}

void turned_one_way_block(const Side& from, const Range& from_range, const Side& to,
                          const Range& to_range, const BlockRules& rules, Workspace& workspace,
                          float* Z) {
  // Part by part: the parts take an eighth of Z more.  Few documents are not worth parts.
  constexpr int parts = 8;
  constexpr int together_least = 1024;
  const int together = std::max(to_range.count / parts, std::min(to_range.count, together_least));
  float* const part =
      workspace.floats(Workspace::turned_part, elements(together, from_range.count));
  for (int first = 0; first < to_range.count; first += together) {
    const int count = std::min(together, to_range.count - first);
    one_way_block(from, from_range, to, {to_range.first + first, count}, rules, workspace, part);
    for_each_share(rules.threads, from_range.count, [&](int begin, int end, int) {
      for (int f = begin; f < end; ++f) {
        float* z = Z + elements(f, to_range.count) + first;
        for (int t = 0; t < count; ++t) z[t] = part[elements(t, from_range.count) + f];
      }
    });
  }
}

}  // namespace talvik::internal
