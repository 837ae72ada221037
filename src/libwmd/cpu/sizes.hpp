// The size rules of the CPU engine: pure functions of counts and budgets.
#ifndef TALVIK_LIBWMD_CPU_SIZES_HPP
#define TALVIK_LIBWMD_CPU_SIZES_HPP

#include <algorithm>
#include <climits>

#include "libwmd/cpu/cache_line.hpp"

namespace talvik::internal {

/// Floats of a cache line, and of the widest register: what tiles are rounded to.
inline constexpr int line_floats = 16;
static_assert(line_floats * sizeof(float) == line_bytes);

constexpr long long round_up(long long n, long long unit) { return (n + unit - 1) / unit * unit; }

// --- What a computation asks for, so that a process that cannot have it says so at once.

inline constexpr long long distance_block_floats = 1ll << 30;        // 4 GiB, ed_min_vocab_cpu
inline constexpr long long multi_distance_block_floats = 1ll << 29;  // 2 GiB, .._multi

/// Vocabulary words whose distances to n2 query entries fit the distance block.
constexpr long long words_per_distance_block(long long voc_size, long long n2) {
  if (n2 <= 0) return voc_size;
  return static_cast<long long>(
      std::min<double>(static_cast<double>(voc_size),
                       static_cast<double>(distance_block_floats) / static_cast<double>(n2)));
}
static_assert(words_per_distance_block(2'000'000, 1'000'000) == 1073);
static_assert(words_per_distance_block(100, 1'000'000) == 100);

// --- What it really uses: tiles that stay in cache, whatever the batch.

/// Floats of working memory for all threads of the team together.  With what the dense products
/// pack (32 MiB a thread by OpenBLAS, 1.2 MiB for the matrix unit) the engine stays below 512 MiB.
struct EngineBudget {
  long long panel_floats = 48ll << 20;   ///< word-by-row scores, all threads: 192 MiB
  long long table_floats = 24ll << 20;   ///< nearest distances and capacities: 96 MiB
  long long stage_floats = 256ll << 10;  ///< of each thread, on their way to the tables: 1 MiB
};

/// What the engine takes at most with all that, for whoever plans a run: 512 MiB.
inline constexpr long long engine_floats_most = 128ll << 20;

/// Words of a panel.  A dense product packs all rows anew for every panel, which takes the BLAS an
/// eighth of its time at 256 words and less the more there are; the reduction of wider panels is
/// slower, since their rows lie further apart (1.5, 1.7 and 2.9 ns per row and line at 256, 512 and
/// 1024 words).
inline constexpr int panel_words_wanted = 64;
inline constexpr int panel_words_most = 512;

/// Words of a panel that are reduced at a time: few enough for the scores of the frequent rows to
/// stay in the second-level cache from document to document.
inline constexpr int strip_words_most = 64;

/// Distinct query rows that one pass may hold, so that every thread has room for a panel.
constexpr int rows_per_pass(const EngineBudget& budget, int threads) {
  const long long rows = budget.panel_floats / (1ll * std::max(threads, 1) * panel_words_wanted);
  return static_cast<int>(std::clamp<long long>(rows, 1, INT_MAX / panel_words_most));
}
static_assert(rows_per_pass(EngineBudget{}, 2) == 393'216);
static_assert(rows_per_pass(EngineBudget{1, 1, 1}, 64) == 1);

/// Nearest words that share a resident word's weight: steps + 1, halved until it fits the document.
constexpr int nearest_of_document(int steps, int entries) {
  long long nearest = std::max<long long>(steps, 0) + 1;
  while (nearest > entries && nearest > 1) nearest /= 2;
  return static_cast<int>(nearest);
}
static_assert(nearest_of_document(3, 3) == 2 && nearest_of_document(2, 2) == 1);
static_assert(nearest_of_document(7, 100) == 8 && nearest_of_document(5, 0) == 1);

/// Query documents side by side in a row of a table: 64, or less where that would be mostly
/// padding.
constexpr int table_width(int docs) {
  if (docs > 3 * line_floats) return 4 * line_floats;
  return docs > line_floats ? 2 * line_floats : line_floats;
}
static_assert(table_width(1) == 16 && table_width(20) == 32 && table_width(1000) == 64);

/// How one group of query documents is computed.
struct TilePlan {
  int width;        ///< query documents side by side in a table row
  int window_docs;  ///< query documents per round; more are computed in several rounds
  int block_words;  ///< vocabulary words whose tables are held at once
  int panel_words;  ///< vocabulary words whose scores a thread holds at once
  int strip_words;  ///< of them, as many as are reduced at a time
  int stage_words;  ///< of them, as many as are kept on their way to the tables
};

/// @param rows     distinct query rows of the group's largest pass
/// @param docs     query documents of the group, at least 1
/// @param nearest  nearest words per vocabulary word and document
/// @param slots    of them, as many as are kept while they are searched
/// @param panel_most  words of a panel at most
/// @param several_passes  nearest entries of a panel are kept from pass to pass
constexpr TilePlan plan_tiles(const EngineBudget& budget, int threads, int voc_size, int rows,
                              int docs, int nearest, int slots, int panel_most,
                              bool several_passes) {
  threads = std::max(threads, 1);
  const int width = table_width(docs);
  const long long tables = 2ll * nearest - 1;
  const long long docs_fit = budget.table_floats / (tables * line_floats) / width * width;
  const long long window = std::clamp<long long>(docs_fit, width, round_up(docs, width));
  const long long words_fit = budget.table_floats / (tables * window) / line_floats * line_floats;
  long long block = std::clamp<long long>(words_fit, line_floats, round_up(voc_size, line_floats));
  const long long panels_fit =
      budget.panel_floats / (1ll * threads * std::max(rows, 1)) - line_floats;
  const long long stage_fits =
      std::max(budget.stage_floats / (2ll * slots * width) / line_floats, 1ll) * line_floats;
  const long long strip = std::min<long long>(stage_fits, strip_words_most);
  long long panel = std::clamp<long long>(
      panels_fit / line_floats * line_floats, line_floats,
      several_passes ? std::min<long long>(stage_fits, panel_most) : panel_most);
  // The same number of panels for every thread, all of about the same width.
  const long long rounds = std::max((block + threads * panel - 1) / (threads * panel), 1ll);
  panel = std::clamp<long long>(
      round_up((block + threads * rounds - 1) / (threads * rounds), line_floats), line_floats,
      panel);
  return {width,
          static_cast<int>(window),
          static_cast<int>(block),
          static_cast<int>(panel),
          static_cast<int>(strip),
          static_cast<int>(several_passes ? panel : strip)};
}

}  // namespace talvik::internal

#endif
