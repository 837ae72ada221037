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
/// @param documents  of the resident side, of the largest slice
/// @param words      that the processes may share; 0: none
constexpr SearchPlan plan_search(std::size_t memory, int threads, Index documents,
                                 Index words = 0) {
  // Three eighths are the block of distances, a quarter the engine's panels and tables, a quarter
  // the tables of the refinement.  The rest is for the candidates, the packed operands of the
  // products and the rows of the batch.
  constexpr Index eighths = 8;
  const Index floats = std::max<Index>(static_cast<Index>(memory / sizeof(float)), eighths);
  const Index block = floats / eighths * 3;
  const Index engine = floats / eighths * 2;
  const Index tables = floats / eighths * 2;
  // Beside the distances of a query to the documents of a block stand those to all shared words.
  const bool shares_words = words > 0 && words * queries_least <= block / 2;
  const Index beside = shares_words ? words : 0;
  const Index countable = shares_words ? INT_MAX / words : queries_wanted;
  const Index fitting = std::min(block / std::max<Index>(documents + beside, 1), countable);
  const auto queries = static_cast<int>(std::clamp<Index>(fitting, queries_least, queries_wanted));
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
static_assert(plan_search(std::size_t{512} << 20, 1, 100'000, 50'000).queries_at_a_time == 335);
static_assert(plan_search(std::size_t{512} << 20, 1, 10'000'000, 50'000).resident_at_a_time ==
              736'432);
static_assert(!plan_search(std::size_t{512} << 20, 1, 1000, 400'000).shares_words);

}  // namespace talvik::internal

#endif
