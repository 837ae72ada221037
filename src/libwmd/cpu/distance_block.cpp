// The distance block of a query batch, tile by tile.
#include "libwmd/cpu/distance_block.hpp"

#include <algorithm>
#include <limits>

#include "internal/team.hpp"
#include "libwmd/cpu/blas_threads.hpp"
#include "libwmd/cpu/cache_line.hpp"
#include "libwmd/cpu/dense_product.hpp"
#include "libwmd/cpu/nearest_entries.hpp"

namespace talvik::internal {
namespace {

// Everything that stays the same while one group of query documents is computed.
struct GroupTask {
  const Vocabulary& vocabulary;
  const CsrCollection& resident;
  const QueryBatch& batch;
  const BlockRequest& request;
  const BatchSection& group;
  TilePlan plan;
  int nearest, slots;
  float* panels;
  std::vector<float> stages;             // per thread, see stage_of
  std::vector<ProductScratch> products;  // per thread
};

// Query documents [first, first + count) of the group and the vocabulary words whose tables are
// held for them.
struct Block {
  int first_doc;
  NearestTables tables;
};

int entries_of(const QueryBatch& batch, int doc) { return batch.start[doc + 1] - batch.start[doc]; }

int nearest_of(const QueryBatch& batch, int doc, int steps, NearestRule rule) {
  if (rule == NearestRule::as_asked) return std::max(steps, 0) + 1;
  return nearest_of_document(steps, entries_of(batch, doc));
}

// A panel holds the score of word v and row r at r*panel_stride + v.  The line that a stride has
// more than its words spreads the rows over all sets of the caches: at a stride of 4 KiB, the same
// word of all rows shares a few of them, and the reduction took half as long again.
int panel_stride(const TilePlan& plan) { return plan.panel_words + line_floats; }

// Every thread's part of the panels starts at a line of its own.
long long panel_floats_of_thread(const TilePlan& plan, int rows) {
  return 1ll * panel_stride(plan) * rows + line_floats;
}

// A stage holds, for one chunk of documents and the words of a strip, or of a whole panel where its
// nearest entries are found in several passes, the nearest scores and then the weights behind them:
// value of slot t, document j, word v at ((t*width) + j)*stage_stride + v.  The line that a stride
// has more than its words keeps the documents from sharing cache sets.
long long stage_stride(const TilePlan& plan) { return plan.stage_words + line_floats; }

long long stage_floats(const TilePlan& plan, int slots) {
  return 2ll * slots * plan.width * stage_stride(plan);
}

int largest_pass_of(const QueryBatch& batch, const BatchSection& group) {
  return largest_pass(*batch.distinct, group.first_pass, group.last_pass);
}

TilePlan plan_group(const Vocabulary& vocabulary, const QueryBatch& batch,
                    const BlockRequest& request, const BatchSection& group, int nearest) {
  // Ground distances are only copied: a panel of one strip stays in the caches until it is reduced.
  const int panel_most =
      request.source == DistanceSource::vectors ? panel_words_most : strip_words_most;
  return plan_tiles(request.budget, request.threads, vocabulary.voc_size,
                    largest_pass_of(batch, group), group.last_doc - group.first_doc, nearest,
                    nearest_slots(nearest), panel_most, group.last_pass - group.first_pass > 1);
}

int word_of_row(const GroupTask& task, int row) {
  return task.batch.ind[task.batch.distinct->entry_of_row[static_cast<std::size_t>(row)]];
}

// Distances of words [first_word, first_word + words) to the rows of a pass, of word v and row r at
// scores[r*stride + v], from a ground-distance matrix with the vocabulary words in its rows: a line
// of words at a time.  The rows of the batch ascend by word, so each of these words' distances is
// read in order.
void gather_by_word(const GroupTask& task, const RowPass& pass, int first_word, int words,
                    float* scores, std::size_t stride) {
  const std::size_t voc_size = static_cast<std::size_t>(task.vocabulary.voc_size);
  for (int v = 0; v < words; v += line_floats) {
    const int line = std::min(line_floats, words - v);
    const float* ground = task.request.ground + static_cast<std::size_t>(first_word + v) * voc_size;
    for (int r = pass.first_row; r < pass.last_row; ++r) {
      const float* column = ground + word_of_row(task, r);
      float* score = scores + static_cast<std::size_t>(r - pass.first_row) * stride + v;
      for (int i = 0; i < line; ++i) score[i] = column[static_cast<std::size_t>(i) * voc_size];
    }
  }
}

// The same with the query words in the rows of the matrix.  A copy, though the distances could be
// read where they are: there, a document's rows lie pages apart.
void gather_by_entry(const GroupTask& task, const RowPass& pass, int first_word, int words,
                     float* scores, std::size_t stride) {
  const std::size_t voc_size = static_cast<std::size_t>(task.vocabulary.voc_size);
  for (int r = pass.first_row; r < pass.last_row; ++r) {
    const float* ground =
        task.request.ground + static_cast<std::size_t>(word_of_row(task, r)) * voc_size;
    std::copy_n(ground + first_word, words,
                scores + static_cast<std::size_t>(r - pass.first_row) * stride);
  }
}

// The panel is padded to whole lines; what stands there means nothing.
Panel fill_panel(const GroupTask& task, const RowPass& pass, int first_word, int words,
                 float* scores, ProductScratch& scratch) {
  const std::size_t vec_size = static_cast<std::size_t>(task.vocabulary.vec_size);
  const std::size_t stride = static_cast<std::size_t>(panel_stride(task.plan));
  Panel panel{scores, stride, static_cast<int>(round_up(words, line_floats)), 1, nullptr};
  switch (task.request.source) {
    case DistanceSource::ground_of_entry:
      gather_by_entry(task, pass, first_word, words, scores, stride);
      break;
    case DistanceSource::ground_of_word:
      gather_by_word(task, pass, first_word, words, scores, stride);
      break;
    case DistanceSource::vectors:
      dense_product(task.vocabulary.rows + static_cast<std::size_t>(first_word) * vec_size, words,
                    task.batch.rows + static_cast<std::size_t>(pass.first_row) * vec_size,
                    pass.last_row - pass.first_row, task.vocabulary.vec_size, scores, stride,
                    scratch);
      panel.scale = score_per_dot;
      if (task.request.metric == Metric::euclidean) {
        panel.row_bias = task.batch.row_norms + pass.first_row;
      }
  }
  return panel;
}

// The entries of a document that lie in a pass.
EntryRange entries_in_pass(const GroupTask& task, int doc, const RowPass& pass) {
  const int first = std::max(task.batch.start[doc], pass.first_entry);
  const int last = std::min(task.batch.start[doc + 1], pass.last_entry);
  const int* row = task.batch.distinct->row_of_entry.data();
  return {row + first, task.batch.weight + first, std::max(last - first, 0)};
}

NearestState state_of(const GroupTask& task, float* stage, int j) {
  const std::size_t stride = static_cast<std::size_t>(stage_stride(task.plan));
  const std::size_t slot = static_cast<std::size_t>(task.plan.width) * stride;
  float* score = stage + static_cast<std::size_t>(j) * stride;
  float* weight = score + static_cast<std::size_t>(task.slots) * slot;
  return {score, task.slots > 1 ? weight : nullptr, slot};
}

// From documents with their words side by side to words with their documents side by side, at most
// far_away, which NaN becomes, too.  What pads the last chunk becomes 0.
void transpose(const float* stage, std::size_t stride, int docs, int words, int width,
               float* table) {
  for (int v = 0; v < words; ++v) {
    float* row = table + static_cast<std::size_t>(v) * static_cast<std::size_t>(width);
    for (int j = 0; j < docs; ++j) {
      row[j] = std::min(far_away, stage[static_cast<std::size_t>(j) * stride + v]);
    }
    std::fill(row + docs, row + width, 0.0f);
  }
}

// A document that has fewer nearest entries than the tables hold: the last of them takes the rest.
void end_steps_early(const GroupTask& task, const NearestState& state, int doc, int words) {
  const int nearest = nearest_of(task.batch, doc, task.request.steps, task.request.rule);
  if (nearest >= task.nearest) return;
  float* capacity = state.weight + static_cast<std::size_t>(nearest - 1) * state.stride;
  std::fill(capacity, capacity + words, std::numeric_limits<float>::max());
}

void store_chunk(const GroupTask& task, const Block& block, int chunk, int docs, int first_word,
                 int words, float* stage) {
  const TilePlan& plan = task.plan;
  const std::size_t at =
      (static_cast<std::size_t>(chunk) * static_cast<std::size_t>(block.tables.words) +
       static_cast<std::size_t>(first_word - block.tables.first_word)) *
      static_cast<std::size_t>(plan.width);
  for (int j = 0; j < docs; ++j) {
    const NearestState state = state_of(task, stage, j);
    for (int t = 0; t < task.nearest && task.request.source == DistanceSource::vectors; ++t) {
      scores_to_distances(task.request.metric, task.vocabulary.norms + first_word, words,
                          state.score + static_cast<std::size_t>(t) * state.stride);
    }
    end_steps_early(task, state, block.first_doc + chunk * plan.width + j, words);
  }
  const std::size_t stride = static_cast<std::size_t>(stage_stride(plan));
  const NearestState all = state_of(task, stage, 0);  // its documents one after the other
  for (int t = 0; t < task.nearest; ++t) {
    const std::size_t slot = static_cast<std::size_t>(t) * all.stride;
    transpose(all.score + slot, stride, docs, words, plan.width,
              block.tables.distance[static_cast<std::size_t>(t)] + at);
    if (t + 1 == task.nearest) break;
    transpose(all.weight + slot, stride, docs, words, plan.width,
              block.tables.capacity[static_cast<std::size_t>(t)] + at);
  }
}

// Where a pass stands among those of its group.  With several, the group is a single document.
struct PassPlace {
  bool first, last;
};

// One strip of a panel: the nearest entries of every document, chunk by chunk.  The strip may be
// padded; words are real.
void reduce_strip(const GroupTask& task, const Block& block, const RowPass& pass,
                  const PassPlace& place, const Panel& strip, int first_word, int words,
                  float* stage) {
  const int width = task.plan.width;
  for (int chunk = 0; chunk < chunks_of(block.tables.docs, width); ++chunk) {
    const int docs = std::min(width, block.tables.docs - chunk * width);
    for (int j = 0; j < docs; ++j) {
      const int doc = block.first_doc + chunk * width + j;
      find_nearest_entries(strip, entries_in_pass(task, doc, pass), task.slots, !place.first,
                           state_of(task, stage, j));
    }
    if (place.last) store_chunk(task, block, chunk, docs, first_word, words, stage);
  }
}

// One panel of words against all passes of the group, into the block's tables.
void compute_panel(GroupTask& task, const Block& block, int first_word, int words, int thread) {
  const DistinctRows& distinct = *task.batch.distinct;
  const int rows = largest_pass_of(task.batch, task.group);
  float* scores = line_start(task.panels + thread * panel_floats_of_thread(task.plan, rows));
  float* stage =
      task.stages.data() + static_cast<std::size_t>(thread * stage_floats(task.plan, task.slots));
  const bool several_passes = task.group.last_pass - task.group.first_pass > 1;
  for (int p = task.group.first_pass; p < task.group.last_pass; ++p) {
    const RowPass& pass = distinct.passes[static_cast<std::size_t>(p)];
    const Panel panel = fill_panel(task, pass, first_word, words, scores,
                                   task.products[static_cast<std::size_t>(thread)]);
    const PassPlace place{p == task.group.first_pass, p + 1 == task.group.last_pass};
    for (int offset = 0; offset < words; offset += task.plan.strip_words) {
      Panel strip = panel;
      strip.scores += offset;
      strip.words = std::min(task.plan.strip_words, panel.words - offset);
      reduce_strip(task, block, pass, place, strip, first_word + offset,
                   std::min(strip.words, words - offset), several_passes ? stage + offset : stage);
    }
  }
}

void fill_tables(GroupTask& task, const Block& block) {
  const int panels = (block.tables.words + task.plan.panel_words - 1) / task.plan.panel_words;
  for_each_share(task.request.threads, panels, [&](int first, int last, int thread) {
    for (int panel = first; panel < last; ++panel) {
      const int offset = panel * task.plan.panel_words;
      const int words = std::min(task.plan.panel_words, block.tables.words - offset);
      compute_panel(task, block, block.tables.first_word + offset, words, thread);
    }
  });
}

void compute_group(GroupTask& task, const BlockBuffers& buffers, float* Z) {
  const std::size_t num_docs = static_cast<std::size_t>(task.resident.num_docs);
  EntryRanges ranges{std::vector<int>(num_docs), std::vector<int>(num_docs)};
  const int voc_size = task.vocabulary.voc_size;
  for (int doc = task.group.first_doc; doc < task.group.last_doc; doc += task.plan.window_docs) {
    const int docs = std::min(task.plan.window_docs, task.group.last_doc - doc);
    float* Z_window = Z + static_cast<std::size_t>(doc) * num_docs;
    for (int word = 0; word < voc_size; word += task.plan.block_words) {
      const Block block{doc,
                        {word, std::min(task.plan.block_words, voc_size - word), docs,
                         task.plan.width, buffers.distance, buffers.capacity}};
      fill_tables(task, block);
      pour(block.tables, task.resident, task.request.threads, ranges, Z_window);
    }
  }
}

}  // namespace

int nearest_of_batch(const QueryBatch& batch, int steps, NearestRule rule) {
  int nearest = 1;
  for (int doc = 0; doc < batch.num_docs; ++doc) {
    nearest = std::max(nearest, nearest_of(batch, doc, steps, rule));
  }
  return nearest;
}

BlockSizes block_sizes(const Vocabulary& vocabulary, const QueryBatch& batch,
                       const BlockRequest& request) {
  const int nearest = nearest_of_batch(batch, request.steps, request.rule);
  BlockSizes sizes{0, 0};
  for (const BatchSection& group : batch.distinct->sections) {
    const TilePlan plan = plan_group(vocabulary, batch, request, group, nearest);
    const int rows = largest_pass_of(batch, group);
    sizes.panels =
        std::max(sizes.panels, std::max(request.threads, 1) * panel_floats_of_thread(plan, rows));
    sizes.table = std::max(sizes.table, 1ll * plan.window_docs * plan.block_words);
  }
  return sizes;
}

void compute_distance_block(const Vocabulary& vocabulary, const CsrCollection& resident,
                            const QueryBatch& batch, const BlockRequest& request,
                            const BlockBuffers& buffers, float* Z) {
  const std::size_t distances =
      static_cast<std::size_t>(batch.num_docs) * static_cast<std::size_t>(resident.num_docs);
  // Documents without words have nothing to move.
  if (vocabulary.voc_size <= 0) std::fill(Z, Z + distances, 0.0f);
  if (vocabulary.voc_size <= 0 || distances == 0) return;
  const SingleThreadedBlas single_threaded_blas;
  const ProductScratch unused_scratch = product_scratch(vocabulary.vec_size);
  const int nearest = nearest_of_batch(batch, request.steps, request.rule);
  for (const BatchSection& group : batch.distinct->sections) {
    GroupTask task{vocabulary,
                   resident,
                   batch,
                   request,
                   group,
                   plan_group(vocabulary, batch, request, group, nearest),
                   nearest,
                   nearest_slots(nearest),
                   buffers.panels,
                   {},
                   {}};
    const std::size_t threads = static_cast<std::size_t>(std::max(request.threads, 1));
    task.stages.resize(threads * static_cast<std::size_t>(stage_floats(task.plan, task.slots)));
    task.products.assign(threads, unused_scratch);
    compute_group(task, buffers, Z);
  }
}

}  // namespace talvik::internal
