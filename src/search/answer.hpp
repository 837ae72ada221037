// What is known of the answer to one query, and how far its candidates have to be looked at.
#ifndef TALVIK_SEARCH_ANSWER_HPP
#define TALVIK_SEARCH_ANSWER_HPP

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "talvik/api.hpp"

namespace talvik::internal {

/// A distance and the number of its document; ordered by distance, then by number.
using Found = std::pair<double, Count>;

/// The k nearest documents within a radius, as they become known.
class Answer {
 public:
  Answer(Count k, double radius) : k_(static_cast<size_t>(k)), limit_(radius) {}

  /// No document that is further away than this belongs to the answer.
  double limit() const { return limit_; }

  /// Another process knows of so many documents that are no further away than this.
  void lower_limit(double limit) { limit_ = std::min(limit_, limit); }

  /// What the limit comes from: upper bounds of at most k documents, or their distances.
  std::vector<Found> known() const {
    if (uppers_.empty()) return found_;
    std::vector<Found> known;
    for (const double upper : uppers_) known.emplace_back(upper, 0);
    return known;
  }

  /// A document is at most so far away, which is not its distance yet.
  void offer_upper_bound(double upper) {
    push(uppers_, upper);
    if (uppers_.size() == k_) lower_limit(uppers_.front());
  }

  void add(const Found& found) {
    if (found.first > limit_) return;
    push(found_, found);
    if (found_.size() == k_) lower_limit(found_.front().first);
  }

  /// Nearest first.  The answer is empty afterwards.
  std::vector<Found> take() {
    std::vector<Found> found = std::move(found_);
    // What was added before the limit came down may be beyond it.
    std::erase_if(found, [this](const Found& one) { return one.first > limit_; });
    std::sort(found.begin(), found.end());
    return found;
  }

 private:
  // A heap of the k smallest, the largest of them in front.
  template <class Value>
  void push(std::vector<Value>& heap, const Value& value) const {
    if (heap.size() == k_) {
      if (!(value < heap.front())) return;
      std::pop_heap(heap.begin(), heap.end());
      heap.back() = value;
    } else {
      heap.push_back(value);
    }
    std::push_heap(heap.begin(), heap.end());
  }

  size_t k_;
  double limit_;
  std::vector<Found> found_;
  std::vector<double> uppers_;
};

inline constexpr Count no_limit = std::numeric_limits<Count>::max();

}  // namespace talvik::internal

#endif
