// The k nearest documents, and those within a radius: batches of queries, blocks of documents.
#include <algorithm>
#include <climits>
#include <limits>
#include <memory>
#include <numeric>
#include <string>

#include "internal/team.hpp"
#include "libwmd/cpu/blas_threads.hpp"
#include "search/checks.hpp"
#include "search/group.hpp"
#include "search/query_search.hpp"
#include "search/search_plan.hpp"
#include "search/shared_words.hpp"
#include "search/ticker.hpp"
#include "search/timer.hpp"
#include "talvik/error.hpp"

namespace talvik {
namespace internal {
namespace {

constexpr double infinite = std::numeric_limits<double>::infinity();

// On mails of 150 words three steps leave an eighth fewer candidates than one, and more of them
// hardly fewer.
constexpr int steps_before_exact = 3;

// What is asked for, whichever function asks.
struct Question {
  const Collection& collection;
  Count k;        // or no_limit
  double radius;  // or infinite
  bool self;      // the queries are the collection's own documents
  const SearchOptions& options;
};

int terms_of(int dimensions) {
  return terms_of_product(dimensions, product_scratch(dimensions).on_matrix_unit);
}

int table_dimensions(const Question& question) {
  return question.collection.vocabulary().table().dimensions;
}

// The most of any process: they multiply each other's words.
int agreed_terms(const Question& question, const Group& group) {
  return static_cast<int>(group.largest(Count{terms_of(table_dimensions(question))}));
}

Count words_of(const Collection& slice) {
  std::vector<bool> occurs(slice.used_words());
  for (const int word : slice.words()) occurs[word] = true;
  return std::count(occurs.begin(), occurs.end(), true);
}

SearchPlan agreed_plan(const Question& question, const Group& group, int threads,
                       Count total_queries) {
  const Collection& slice = question.collection;
  const Count documents = group.largest(slice.size());
  SharingProcesses processes;
  // In the other direction each has its own documents' words to look through.
  if (group.size() > 1 && question.options.distance.measure != Measure::other_way) {
    Count own_words = 0;
    group.together([&] { own_words = words_of(slice); });
    processes = {.count = group.size(),
                 .words = slice.used_words(),
                 .own_words = group.largest(own_words),
                 .queries = question.self ? documents : total_queries};
  }
  return plan_search(question.options.memory, threads, documents, processes);
}

class Search {
 public:
  Search(const Question& question, Count total_queries)
      : question_(question),
        group_(question.options.communicator),
        threads_(team_threads(question.options)),
        total_documents_(group_.sum(question.collection.size())),
        first_document_(-group_.largest(-question.collection.first_document())),
        terms_(agreed_terms(question, group_)),
        plan_(agreed_plan(question, group_, threads_, total_queries)),
        ticker_(question.options, total_queries) {}

  /// Answers the queries, which follow those of earlier calls.
  /// @param first_query  the number of the first one among the collection's documents, if they are
  ///                     of these
  void answer(const Collection& queries, Count first_query);
  Neighbours take();

 private:
  struct Prepared;
  struct Batch;
  void answer_batch(const Prepared& prepared, const Range& queries, Count first_query);
  void share_limits(Batch& batch, std::vector<std::vector<Found>>& known);
  void search_block(Batch& batch, const Range& block);
  void bound_block(Batch& batch, const Range& block);
  BlockRules block_rules();
  void bound(const Prepared& prepared, const Range& queries, const Range& block, float* Z);
  void make_states(Batch& batch) const;
  void begin_together(Batch& batch);
  void begin(Batch& batch, const Range& block, int q, int thread, Count solutions);
  void go_on(Batch& batch, const Range& block, int q, int thread, int groups);
  // Transport problems that each process solves before limits are shared: together as many as there
  // are neighbours.
  Count share_of_group() const {
    return question_.k == no_limit ? 0 : (question_.k - 1) / group_.size() + 1;
  }
  void exclude(const Prepared& prepared, const Range& block, Count own_number, float* z) const;
  void fill_up(std::vector<Found>& list, Count own_number) const;
  void append(std::vector<std::vector<Found>>& lists, const Range& queries, Count first_query);

