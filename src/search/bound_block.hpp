// The first bound: relaxed distances in one direction, in single precision, of a batch of queries
// to a range of the resident documents.
#ifndef TALVIK_SEARCH_BOUND_BLOCK_HPP
#define TALVIK_SEARCH_BOUND_BLOCK_HPP

#include <functional>
#include <memory>
#include <vector>

#include "libwmd/cpu/pour.hpp"
#include "libwmd/cpu/sizes.hpp"
#include "search/side.hpp"

namespace talvik::internal {

/// Documents [first, first + count) of a side.
struct Range {
  Count first;
  int count;
};

/// All documents of a side, in ranges of at most so many documents, whose entries can be numbered
/// by ints.
std::vector<Range> cut_blocks(const Side& side, Count documents_at_a_time);

struct BlockRules {
  talvik::Metric metric;
  int steps;
  int threads;
  EngineBudget budget;
  std::function<void(int thread)> checkpoint;  ///< as in BlockRequest
};

/// Working memory that is kept from block to block, so that its pages are there already.
class Workspace {
 public:
  /// The blocks' arrays; from first_table on are tables of nearest distances.
  enum : size_t { turned_part, panels, first_table };

  /// Array `number`, of at least so many floats; their values mean nothing.
  float* floats(size_t number, Index count);

 private:
  struct Array {
    std::unique_ptr<float[]> floats;
    Index count = 0;
  };
  std::vector<Array> arrays_;
};

/// The documents of a range as the engine takes them.
struct EngineDocuments {
  EngineDocuments(const Side& side, const Range& range);
  EngineDocuments(const EngineDocuments&) = delete;
  EngineDocuments& operator=(const EngineDocuments&) = delete;

  std::vector<int> start;
  CsrCollection csr;
};

/// Every word of a document of `from` travels to the nearest words of a document of `to`:
///   Z[t*from_range.count + f] = the distance from document f to document t, both counted from the
///   first of their range
/// A document of `to` without words is at far_away, one of `from` at 0.
/// @param Z  to_range.count * from_range.count floats, no array of the workspace
void one_way_block(const Side& from, const Range& from_range, const Side& to, const Range& to_range,
                   const BlockRules& rules, Workspace& workspace, float* Z);

/// The same distances, turned:
///   Z[f*to_range.count + t]
void turned_one_way_block(const Side& from, const Range& from_range, const Side& to,
                          const Range& to_range, const BlockRules& rules, Workspace& workspace,
                          float* Z);

}  // namespace talvik::internal

#endif
