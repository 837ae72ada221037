// Nearest neighbours among documents, by the relaxed and by the exact word mover's distance.
//
// Every answer is the one of the full computation: bounds decide what need not be computed, never
// what the answer is.  Relaxed distances are formed in double precision from the rows as they are
// and rounded to float at the end; equal distances go by the number of the document.  They do not
// depend on threads, processes, batches or the processor.
#ifndef TALVIK_SEARCH_HPP
#define TALVIK_SEARCH_HPP

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "talvik/api.hpp"
#include "talvik/collection.hpp"

namespace talvik {

class Communicator;

/// Which way the words travel.  A document without words is infinitely far from every document.
enum class Measure {
  one_way,    ///< every word of the resident document to the nearest words of the query
  other_way,  ///< every word of the query to the nearest words of the resident document
  two_way,    ///< the larger of both
  exact,      ///< the cost of the optimal transport of one document's weights to the other's
};

/// The distance between two words.
enum class Metric {
  euclidean,  ///< the length of the difference of the rows
  cosine,     ///< 1 - the cosine of the angle between the rows; 1 where a row is zero
};

/// The distance between two documents.
struct Distance {
  Measure measure = Measure::two_way;  ///< which way the words travel
  /// Capacity steps of the relaxed measures: a word moves at most the weight of the nearest word
  /// there, the rest to the next one, and so on; what is left after so many steps goes to the next
  /// nearest as a whole.  A document of fewer than steps + 1 words takes as many as it can of
  /// (steps + 1), (steps + 1)/2, (steps + 1)/4 ...  Not read for exact.
  int steps = 0;
  Metric metric = Metric::euclidean;  ///< between words
};

/// How far a search has come.  Collective searches report on every process that has documents,
/// and perhaps on others.
struct Progress {
  Count done;      ///< queries answered
  Count total;     ///< queries in all
  double seconds;  ///< since the call
};

/// How a search is made.
struct SearchOptions {
  Distance distance = {};  ///< by which documents are near
  int threads = 0;         ///< of the team; 0: as many as OpenMP would take
  /// Working memory in bytes, beside collections and results, and beside copies of rows that the
  /// cosine of unscaled vectors and slices need, and what a pair of very long documents takes.
  std::size_t memory = std::size_t{512} << 20;
  /// With several processes: `collection` is each process's slice, in the order of the ranks;
  /// queries, k and options are the same everywhere; every process gets the whole answer.
  const Communicator* communicator = nullptr;
  /// Called by the thread that searches, several times a second; false ends the search by
  /// Cancelled.  With several processes any of them may ask for the end, which all of them throw.
  std::function<bool(const Progress&)> progress = {};
  double progress_seconds = 0.1;  ///< between two of these calls, at least
};

/// What a search did, summed over the processes; seconds are those of the slowest one, those of
/// refining and solving a mean over its threads.
struct SearchStats {
  Count pairs = 0;    ///< pairs of documents, all of them bounded in one direction
  Count refined = 0;  ///< pairs whose other direction or capacity steps were looked at
  Count settled = 0;  ///< pairs whose relaxed distance was formed in double precision
  /// For exact: pairs whose cost was bounded by a feasible solution of the dual problem.
  Count dual_bounds = 0;
  Count solved = 0;           ///< transport problems
  double bound_seconds = 0;   ///< one direction of all pairs
  double refine_seconds = 0;  ///< the other direction and the capacity steps of candidates
  double solve_seconds = 0;   ///< distances in double precision, dual bounds, transport problems
  double seconds = 0;         ///< of the whole call
};

/// Lists of neighbours: that of query q is [offsets[q], offsets[q + 1]), nearest first.
struct Neighbours {
  std::vector<Count> offsets;    ///< queries + 1
  std::vector<Count> documents;  ///< numbers in the whole collection, whatever the slices
  std::vector<float> distances;  ///< of relaxed measures; else empty
  std::vector<double> exact;     ///< of Measure::exact; else empty
  SearchStats stats;             ///< what the search did

  /// Lists.
  Count num_queries() const { return static_cast<Count>(offsets.size()) - 1; }
  /// The distance at a place of `documents`, whatever the measure.
  double distance(Count place) const {
    return exact.empty() ? static_cast<double>(distances[place]) : exact[place];
  }
};

/// The min(k, documents) nearest documents of every query.
/// @throws ArgumentError  for k below 1, for dimensions or scaling that differ, and for exact
///                        distances of documents whose weights do not sum to the same
TALVIK_API Neighbours neighbours(const Collection& collection, const Collection& queries, int k,
                                 const SearchOptions& options = {});
/// Those of every document of the collection, without itself.
TALVIK_API Neighbours neighbours(const Collection& collection, int k,
                                 const SearchOptions& options = {});

/// All documents at most `radius` away, nearest first.
/// @throws ArgumentError  a radius that is negative or no number, and as neighbours()
TALVIK_API Neighbours within(const Collection& collection, const Collection& queries, double radius,
                             const SearchOptions& options = {});
/// Those of every document of the collection, without itself.
TALVIK_API Neighbours within(const Collection& collection, double radius,
                             const SearchOptions& options = {});

/// A document of a collection, and a query: numbers in their collections.
struct Pair {
  Count document;  ///< of the collection
  Count query;     ///< of the queries
};

/// The distances of some pairs; one process.
TALVIK_API std::vector<double> distances(const Collection& collection, const Collection& queries,
                                         std::span<const Pair> pairs,
                                         const SearchOptions& options = {});

/// That of document i and query q is at q*documents + i.
struct DistanceMatrix {
  Count documents = 0;           ///< of the collection
  Count queries = 0;             ///< queries
  std::vector<float> distances;  ///< of relaxed measures; else empty
  std::vector<double> exact;     ///< of Measure::exact; else empty
};

/// All distances; one process.  Relaxed ones are formed in single precision: between words that are
/// nearly the same it leaves up to a few thousandths, where neighbours() and distances() are right.
/// @throws ArgumentError  as neighbours()
TALVIK_API DistanceMatrix distance_matrix(const Collection& collection, const Collection& queries,
                                          const SearchOptions& options = {});

/// A part of a word's weight that moves.
struct Flow {
  int from;         ///< word number in the vocabulary of its document's collection
  int to;           ///< likewise of the other document's
  double weight;    ///< what moves
  double distance;  ///< between the words; its cost is weight * distance
};

/// What a distance is made of.
struct Explanation {
  double distance = 0;  ///< the sum of the costs
  /// Whether the words of the query move to the document's (other_way, or where it is the larger of
  /// both); else those of the document move to the query's.
  bool from_query = false;
  std::vector<Flow> flows;  ///< by falling cost; of words that stay, too
};

/// What the distance of a pair is made of.
TALVIK_API Explanation explain(const Collection& collection, Count document,
                               const Collection& queries, Count query,
                               const Distance& distance = {});

}  // namespace talvik

#endif
