#include "search/refiner.hpp"

#include <algorithm>

#include "libwmd/cpu/nearest_entries.hpp"
#include "libwmd/cpu/sizes.hpp"

namespace talvik::internal {
namespace {

// Rows that are gathered and multiplied at a time, so that they stay in the second-level cache.
constexpr int rows_at_a_time = 512;

}  // namespace

EqualWords::EqualWords(const Side& resident, const Side& queries) : start_(queries.words() + 1, 0) {
  std::vector<EqualRows> pairs = find_equal_hashes(resident.row_hash(), queries.row_hash());
  const Index m = resident.dimensions();
  std::erase_if(pairs, [&](const EqualRows& pair) {
    // As they are in the tables: rows that are equal only when they are scaled are at a distance.
    const float* row = resident.table_row(pair.word);
    return !has_direction(resident.norms()[pair.word]) ||
           !std::equal(row, row + m, queries.table_row(pair.row));
  });
  for (const EqualRows& pair : pairs) ++start_[pair.row + 1];
  for (int word = 0; word < queries.words(); ++word) start_[word + 1] += start_[word];
  words_.resize(pairs.size());
  std::vector<int> next(start_.begin(), start_.end() - 1);
  for (const EqualRows& pair : pairs) words_[next[pair.row]++] = pair.word;
}

Refiner::Refiner(const RefineTask& task)
    : task_(task),
      rule_{.squared = task.metric == talvik::Metric::euclidean,
            .rounding = static_cast<float>(task.rounding.score)},
      scratch_(product_scratch(task.resident.dimensions())),
      row_of_word_(task.resident.words(), -1) {}

void Refiner::begin(Count query) {
  forget_words();
  const Index first = task_.queries.begin(query), last = task_.queries.end(query);
  lane_words_ = {task_.queries.entry_words() + first, task_.queries.entry_words() + last};
  query_weights_ = task_.queries.documents().weights().subspan(first, last - first);
  const auto lanes = static_cast<int>(lane_words_.size());
  const Index m = task_.queries.dimensions();
  const Index stride = round_up(lanes, line_floats);
  lane_rows_.resize(elements(lanes, m));
  lane_norms_.assign(stride, 0);
  lane_weights_.assign(stride, 0);
  for (int v = 0; v < lanes; ++v) {
    const int word = lane_words_[v];
    std::copy_n(task_.queries.rows() + elements(word, m), m, lane_rows_.data() + elements(v, m));
    lane_norms_[v] = task_.queries.norms()[word];
    lane_weights_[v] = query_weights_[v];
  }
  nearest_lanes_ = nearest_of_document(task_.steps, lanes);
  panel_ = {.scores = scores_.data(), .lanes = lanes, .stride = stride};
}

void Refiner::forget_words() {
  for (const int word : word_of_row_) row_of_word_[word] = -1;
  word_of_row_.clear();
}

// Gives the candidates' new words rows of the table, and notes the rows of all their entries;
// false, and nothing done, where they do not fit.
bool Refiner::add_words(std::span<const RefineCandidate> candidates) {
  const auto before = static_cast<int>(word_of_row_.size());
  const int* const words = task_.resident.entry_words();
  rows_.clear();
  for (const auto& [document, first_upper] : candidates) {
    for (Index entry = task_.resident.begin(document); entry < task_.resident.end(document);
         ++entry) {
      int& row = row_of_word_[words[entry]];
      if (row < 0) {
        row = static_cast<int>(word_of_row_.size());
        word_of_row_.push_back(words[entry]);
      }
      rows_.push_back(row);
    }
  }
  rows_.resize(rows_.size() + row_padding, 0);
  const auto after = static_cast<int>(word_of_row_.size());
  const Index bounds_of_row = Index{4} * nearest_lanes_;  // score, lower, upper, capacity
  const Index needed = elements(after, panel_.stride + bounds_of_row);
  if (needed > task_.table_floats && (before > 0 || candidates.size() > 1)) {
    for (int row = before; row < after; ++row) row_of_word_[word_of_row_[row]] = -1;
    word_of_row_.resize(before);
    return false;
  }
  const Index scores = elements(after, panel_.stride);
  if (scores > std::ssize(scores_)) {
    // Doubled, but not beyond what may be held.
    const Index more = std::min(2 * std::ssize(scores_), task_.table_floats);
    if (before == 0) scores_.clear();  // nothing to copy
    scores_.resize(std::max(scores, more));
  }
  panel_.scores = scores_.data();
  compute_rows(before, after);
  return true;
}

void Refiner::compute_rows(int first_row, int last_row) {
  const Side& resident = task_.resident;
  const Index m = resident.dimensions();
  gathered_.resize(elements(std::min(rows_at_a_time, last_row - first_row), m + 1));
  for (int r = first_row; r < last_row; r += rows_at_a_time) {
    const int rows = std::min(rows_at_a_time, last_row - r);
    float* norms = gathered_.data() + elements(rows, m);
    for (int i = 0; i < rows; ++i) {
      const int word = word_of_row_[r + i];
      std::copy_n(resident.rows() + elements(word, m), m, gathered_.data() + elements(i, m));
      norms[i] = resident.norms()[word];
    }
    dense_product({.words = lane_rows_.data(),
                   .num_words = panel_.lanes,
                   .rows = gathered_.data(),
                   .num_rows = rows,
                   .m = static_cast<int>(m),
                   .scores = panel_.scores + elements(r, panel_.stride),
                   .stride = panel_.stride},
                  scratch_);
    if (rule_.squared) {
      finish_squares(panel_, r, r + rows, norms, lane_norms_.data());
    } else {
      finish_cosines(panel_, r, r + rows);
    }
  }
  mark_equal_words();
  if (task_.measure == Measure::other_way) return;
  const Index last = round_up(elements(last_row, nearest_lanes_), line_floats);
  for (auto* array : {&row_score_, &lower_, &upper_}) {
    if (std::ssize(*array) < last) array->resize(last);
  }
  if (nearest_lanes_ == 1) {
    nearest_lanes(panel_, first_row, last_row, row_score_.data());
  } else {
    find_nearest_lists(first_row, last_row);
  }
  // Whole lines: earlier rows come out as they were.
  const Index first = elements(first_row, nearest_lanes_) / line_floats * line_floats;
  bound_distances(row_score_.data() + first, last - first, rule_, lower_.data() + first,
                  upper_.data() + first);
}

void Refiner::mark_equal_words() {
  const float equal = score_of_equal_rows(rule_.rounding);
  for (int v = 0; v < panel_.lanes; ++v) {
    for (const int word : task_.equal.of(lane_words_[v])) {
      const int row = row_of_word_[word];
      if (row >= 0) panel_.scores[elements(row, panel_.stride) + v] = equal;
    }
  }
}

// The nearest lanes of every row, in ascending order, with what they take at most.
void Refiner::find_nearest_lists(int first_row, int last_row) {
  capacity_.resize(std::max(std::ssize(capacity_), elements(last_row, nearest_lanes_)));
  std::vector<std::pair<float, int>> lanes(panel_.lanes);
  for (int r = first_row; r < last_row; ++r) {
    const float* row = panel_.scores + elements(r, panel_.stride);
    for (int v = 0; v < panel_.lanes; ++v) lanes[v] = {row[v], v};
    std::partial_sort(lanes.begin(), lanes.begin() + nearest_lanes_, lanes.end());
    Index at = elements(r, nearest_lanes_);
    for (int t = 0; t < nearest_lanes_; ++t, ++at) {
      row_score_[at] = lanes[t].first;
      capacity_[at] = task_.capacity_scale * query_weights_[lanes[t].second];
    }
  }
}

SumBounds Refiner::document_to_query(const Entries& entries) const {
  SumBounds sum{0, 0};
  if (nearest_lanes_ == 1) {
    for (int i = 0; i < entries.count; ++i) {
      sum.lower += entries.weight[i] * lower_[entries.row[i]];
      sum.upper += entries.weight[i] * upper_[entries.row[i]];
    }
    return sum;
  }
  const float slack_share = slack_of_pouring(nearest_lanes_);
  for (int i = 0; i < entries.count; ++i) {
    const float weight = entries.weight[i];
    const Index first = elements(entries.row[i], nearest_lanes_);
    const Index last = first + nearest_lanes_ - 1;
    float left = weight;
    SumBounds cost{0, 0};
    for (Index at = first; at <= last && left > 0; ++at) {
      const float moved = at == last ? left : std::min(left, capacity_[at]);
      cost.lower += moved * lower_[at];
      cost.upper += moved * upper_[at];
      left -= moved;
    }
    const float slack = slack_share * (weight * upper_[last]);
    sum.lower += std::max(cost.lower - slack, 0.0f);
    sum.upper += cost.upper + slack;
  }
  return sum;
}

SumBounds Refiner::query_to_document(const Entries& entries) {
  const int nearest = nearest_of_document(task_.steps, entries.count);
  if (nearest == 1) {
    return lanes_to_nearest_rows(panel_, entries.row, entries.count, lane_weights_.data(), rule_);
  }
  const int slots = nearest_slots(nearest);
  near_score_.resize(elements(slots, panel_.stride));
  near_capacity_.resize(near_score_.size());
  const Panel panel{.scores = panel_.scores,
                    .stride = panel_.stride,
                    .words = static_cast<int>(panel_.stride),
                    .scale = 1,
                    .row_bias = nullptr};
  find_nearest_entries(
      panel, {.row = entries.row, .weight = entries.weight, .count = entries.count}, slots, false,
      {.score = near_score_.data(), .weight = near_capacity_.data(), .stride = panel_.stride});
  for (float& capacity : near_capacity_) capacity *= task_.capacity_scale;
  return pour_lanes(near_score_.data(), near_capacity_.data(), nearest, panel_.stride,
                    lane_weights_.data(), rule_);
}

DistanceBounds Refiner::bounds_of(const RefineCandidate& candidate, const Entries& entries) {
  // A sum over words of sums over their nearest ones.
  const double rounding = rounding_of_sum(
      static_cast<double>(entries.count + panel_.stride + std::max(task_.steps, 0)));
  SumBounds sum{0, 0};
  if (task_.measure != Measure::one_way) {
    sum = query_to_document(entries);
    // The other direction need not be looked at where the first bound has it below this one.
    const bool is_larger = task_.steps == 0 && sum.lower * (1 - rounding) >= candidate.first_upper;
    if (task_.measure == Measure::other_way || is_larger) {
      return {sum.lower * (1 - rounding), sum.upper * (1 + rounding)};
    }
  }
  const SumBounds other = document_to_query(entries);
  return {std::max(sum.lower, other.lower) * (1 - rounding),
          std::max(sum.upper, other.upper) * (1 + rounding)};
}

void Refiner::refine(std::span<const RefineCandidate> candidates, DistanceBounds* bounds) {
  if (candidates.empty()) return;
  if (!add_words(candidates)) {
    if (word_of_row_.empty()) {  // too many at a time
      const size_t half = candidates.size() / 2;
      refine(candidates.first(half), bounds);
      return refine(candidates.subspan(half), bounds + half);
    }
    forget_words();
    return refine(candidates, bounds);
  }
  const int* row = rows_.data();
  const float* const weights = task_.resident.documents().weights().data();
  for (size_t i = 0; i < candidates.size(); ++i) {
    const Count document = candidates[i].document;
    const Index first = task_.resident.begin(document);
    const auto count = static_cast<int>(task_.resident.end(document) - first);
    bounds[i] = bounds_of(candidates[i], {.row = row, .weight = weights + first, .count = count});
    row += count;
  }
}

}  // namespace talvik::internal
