// The distance of one pair of documents, in double precision: what every answer is made of.
#ifndef TALVIK_SEARCH_PAIR_DISTANCE_HPP
#define TALVIK_SEARCH_PAIR_DISTANCE_HPP

#include <span>
#include <vector>

#include "search/dual_bound.hpp"
#include "search/transport.hpp"
#include "search/vector_table.hpp"
#include "search/word_distances.hpp"
#include "talvik/search.hpp"

namespace talvik::internal {

/// A document's entries, words ascending.
struct DocumentView {
  const VectorTable& vectors;
  std::span<const int> words;
  std::span<const float> weights;
};

/// A part of an entry's weight that moves; numbers of entries.
struct EntryFlow {
  int from, to;
  double weight, distance;
};

/// What a distance is made of.
struct PairFlows {
  double distance = 0;           ///< the sum of weight x distance, not rounded to float
  bool from_query = false;       ///< whether `from` is the query's entry and `to` the document's
  std::vector<EntryFlow> flows;  ///< by entry; none where the distance is infinite
};

/// Forms distances of pairs; keeps its working memory from one pair to the next.  Results do not
/// depend on what was computed before, nor on the processor.
class PairDistance {
 public:
  /// The relaxed distance, rounded to float; infinite where a document has no entry.
  /// @pre distance.measure is not exact; weights are not negative where distance.steps > 0
  float relaxed(const DocumentView& document, const DocumentView& query, const Distance& distance) {
    return static_cast<float>(relaxed_sum(document, query, distance));
  }

  /// The same before it is rounded.  Costs are summed by entry.
  double relaxed_sum(const DocumentView& document, const DocumentView& query,
                     const Distance& distance);

  /// The cost of the optimal transport, the weights of both documents scaled to the sum of
  /// document's; infinite where a document has no entry.
  /// @pre weights are not negative, and their sums positive
  double exact(const DocumentView& document, const DocumentView& query, talvik::Metric metric);

  /// The distance that is asked for, relaxed or exact.
  double distance(const DocumentView& document, const DocumentView& query,
                  const Distance& distance) {
    return distance.measure == Measure::exact ? exact(document, query, distance.metric)
                                              : relaxed(document, query, distance);
  }

  /// A lower bound of exact(), a percent or so below it, at a fraction of its time.
  double exact_bound(const DocumentView& document, const DocumentView& query,
                     talvik::Metric metric);

  /// The flows of the relaxed or exact distance, under the same conditions.
  PairFlows flows(const DocumentView& document, const DocumentView& query,
                  const Distance& distance);

 private:
  void fill_distances(const DocumentView& document, const DocumentView& query,
                      talvik::Metric metric);
  template <class Visit>
  void move_words(bool from_query, const DocumentView& document, const DocumentView& query,
                  int steps, const Visit& visit);
  double sum_of_words(bool from_query, const DocumentView& document, const DocumentView& query,
                      int steps);
  double sum_of_nearest(bool from_query, const DocumentView& document, const DocumentView& query);
  void find_transport(const DocumentView& document, const DocumentView& query,
                      talvik::Metric metric);
  void keep_equal_words();
  void prepare_transport(const DocumentView& document, const DocumentView& query,
                         talvik::Metric metric);
  bool collect_rest();
  void move_rest();

  WordDistanceScratch rows_;
  std::vector<double> distances_;  // of words: document's entry i, query's entry j at i*query + j
  std::vector<double> of_word_;    // of one word, or of the nearest ones
  std::vector<Mass> supply_, demand_;  // what is still to be moved, per entry
  std::vector<MassFlow> transport_;
  Transport solver_;
  // The entries that the solver sees, and what it is told of them.
  std::vector<int> sources_, sinks_;
  std::vector<Mass> source_mass_, sink_mass_;
  DualBound dual_bound_;
  std::vector<double> costs_;
};

}  // namespace talvik::internal

#endif
