// How the working memory of a search is divided.
#ifndef TALVIK_SEARCH_SEARCH_PLAN_HPP
#define TALVIK_SEARCH_SEARCH_PLAN_HPP

#include <algorithm>
#include <climits>
#include <cstddef>

#include "internal/address_space.hpp"
#include "internal/index.hpp"
#include "libwmd/cpu/sizes.hpp"

namespace talvik::internal {

struct SearchPlan {
  int queries_at_a_time;     ///< of a batch
  Index resident_at_a_time;  ///< documents of a block, which also has at most entries_of_block
  bool shares_words;         ///< see SharedWords
  EngineBudget engine;       ///< of the first bound
  Index table_floats;        ///< of each thread's refinement
};

/// Entries of a block at most: their offsets are ints.
inline constexpr Index entries_of_block = Index{1} << 30;

/// Queries that share the products of a batch, if the memory allows.  The more there are, the fewer
/// words are multiplied again in the next batch.
inline constexpr int queries_wanted = 8192;
/// Blocks are made smaller rather than batches below this.
inline constexpr int queries_least = 64;

/// @param memory     bytes in all
/// What several processes have that might share words, see SharedWords.
struct SharingProcesses {
  int count = 1;
  Index words = 0;      ///< of the whole collection
  Index own_words = 0;  ///< that a slice has, at most
  Index queries = 0;    ///< that are answered in a row
};

/// @param documents  of the resident side, of the largest slice
constexpr SearchPlan plan_search(std::size_t memory, int threads, Index documents,
                                 const SharingProcesses& processes = {}) {
  // Three eighths are the block of distances, with those of shared words, a quarter the engine's
  // panels and tables, a quarter the tables of the refinement.  The rest is for the candidates, the
  // packed operands of the products and the rows of the batch.
  constexpr Index eighths = 8;
  const Index floats = std::max<Index>(static_cast<Index>(memory / sizeof(float)), eighths);
  const Index block = floats / eighths * 3;
  const Index engine = floats / eighths * 2;
  const Index tables = floats / eighths * 2;
  // Beside the distances of a query to the documents of a block stand those to all shared words.
  const Index words = processes.words;
  const auto queries_beside = [=](Index shared_words) {
    const Index fitting = block / std::max<Index>(documents + shared_words, 1);
    const Index countable = INT_MAX / std::max<Index>(shared_words, 1);
    return std::clamp<Index>(std::min(fitting, countable), queries_least, queries_wanted);
  };
  const bool can_share = processes.count > 1 && words > 0 && words <= INT_MAX / queries_least &&
                         words * queries_least <= block / 2;
  // A process multiplies its words with the distinct words of every batch, which grow about as the
  // root of the batch; sharing means fewer words, and smaller batches.
  const auto products = [&](Index words_of_process, Index batch) {
    const auto side = static_cast<double>(words_of_process);
    const Index batch_of_all = std::min(batch, std::max<Index>(processes.queries, 1));
    return side * side / static_cast<double>(batch_of_all);  // squared, per query
  };
  const bool shares_words = can_share && products(words / processes.count, queries_beside(words)) <
                                             products(processes.own_words, queries_beside(0));
  const Index beside = shares_words ? words : 0;
  const auto queries = static_cast<int>(queries_beside(beside));
  EngineBudget budget;
  budget.panel_floats = std::min(budget.panel_floats, engine / 3 * 2);
  budget.table_floats = std::min(budget.table_floats, engine / 3);
  return {.queries_at_a_time = queries,
          .resident_at_a_time = std::clamp<Index>(block / queries - beside, 1, INT_MAX / 2),
          .shares_words = shares_words,
          .engine = budget,
          .table_floats = tables / std::max(threads, 1)};
}
static_assert(plan_search(std::size_t{512} << 20, 2, 200'000).queries_at_a_time == 251);
static_assert(plan_search(std::size_t{512} << 20, 2, 100'000'000).queries_at_a_time == 64);
static_assert(plan_search(0, 1, 10).resident_at_a_time == 1);
static_assert(plan_search(std::size_t{512} << 20, 1, 100'000, {2, 50'000, 49'500, 500})
                  .queries_at_a_time == 335);
static_assert(plan_search(std::size_t{512} << 20, 1, 10'000'000, {2, 50'000, 50'000, 500})
                  .resident_at_a_time == 736'432);
static_assert(
    !plan_search(std::size_t{512} << 20, 1, 10'000, {2, 45'763, 37'500, 10'000}).shares_words);
static_assert(
    !plan_search(std::size_t{512} << 20, 1, 1000, {8, 400'000, 400'000, 10}).shares_words);
static_assert(!plan_search(std::size_t{1} << 50, 1, 1000, {8, 1 << 30, 1 << 30, 10}).shares_words);

}  // namespace talvik::internal

#endif