  const Question& question_;
  Group group_;
  int threads_;
  Count total_documents_, first_document_;  // of all slices
  int terms_;                               // of a product
  SearchPlan plan_;
  Ticker ticker_;
  Workspace workspace_, distances_;
  std::unique_ptr<SharedWords> shared_words_;  // or null
  Neighbours result_;
};

// What is made once for all batches of a collection of queries.
struct Search::Prepared {
  Prepared(const Question& question, const Collection& queries, int threads, int processes,
           int terms, const SearchPlan& plan)
      : resident(question.collection, question.options.distance.metric, threads),
        query_side(queries, question.options.distance.metric, threads),
        equal(resident, query_side),
        task{.refine = {.resident = resident,
                        .queries = query_side,
                        .equal = equal,
                        .measure = question.options.distance.measure,
                        .metric = question.options.distance.metric,
                        .steps = question.options.distance.steps,
                        .capacity_scale = 1,
                        .rounding = Rounding::of(
                            question.options.distance.metric, terms,
                            std::max(resident.largest_norm(), query_side.largest_norm())),
                        .table_floats = plan.table_floats},
             .distance = question.options.distance,
             .k = question.k,
             .radius = question.radius,
             .bound_scale = 1,
             .bound_margin = 0,
             .refined_scale = 1} {
    const bool exact = task.distance.measure == Measure::exact;
    if (exact) {
      task.refine.measure = Measure::two_way;
      task.refine.steps = steps_before_exact;
      // Masses that are equal only nearly: what is moved is more than what would be, by so much at
      // most, and a word takes less.
      constexpr double most = 2 * tolerated_difference_of_masses;
      task.refine.capacity_scale = static_cast<float>(1 + most);
      task.refined_scale = 1 - most;
    }
    const Side& moving = task.distance.measure == Measure::other_way ? query_side : resident;
    task.bound_scale =
        (1 - rounding_of_sum(static_cast<double>(moving.longest()))) * task.refined_scale;
    task.bound_margin = moving.largest_weight() * task.refine.rounding.word;
    for (int thread = 0; thread < threads; ++thread) {
      workers.push_back(
          std::make_unique<QuerySearch>(task, question.collection.first_document(), processes));
    }
    for (Count i = 0; i < resident.size(); ++i) {
      if (resident.empty(i)) empty_documents.push_back(i);
    }
    blocks = cut_blocks(resident, plan.resident_at_a_time);
  }

  int largest_block() const {
    int most = 0;
    for (const Range& block : blocks) most = std::max(most, block.count);
    return most;
  }

  Side resident, query_side;
  EqualWords equal;
  SearchTask task;
  std::vector<std::unique_ptr<QuerySearch>> workers;
  std::vector<Count> empty_documents;  // ascending
  std::vector<Range> blocks;
};

BlockRules Search::block_rules() {
  return {.metric = question_.options.distance.metric,
          .steps = 0,
          .threads = threads_,
          .budget = plan_.engine,
          .checkpoint = [this](int thread) { ticker_.tick(thread); }};
}

// The first bound of every pair: Z[q*block.count + i].
void Search::bound(const Prepared& prepared, const Range& queries, const Range& block, float* Z) {
  const BlockRules rules = block_rules();
  if (prepared.task.distance.measure == Measure::other_way) {
    turned_one_way_block(prepared.query_side, queries, prepared.resident, block, rules, workspace_,
                         Z);
  } else if (shared_words_) {
    shared_words_->pour_block(prepared.resident, block, rules, workspace_, Z);
  } else {
    one_way_block(prepared.resident, block, prepared.query_side, queries, rules, workspace_, Z);
  }
}

// Takes documents that are no candidates of a query out of its bounds.
void Search::exclude(const Prepared& prepared, const Range& block, Count own_number,
                     float* z) const {
  constexpr float nowhere = std::numeric_limits<float>::infinity();
  const auto& empty = prepared.empty_documents;
  for (auto at = std::lower_bound(empty.begin(), empty.end(), block.first);
       at != empty.end() && *at < block.first + block.count; ++at) {
    z[*at - block.first] = nowhere;
  }
  const Count own = own_number - question_.collection.first_document() - block.first;
  if (question_.self && own >= 0 && own < block.count) z[own] = nowhere;
}

// Everything of a batch but what is agreed on with the other processes.
struct Search::Batch {
  const Prepared& prepared;
  Range queries;
  Count first_query;  // number of the batch's first query among the collection's documents
  std::vector<QueryState> states;
  float* Z;  // of the block that is searched

