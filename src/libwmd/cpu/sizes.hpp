// The size rules of the CPU engine: pure functions of counts and budgets.
#ifndef TALVIK_LIBWMD_CPU_SIZES_HPP
#define TALVIK_LIBWMD_CPU_SIZES_HPP

#include <algorithm>
#include <climits>

#include "internal/index.hpp"
#include "libwmd/cpu/cache_line.hpp"

namespace talvik::internal {

/// Floats of a cache line, and of the widest register: the unit of padding.
inline constexpr int line_floats = 16;
static_assert(line_floats * sizeof(float) == line_bytes);

constexpr Index round_up(Index n, Index unit) { return (n + unit - 1) / unit * unit; }

// --- What a computation asks for, so that a process that cannot have it says so at once.

inline constexpr Index y_floats_most = Index{1} << 30;   ///< Y of ed_min_vocab_cpu, 4 GiB
inline constexpr Index multi_y_floats = Index{1} << 29;  ///< Y of ed_min_vocab_cpu_multi, 2 GiB

/// Vocabulary words whose distances to n2 query entries fit Y.
constexpr Index words_of_y(Index voc_size, Index n2) {
  if (n2 <= 0) return voc_size;
  const double words = static_cast<double>(y_floats_most) / static_cast<double>(n2);
  return static_cast<Index>(std::min(static_cast<double>(voc_size), words));
}
static_assert(words_of_y(2'000'000, 1'000'000) == 1073);
static_assert(words_of_y(100, 1'000'000) == 100);

// --- What it really uses: tiles that stay in cache, whatever the batch.

/// Floats of working memory.  With the packed operands of the dense products (32 MiB a thread in
/// OpenBLAS, 1.2 MiB for the matrix unit) the engine stays below 512 MiB.
struct EngineBudget {
  Index panel_floats = Index{48} << 20;   ///< scores of all threads' panels together: 192 MiB
  Index table_floats = Index{24} << 20;   ///< nearest distances and capacities: 96 MiB
  Index stage_floats = Index{256} << 10;  ///< the stage of each thread: 1 MiB
};

/// Words of a panel.  A dense product packs all rows anew for every panel, which takes the BLAS an
/// eighth of its time at 256 words and less the more there are; wider panels are slower to reduce,
/// since their rows are further apart (1.5, 1.7 and 2.9 ns per row and line at 256, 512 and 1024
/// words).
inline constexpr int panel_words_wanted = 64;
inline constexpr int panel_words_most = 512;

/// Words of a strip at most.  The scores of frequent rows stay in the second-level cache from
/// document to document.
inline constexpr int strip_words_most = 64;

/// Distinct query rows that one pass may hold, so that every thread has room for a panel.
constexpr int rows_per_pass(const EngineBudget& budget, int threads) {
  const Index rows = budget.panel_floats / (Index{std::max(threads, 1)} * panel_words_wanted);
  return static_cast<int>(std::clamp<Index>(rows, 1, INT_MAX / panel_words_most));
}
static_assert(rows_per_pass(EngineBudget{}, 2) == 393'216);
static_assert(rows_per_pass(EngineBudget{1, 1, 1}, 64) == 1);

/// Nearest entries that share a resident entry's weight: steps + 1, halved until the document has
/// as many.
constexpr int nearest_of_document(int steps, int entries) {
  Index nearest = std::max<Index>(steps, 0) + 1;
  while (nearest > entries && nearest > 1) nearest /= 2;
  return static_cast<int>(nearest);
}
static_assert(nearest_of_document(3, 3) == 2 && nearest_of_document(2, 2) == 1);
static_assert(nearest_of_document(7, 100) == 8 && nearest_of_document(5, 0) == 1);

/// Query documents of a chunk: 64, or fewer where that would be mostly padding.
constexpr int table_width(int docs) {
  if (docs > 3 * line_floats) return 4 * line_floats;
  return docs > line_floats ? 2 * line_floats : line_floats;
}
static_assert(table_width(1) == 16 && table_width(20) == 32 && table_width(1000) == 64);

/// How one section of a batch is computed.
struct TilePlan {
  int width;        ///< query documents of a chunk
  int window_docs;  ///< query documents whose tables are held at a time
  int slab_words;   ///< vocabulary words whose tables are held at a time
  int panel_words;  ///< words whose scores a thread holds at a time
  int strip_words;  ///< words of a panel that are searched at a time
  int stage_words;  ///< words whose nearest entries a stage holds
};

struct TileNeeds {
  int threads;
  int voc_size;
  int rows;               ///< distinct query rows of the section's largest pass
  int docs;               ///< query documents of the section, at least 1
  int nearest;            ///< nearest entries per vocabulary word and document
  int slots;              ///< list length during the search
  int panel_words_limit;  ///< words of a panel at most
  bool several_passes;    ///< the stage keeps a whole panel's nearest entries from pass to pass
};

constexpr TilePlan plan_tiles(const EngineBudget& budget, const TileNeeds& needs) {
  const Index threads = std::max(needs.threads, 1);
  const Index width = table_width(needs.docs);

  // Tables: as many documents as fit with one line of words, then as many words as fit with these.
  const Index tables = 2 * Index{needs.nearest} - 1;
  const Index docs_fit = budget.table_floats / (tables * line_floats) / width * width;
  const Index window = std::clamp(docs_fit, width, round_up(needs.docs, width));
  const Index words_fit = budget.table_floats / (tables * window) / line_floats * line_floats;
  const Index slab =
      std::clamp<Index>(words_fit, line_floats, round_up(needs.voc_size, line_floats));

  const Index stage_fits = std::max<Index>(
      budget.stage_floats / (Index{2} * needs.slots * width) / line_floats * line_floats,
      line_floats);
  const Index strip = std::min<Index>(stage_fits, strip_words_most);

  // Panels: every thread gets the same number of them, all of about the same width.
  const Index panels_fit =
      (budget.panel_floats / (threads * std::max(needs.rows, 1)) - line_floats) / line_floats *
      line_floats;
  const Index panel_limit = needs.several_passes
                                ? std::min<Index>(stage_fits, needs.panel_words_limit)
                                : needs.panel_words_limit;
  const Index widest = std::clamp<Index>(panels_fit, line_floats, panel_limit);
  const Index rounds = std::max<Index>((slab + threads * widest - 1) / (threads * widest), 1);
  const Index panel =
      std::clamp<Index>(round_up((slab + threads * rounds - 1) / (threads * rounds), line_floats),
                        line_floats, widest);

  return {.width = static_cast<int>(width),
          .window_docs = static_cast<int>(window),
          .slab_words = static_cast<int>(slab),
          .panel_words = static_cast<int>(panel),
          .strip_words = static_cast<int>(strip),
          .stage_words = static_cast<int>(needs.several_passes ? panel : strip)};
}

static_assert(plan_tiles(EngineBudget{}, {.threads = 2,
                                          .voc_size = 50'000,
                                          .rows = 27'000,
                                          .docs = 1000,
                                          .nearest = 1,
                                          .slots = 1,
                                          .panel_words_limit = panel_words_most,
                                          .several_passes = false})
                  .slab_words == 24'576);

}  // namespace talvik::internal

#endif
