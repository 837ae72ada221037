// The distance block of a query batch, tile by tile.
#include "libwmd/cpu/distance_block.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "internal/team.hpp"
#include "libwmd/cpu/blas_threads.hpp"
#include "libwmd/cpu/cache_line.hpp"
#include "libwmd/cpu/dense_product.hpp"
#include "libwmd/cpu/nearest_entries.hpp"

namespace talvik::internal {
namespace {

// What stays the same while one section of the batch is computed.
struct SectionTask {
  const Vocabulary& vocabulary;
  const CsrCollection& resident;
  const QueryBatch& batch;
  const BlockRequest& request;
  const BatchSection& section;
  TilePlan plan;
  int nearest, slots;
  float* panels;                                   // all threads, see panel_floats_of_thread
  std::vector<float> stages;                       // all threads, see stage_floats
  std::vector<ProductScratch> products;            // per thread
  std::vector<std::vector<EqualRows>> equal_rows;  // per pass of the section; rows of the batch
};

// The tables of a slab of vocabulary words and a window of query documents.
struct Slab {
  int first_doc;
  NearestTables tables;
};

// Vocabulary words [first, first + count).
struct Words {
  int first, count;
};

// Words of a panel that are searched at a time.
struct Strip {
  Words words;
  Panel panel;   // of these words; panel.words includes padding, words.count does not
  float* stage;  // of these words
};

int entries_of(const QueryBatch& batch, int doc) { return batch.start[doc + 1] - batch.start[doc]; }

int nearest_of(const QueryBatch& batch, int doc, int steps, NearestRule rule) {
  if (rule == NearestRule::as_asked) return std::max(steps, 0) + 1;
  return nearest_of_document(steps, entries_of(batch, doc));
}

bool has_several_passes(const BatchSection& section) {
  return section.last_pass - section.first_pass > 1;
}

int largest_pass_of(const QueryBatch& batch, const BatchSection& section) {
  return largest_pass(*batch.distinct, section.first_pass, section.last_pass);
}

// The score of word v and row r of a panel is at r*panel_stride + v.  The stride is a line longer
// than the words, so that the rows spread over all sets of the caches: at a stride of 4 KiB, a
// word's scores share a few sets, and the reduction took half as long again.
int panel_stride(const TilePlan& plan) { return plan.panel_words + line_floats; }

// One line more than the panel, so that every thread's panel can start at a line.
Index panel_floats_of_thread(const TilePlan& plan, int rows) {
  return elements(rows, panel_stride(plan)) + line_floats;
}

// Per document chunk: nearest scores, then weights; slot t, doc j, word v at
// ((t*width) + j)*stage_stride + v.  For 2 slots, a width of 16 and a stride of 64 + 16 = 80:
//
//              slot 0, docs 0, 1 .. 15       slot 1, docs 0, 1 .. 15
//   scores          0,   80 .. 1200          1280, 1360 .. 2480
//   weights      2560, 2640 .. 3760          3840, 3920 .. 5040
//
// The words are those of a strip, or of a whole panel where several passes find its nearest
// entries.  The stride is a line longer, which keeps the documents from sharing cache sets.
Index stage_stride(const TilePlan& plan) { return plan.stage_words + line_floats; }

Index stage_floats(const TilePlan& plan, int slots) {
  return 2 * elements(slots, plan.width) * stage_stride(plan);
}

NearestState state_of(const SectionTask& task, float* stage, int doc) {
  const Index stride = stage_stride(task.plan);
  const Index slot = task.plan.width * stride;
  float* score = stage + doc * stride;
  float* weight = task.slots > 1 ? score + task.slots * slot : nullptr;
  return {.score = score, .weight = weight, .stride = slot};
}

TilePlan plan_section(const Vocabulary& vocabulary, const QueryBatch& batch,
                      const BlockRequest& request, const BatchSection& section, int nearest) {
  // Ground distances are only copied: a panel of one strip stays in the caches until it is reduced.
  const int panel_words_limit =
      request.source == DistanceSource::vectors ? panel_words_most : strip_words_most;
  return plan_tiles(request.budget, {.threads = request.threads,
                                     .voc_size = vocabulary.voc_size,
                                     .rows = largest_pass_of(batch, section),
                                     .docs = section.last_doc - section.first_doc,
                                     .nearest = nearest,
                                     .slots = nearest_slots(nearest),
                                     .panel_words_limit = panel_words_limit,
                                     .several_passes = has_several_passes(section)});
}

int word_of_row(const SectionTask& task, int row) {
  return task.batch.ind[task.batch.distinct->entry_of_row[row]];
}

// Fills a panel from a ground-distance matrix that has the vocabulary words in its rows, a line of
// words at a time.  The rows of the pass ascend by word, so each matrix row is read in order.
void gather_by_word(const SectionTask& task, const RowPass& pass, const Words& words,
                    float* scores) {
  const Index voc_size = task.vocabulary.voc_size;
  const Index stride = panel_stride(task.plan);
  for (int v = 0; v < words.count; v += line_floats) {
    const int line = std::min(line_floats, words.count - v);
    const float* ground = task.request.ground + elements(words.first + v, voc_size);
    for (int r = pass.first_row; r < pass.last_row; ++r) {
      const float* column = ground + word_of_row(task, r);
      float* score = scores + elements(r - pass.first_row, stride) + v;
      for (int i = 0; i < line; ++i) score[i] = column[i * voc_size];
    }
  }
}

// Fills a panel from a ground-distance matrix that has the query words in its rows.  The distances
// are copied, since in the matrix a document's rows are pages apart.
void gather_by_entry(const SectionTask& task, const RowPass& pass, const Words& words,
                     float* scores) {
  for (int r = pass.first_row; r < pass.last_row; ++r) {
    const float* ground =
        task.request.ground + elements(word_of_row(task, r), task.vocabulary.voc_size);
    std::copy_n(ground + words.first, words.count,
                scores + elements(r - pass.first_row, panel_stride(task.plan)));
  }
}

bool unit_rows(const SectionTask& task) {
  return task.vocabulary.unit_rows && task.batch.unit_rows;
}

// Whether the metric is made for the rows.  It is not where the host has switched normalisation
// between a copy and the computation: there the argument of the root may be well below 0.
bool metric_fits_rows(const SectionTask& task) {
  const bool scaled = task.vocabulary.unit_rows || task.batch.unit_rows;
  switch (task.request.metric) {
    case Metric::euclidean:
      return !scaled;
    case Metric::unit_euclidean:
      return unit_rows(task);
    default:
      return true;
  }
}

// A word that stands in a document is at distance 0, however the dense product rounds.
void set_products_of_equal_rows(const SectionTask& task, const Words& words, int p,
                                const Panel& panel, float* products) {
  const Vocabulary& vocabulary = task.vocabulary;
  const Index m = vocabulary.vec_size;
  const auto product = metric_fits_rows(task) ? product_of_equal_rows : product_with_itself;
  const int first_row = task.batch.distinct->passes[p].first_row;
  const auto& all = task.equal_rows[p - task.section.first_pass];
  auto pair = std::lower_bound(all.begin(), all.end(), words.first,
                               [](const EqualRows& pair, int word) { return pair.word < word; });
  for (; pair != all.end() && pair->word < words.first + words.count; ++pair) {
    const float norm = vocabulary.norms[pair->word];
    const float* row = task.batch.rows + elements(pair->row, m);
    const float* word_row = vocabulary.rows + elements(pair->word, m);
    if (!has_direction(norm) || !std::equal(row, row + m, word_row)) continue;
    products[elements(pair->row - first_row, panel.stride) + pair->word - words.first] =
        product(task.request.metric, norm, unit_rows(task));
  }
}

// Replaces products by scores whose order is that of the distances even where the argument of the
// root is negative.
void fold_products(const SectionTask& task, const Words& words, const RowPass& pass, Panel& panel,
                   float* products) {
  const bool unit = task.request.metric == Metric::unit_euclidean;
  for (int r = pass.first_row; r < pass.last_row; ++r) {
    float* score = products + elements(r - pass.first_row, panel.stride);
    const float row_norm = unit ? 1 : task.batch.row_norms[r];
    for (int v = 0; v < words.count; ++v) {
      const float norm = unit ? 1 : task.vocabulary.norms[words.first + v];
      const float added = unit ? 2 : norm;  // when the score becomes a distance
      score[v] = std::fabs((score_per_dot * score[v] + norm) + row_norm) - added;
    }
  }
  panel.scale = 1;
  panel.row_bias = nullptr;
}

// The panel of these words and the rows of pass p, padded to whole lines; padding holds no scores.
Panel fill_panel(const SectionTask& task, int p, const Words& words, float* scores,
                 ProductScratch& scratch) {
  const RowPass& pass = task.batch.distinct->passes[p];
  const Index vec_size = task.vocabulary.vec_size;
  Panel panel{.scores = scores,
              .stride = panel_stride(task.plan),
              .words = static_cast<int>(round_up(words.count, line_floats)),
              .scale = 1,
              .row_bias = nullptr};
  switch (task.request.source) {
    case DistanceSource::ground_of_entry:
      gather_by_entry(task, pass, words, scores);
      break;
    case DistanceSource::ground_of_word:
      gather_by_word(task, pass, words, scores);
      break;
    case DistanceSource::vectors:
      dense_product({.words = task.vocabulary.rows + elements(words.first, vec_size),
                     .num_words = words.count,
                     .rows = task.batch.rows + elements(pass.first_row, vec_size),
                     .num_rows = pass.last_row - pass.first_row,
                     .m = task.vocabulary.vec_size,
                     .scores = scores,
                     .stride = panel.stride},
                    scratch);
      panel.scale = score_per_dot;
      if (task.request.metric == Metric::euclidean) {
        panel.row_bias = task.batch.row_norms + pass.first_row;
      }
      set_products_of_equal_rows(task, words, p, panel, scores);
      if (!metric_fits_rows(task)) fold_products(task, words, pass, panel, scores);
  }
  return panel;
}

// The entries of a document that belong to a pass.
EntryRange entries_in_pass(const SectionTask& task, int doc, const RowPass& pass) {
  const int first = std::max(task.batch.start[doc], pass.first_entry);
  const int last = std::min(task.batch.start[doc + 1], pass.last_entry);
  return {.row = task.batch.distinct->row_of_entry.data() + first,
          .weight = task.batch.weight + first,
          .count = std::max(last - first, 0)};
}

// Transposes a stage into a table, value by value; padding is 0.
template <class Value>
void transpose(const float* stage, Index stride, int docs, int words, int width, float* table,
               const Value& value) {
  for (int v = 0; v < words; ++v) {
    float* row = table + elements(v, width);
    for (int j = 0; j < docs; ++j) row[j] = value(stage[j * stride + v]);
    std::fill(row + docs, row + width, 0.0f);
  }
}

// Distances above this are those of missing entries.  As asked, no distance is longer.
float longest_distance(NearestRule rule) {
  return rule == NearestRule::as_asked ? far_away : std::numeric_limits<float>::max();
}

// If a document has fewer neighbours than the tables hold, its last one takes all remaining weight,
// and those after it take none, though their own weight may be negative.
void end_steps_early(const SectionTask& task, const NearestState& state, int doc, int words) {
  const int nearest = nearest_of(task.batch, doc, task.request.steps, task.request.rule);
  if (nearest >= task.nearest) return;
  for (int t = nearest - 1; t + 1 < task.nearest; ++t) {
    float* capacity = state.weight + elements(t, state.stride);
    const bool last = t == nearest - 1;
    std::fill(capacity, capacity + words, last ? std::numeric_limits<float>::max() : 0);
  }
}

// From the stage of a chunk to its place in the tables.
void store_chunk(const SectionTask& task, const Slab& slab, int chunk, int docs,
                 const Strip& strip) {
  const int width = task.plan.width;
  const auto [first_word, words] = strip.words;
  for (int j = 0; j < docs; ++j) {
    const NearestState state = state_of(task, strip.stage, j);
    for (int t = 0; t < task.nearest && task.request.source == DistanceSource::vectors; ++t) {
      scores_to_distances(task.request.metric, task.vocabulary.norms + first_word, words,
                          state.score + t * state.stride);
    }
    end_steps_early(task, state, slab.first_doc + chunk * width + j, words);
  }
  const NearestTables& tables = slab.tables;
  const Index at = (elements(chunk, tables.words) + first_word - tables.first_word) * width;
  const Index stride = stage_stride(task.plan);
  const NearestState all = state_of(task, strip.stage, 0);  // the other documents follow
  const float longest = longest_distance(task.request.rule);
  for (int t = 0; t < task.nearest; ++t) {
    transpose(all.score + t * all.stride, stride, docs, words, width, tables.distance[t] + at,
              [=](float distance) { return distance <= longest ? distance : far_away; });
    if (t + 1 == task.nearest) break;
    transpose(all.weight + t * all.stride, stride, docs, words, width, tables.capacity[t] + at,
              [](float capacity) { return capacity; });
  }
}

// Finds the nearest entries of every document in a pass, chunk by chunk.  Those of the section's
// last pass go to the tables; where there are several passes, the section has a single document.
void reduce_strip(const SectionTask& task, const Slab& slab, int p, const Strip& strip) {
  const RowPass& pass = task.batch.distinct->passes[p];
  const bool resume = p > task.section.first_pass;
  const bool last_pass = p + 1 == task.section.last_pass;
  const int width = task.plan.width;
  for (int chunk = 0; chunk < chunks_of(slab.tables.docs, width); ++chunk) {
    const int docs = std::min(width, slab.tables.docs - chunk * width);
    for (int j = 0; j < docs; ++j) {
      const int doc = slab.first_doc + chunk * width + j;
      find_nearest_entries(strip.panel, entries_in_pass(task, doc, pass), task.slots, resume,
                           state_of(task, strip.stage, j));
    }
    if (last_pass) store_chunk(task, slab, chunk, docs, strip);
  }
}

// The strip that begins `offset` words into a panel.
Strip strip_of(const SectionTask& task, const Panel& panel, const Words& words, int offset,
               float* stage) {
  Panel part = panel;
  part.scores += offset;
  part.words = std::min(task.plan.strip_words, panel.words - offset);
  return {.words = {words.first + offset, std::min(part.words, words.count - offset)},
          .panel = part,
          .stage = has_several_passes(task.section) ? stage + offset : stage};
}

// From a panel of words and all passes of the section into the tables.
void compute_panel(SectionTask& task, const Slab& slab, const Words& words, int thread) {
  const int rows = largest_pass_of(task.batch, task.section);
  float* scores =
      line_start(task.panels + elements(thread, panel_floats_of_thread(task.plan, rows)));
  float* stage = task.stages.data() + elements(thread, stage_floats(task.plan, task.slots));
  for (int p = task.section.first_pass; p < task.section.last_pass; ++p) {
    const Panel panel = fill_panel(task, p, words, scores, task.products[thread]);
    for (int offset = 0; offset < words.count; offset += task.plan.strip_words) {
      reduce_strip(task, slab, p, strip_of(task, panel, words, offset, stage));
    }
  }
}

void fill_tables(SectionTask& task, const Slab& slab) {
  const int panel_words = task.plan.panel_words;
  const int panels = (slab.tables.words + panel_words - 1) / panel_words;
  for_each_share(task.request.threads, panels, [&](int first, int last, int thread) {
    for (int panel = first; panel < last; ++panel) {
      if (task.request.checkpoint) task.request.checkpoint(thread);
      const int offset = panel * panel_words;
      const int count = std::min(panel_words, slab.tables.words - offset);
      compute_panel(task, slab, {slab.tables.first_word + offset, count}, thread);
    }
  });
}

// Words and rows of equal hashes, pass by pass.
std::vector<std::vector<EqualRows>> find_equal_rows(const SectionTask& task) {
  std::vector<std::vector<EqualRows>> found;
  if (task.request.source != DistanceSource::vectors) return found;
  const Index m = task.vocabulary.vec_size;
  for (int p = task.section.first_pass; p < task.section.last_pass; ++p) {
    const RowPass& pass = task.batch.distinct->passes[p];
    const std::vector<RowHash> hashes =
        hash_rows(task.batch.rows + elements(pass.first_row, m), elements(m, sizeof(float)),
                  pass.last_row - pass.first_row, task.request.threads);
    found.push_back(find_equal_hashes(task.vocabulary.row_hash, hashes));
    for (EqualRows& pair : found.back()) pair.row += pass.first_row;
  }
  return found;
}

void compute_section(SectionTask& task, const BlockBuffers& buffers, float* Z) {
  const int num_docs = task.resident.num_docs;
  EntryRanges ranges{std::vector<int>(num_docs), std::vector<int>(num_docs)};
  const int voc_size = task.vocabulary.voc_size;
  for (int doc = task.section.first_doc; doc < task.section.last_doc;
       doc += task.plan.window_docs) {
    const int docs = std::min(task.plan.window_docs, task.section.last_doc - doc);
    for (int word = 0; word < voc_size; word += task.plan.slab_words) {
      const Slab slab{.first_doc = doc,
                      .tables = {.first_word = word,
                                 .words = std::min(task.plan.slab_words, voc_size - word),
                                 .docs = docs,
                                 .width = task.plan.width,
                                 .distance = buffers.distance,
                                 .capacity = buffers.capacity}};
      fill_tables(task, slab);
      pour(slab.tables, task.resident, task.request.threads, ranges, Z + elements(doc, num_docs));
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
  const int threads = std::max(request.threads, 1);
  BlockSizes sizes{0, 0};
  for (const BatchSection& section : batch.distinct->sections) {
    const TilePlan plan = plan_section(vocabulary, batch, request, section, nearest);
    const int rows = largest_pass_of(batch, section);
    sizes.panels = std::max(sizes.panels, elements(threads, panel_floats_of_thread(plan, rows)));
    sizes.table = std::max(sizes.table, elements(plan.window_docs, plan.slab_words));
  }
  return sizes;
}

void compute_distance_block(const Vocabulary& vocabulary, const CsrCollection& resident,
                            const QueryBatch& batch, const BlockRequest& request,
                            const BlockBuffers& buffers, float* Z) {
  const Index distances = elements(batch.num_docs, resident.num_docs);
  // Without a vocabulary no document has an entry, and there is no weight to move.
  if (vocabulary.voc_size <= 0) std::fill(Z, Z + distances, 0.0f);
  if (vocabulary.voc_size <= 0 || distances == 0) return;
  const SingleThreadedBlas single_threaded_blas;
  const ProductScratch unused_scratch = product_scratch(vocabulary.vec_size);
  const int nearest = nearest_of_batch(batch, request.steps, request.rule);
  const Index threads = std::max(request.threads, 1);
  for (const BatchSection& section : batch.distinct->sections) {
    SectionTask task{.vocabulary = vocabulary,
                     .resident = resident,
                     .batch = batch,
                     .request = request,
                     .section = section,
                     .plan = plan_section(vocabulary, batch, request, section, nearest),
                     .nearest = nearest,
                     .slots = nearest_slots(nearest),
                     .panels = buffers.panels,
                     .stages = {},
                     .products = {},
                     .equal_rows = {}};
    task.stages.resize(threads * stage_floats(task.plan, task.slots));
    task.products.assign(threads, unused_scratch);
    task.equal_rows = find_equal_rows(task);
    compute_section(task, buffers, Z);
  }
}

}  // namespace talvik::internal