  bool skipped(int q) const { return prepared.query_side.empty(queries.first + q); }
};

void Search::bound_block(Batch& batch, const Range& block) {
  const Timer timer(result_.stats.bound_seconds);
  const Index distances = elements(batch.queries.count, block.count);
  batch.Z = distances_.floats(0, elements(batch.queries.count, batch.prepared.largest_block()));
  bound(batch.prepared, batch.queries, block, batch.Z);
  result_.stats.pairs += distances;
}

void Search::begin(Batch& batch, const Range& block, int q, int thread, Count solutions) {
  ticker_.tick(thread);
  if (batch.skipped(q)) return;
  float* const z = batch.Z + elements(q, block.count);
  exclude(batch.prepared, block, batch.first_query + q, z);
  QuerySearch& worker = *batch.prepared.workers[thread];
  worker.take_query(batch.queries.first + q);
  worker.begin_block(block, z, solutions, batch.states[q]);
}

void Search::go_on(Batch& batch, const Range& block, int q, int thread, int groups) {
  ticker_.tick(thread);
  if (batch.skipped(q)) return;
  QuerySearch& worker = *batch.prepared.workers[thread];
  worker.take_query(batch.queries.first + q);
  worker.go_on(block, batch.Z + elements(q, block.count), groups, batch.states[q]);
}

// A block that the other processes need not hear of.
void Search::search_block(Batch& batch, const Range& block) {
  bound_block(batch, block);
  for_each_item(threads_, batch.queries.count, [&](int q, int thread) {
    begin(batch, block, q, thread, 0);
    go_on(batch, block, q, thread, INT_MAX);
  });
}

void Search::make_states(Batch& batch) const {
  batch.states.reserve(batch.queries.count);
  for (int q = 0; q < batch.queries.count; ++q) {
    batch.states.push_back({.answer = Answer(question_.k, question_.radius), .pending = {}});
  }
}

// What all processes know of the k nearest gives a limit that holds for all.
void Search::share_limits(Batch& batch, std::vector<std::vector<Found>>& known) {
  group_.merge(known, question_.k);
  for (size_t q = 0; q < known.size(); ++q) {
    if (std::ssize(known[q]) == question_.k) {
      batch.states[q].answer.lower_limit(known[q].back().first);
    }
  }
}

// The first block, with limits that are shared after each of the first groups of candidates.
void Search::begin_together(Batch& batch) {
  const std::vector<Range>& blocks = batch.prepared.blocks;
  constexpr int shared_groups = 3;
  for (int group = 0; group < shared_groups; ++group) {
    std::vector<std::vector<Found>> known;
    group_.together([&] {
      if (group == 0 && !blocks.empty()) bound_block(batch, blocks.front());
      for_each_item(threads_, blocks.empty() ? 0 : batch.queries.count, [&](int q, int thread) {
        if (group == 0) {
          begin(batch, blocks.front(), q, thread, share_of_group());
        } else {
          go_on(batch, blocks.front(), q, thread, 1);
        }
      });
      known.reserve(batch.states.size());
      for (const QueryState& state : batch.states) known.push_back(state.answer.known());
    });
    if (question_.k == no_limit) return;
    share_limits(batch, known);
  }
}

void Search::answer_batch(const Prepared& prepared, const Range& queries, Count first_query) {
  const SingleThreadedBlas single_threaded_blas;
  Batch batch{.prepared = prepared,
              .queries = queries,
              .first_query = first_query,
              .states = {},
              .Z = nullptr};
  std::span<const Range> blocks(prepared.blocks);
  const bool shared = group_.size() > 1;
  group_.together([&] { make_states(batch); });
  if (shared_words_) {
    const Timer timer(result_.stats.bound_seconds);
    shared_words_->find_nearest(prepared.query_side, queries, block_rules(), workspace_);
  }
  if (shared) begin_together(batch);
  std::vector<std::vector<Found>> lists;
  group_.together([&] {
    if (shared && !blocks.empty()) {
      for_each_item(threads_, queries.count,
                    [&](int q, int thread) { go_on(batch, blocks.front(), q, thread, INT_MAX); });
      blocks = blocks.subspan(1);
    }
    for (const Range& block : blocks) search_block(batch, block);
    for (QueryState& state : batch.states) lists.push_back(state.answer.take());
  });
  group_.merge(lists, question_.k);
  group_.together([&] { append(lists, queries, first_query); });
  ticker_.add_done(queries.count);
}

// Documents that are infinitely far fill up a list of the k nearest, by number.
void Search::fill_up(std::vector<Found>& list, Count own_number) const {
  const Count others = total_documents_ - (question_.self ? 1 : 0);
  const Count length = std::min(question_.k, others);
  if (std::ssize(list) >= length) return;
  std::vector<Count> known;
  known.reserve(list.size() + 1);
  for (const Found& found : list) known.push_back(found.second);
  if (question_.self) known.push_back(own_number);
  std::sort(known.begin(), known.end());
  for (Count document = first_document_; std::ssize(list) < length; ++document) {
    if (!std::binary_search(known.begin(), known.end(), document)) {
      list.emplace_back(infinite, document);
    }
  }
}

void Search::append(std::vector<std::vector<Found>>& lists, const Range& queries,
                    Count first_query) {
  const bool exact = question_.options.distance.measure == Measure::exact;
  for (int q = 0; q < queries.count; ++q) {
    if (question_.k != no_limit) fill_up(lists[q], first_query + q);
    for (const auto& [distance, document] : lists[q]) {
      result_.documents.push_back(document);
      if (exact) {
        result_.exact.push_back(distance);
      } else {
        result_.distances.push_back(static_cast<float>(distance));
      }
    }
    result_.offsets.push_back(std::ssize(result_.documents));
  }
}

void Search::answer(const Collection& queries, Count first_query) {
  std::unique_ptr<Prepared> prepared;
  group_.together([&] {
    if (result_.offsets.empty()) result_.offsets.push_back(0);
    prepared =
        std::make_unique<Prepared>(question_, queries, threads_, group_.size(), terms_, plan_);
    if (plan_.shares_words && !shared_words_) {
      shared_words_ = std::make_unique<SharedWords>(group_, question_.collection,
                                                    question_.options.distance.metric, threads_);
    }
  });
  for (Count first = 0; first < queries.size(); first += plan_.queries_at_a_time) {
    const auto count =
        static_cast<int>(std::min<Count>(plan_.queries_at_a_time, queries.size() - first));
    answer_batch(*prepared, {first, count}, first_query + first);
  }
  for (const auto& worker : prepared->workers) {
    const SearchCounts& counts = worker->counts();
    result_.stats.refined += counts.refined;
    result_.stats.settled += counts.settled;
    result_.stats.dual_bounds += counts.dual_bounds;
    result_.stats.solved += counts.solved;
    result_.stats.refine_seconds += counts.refine_seconds / threads_;
    result_.stats.solve_seconds += counts.solve_seconds / threads_;
  }
}

Neighbours Search::take() {
  SearchStats& stats = result_.stats;
  for (Count* count :
       {&stats.pairs, &stats.refined, &stats.settled, &stats.dual_bounds, &stats.solved}) {
    *count = group_.sum(*count);
  }
  stats.seconds = ticker_.seconds();
  for (double* seconds :
       {&stats.bound_seconds, &stats.refine_seconds, &stats.solve_seconds, &stats.seconds}) {
    *seconds = group_.largest(*seconds);
  }
  return std::move(result_);
}

// The least and the largest sum of a document's weights; documents without words do not count.
std::pair<double, double> masses_of(const Collection& collection) {
  double least = infinite, most = 0;
  for (Count i = 0; i < collection.size(); ++i) {
    const std::span<const float> weights = view_of(collection, i).weights;
    if (weights.empty()) continue;
    const double sum = std::accumulate(weights.begin(), weights.end(), 0.0);
    least = std::min(least, sum);
    most = std::max(most, sum);
  }
  return {least, most};
}

// What every process must have the same; each throws what it finds.
void check_question(const Question& question, const Collection& queries) {
  if (question.k < 1) {
    throw ArgumentError("k", std::to_string(question.k) + " neighbours were asked for");
  }
  if (question.k == no_limit && !(question.radius >= 0 && question.radius < infinite)) {
    throw ArgumentError("radius", "neither 0 nor a positive number");
  }
  team_threads(question.options);
  check_distance(question.collection, queries, question.options.distance);
}

// What the processes must agree on.  All throw, or none.
void check_group(const Group& group, const Question& question, const Collection& queries) {
  const Distance& distance = question.options.distance;
  const auto number = [](auto value) { return static_cast<double>(value); };
  if (!group.same({number(question.k), question.radius, number(question.self ? 0 : queries.size()),
                   number(question.self ? 0 : queries.entries()), number(distance.measure),
                   number(distance.metric), number(distance.steps),
                   number(question.options.memory)})) {
    throw ArgumentError("options",
                        "queries, what is asked for, or memory differ between the processes");
  }
  const Collection& slice = question.collection;
  const VectorTable& table = slice.vocabulary().table();
  RowHash rows = 0;
  for (const RowHash hash : table.row_hash) rows = rows * 31 + hash;
  constexpr int halves = 32;  // doubles hold half a hash
  if (!group.same({number(slice.total_documents()), number(slice.used_words()),
                   number(table.num_words), number(table.dimensions), number(table.unit_length),
                   number(rows >> halves), number(rows & UINT32_MAX)}) ||
      group.sum(slice.size()) != slice.total_documents()) {
    throw ArgumentError("collection",
                        "what the processes hold are not the slices of one collection");
  }
  if (distance.measure != Measure::exact) return;
  const auto [least, most] = masses_of(slice);
  const double largest = group.largest(most);
  const double smallest = -group.largest(-least);
  if (largest - smallest > tolerated_difference_of_masses * largest) {
    throw ArgumentError("distance",
                        "exact distances need weights of the same sum: documents sum to " +
                            std::to_string(smallest) + " and to " + std::to_string(largest));
  }
}

Neighbours answer_question(const Question& question, const Collection& queries) {
  const Group group(question.options.communicator);
  group.together([&] { check_question(question, queries); });
  if (group.size() > 1) check_group(group, question, queries);
  if (!question.self) {
    Search search(question, queries.size());
    search.answer(queries, 0);
    return search.take();
  }
  Search search(question, group.sum(queries.size()));
  if (group.size() == 1) {
    search.answer(queries, queries.first_document());
    return search.take();
  }
  for (int root = 0; root < group.size(); ++root) {
    const Collection part = group.broadcast(queries, root);
    search.answer(part, part.first_document());
  }
  return search.take();
}

}  // namespace
}  // namespace internal

Neighbours neighbours(const Collection& collection, const Collection& queries, int k,
                      const SearchOptions& options) {
  return internal::answer_question({collection, k, internal::infinite, false, options}, queries);
}

Neighbours neighbours(const Collection& collection, int k, const SearchOptions& options) {
  return internal::answer_question({collection, k, internal::infinite, true, options}, collection);
}

Neighbours within(const Collection& collection, const Collection& queries, double radius,
                  const SearchOptions& options) {
  return internal::answer_question({collection, internal::no_limit, radius, false, options},
                                   queries);
}

Neighbours within(const Collection& collection, double radius, const SearchOptions& options) {
  return internal::answer_question({collection, internal::no_limit, radius, true, options},
                                   collection);
}

}  // namespace talvik
