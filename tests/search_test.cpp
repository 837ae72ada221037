// The search on one process: whatever is bounded, shared out and left out, the answer is that of
// all distances.
#include "talvik/search.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <thread>

#include "support/allocations.hpp"
#include "support/instruction_sets.hpp"
#include "support/search_world.hpp"
#include "talvik/error.hpp"

namespace talvik {
namespace {

using test::AllDistances;
using test::infinite;
using test::SearchQuestion;
using test::SearchShape;
using test::SearchWorld;

std::string name_of(const Distance& distance) {
  return "measure " + std::to_string(static_cast<int>(distance.measure)) + ", steps " +
         std::to_string(distance.steps) + ", metric " +
         std::to_string(static_cast<int>(distance.metric));
}

// Every measure with every metric; the steps go round with the seed.
std::vector<Distance> every_distance(unsigned seed) {
  constexpr int steps[] = {0, 1, 3, 40};
  std::vector<Distance> all;
  for (const Metric metric : {Metric::euclidean, Metric::cosine}) {
    for (const Measure measure : {Measure::one_way, Measure::other_way, Measure::two_way}) {
      all.push_back({measure, steps[seed++ % std::size(steps)], metric});
    }
    all.push_back({Measure::exact, 0, metric});
  }
  return all;
}

// A radius that some distances equal, so that it has to be kept to the last bit.
double some_distance(const AllDistances& all, std::mt19937& random) {
  const double found = all[random() % all.size()][random() % all[0].size()];
  return std::isfinite(found) ? found : 0.5;
}

void expect_all_answers(const SearchWorld& world, unsigned seed) {
  std::mt19937 random(seed);
  for (const Distance& distance : every_distance(seed)) {
    SCOPED_TRACE(name_of(distance));
    const bool self = random() % 2 == 0;
    const Collection& queries = self ? world.documents : world.queries;
    const AllDistances all = test::all_distances(world.documents, queries, distance);
    const int many = static_cast<int>(world.documents.size()) + 3;
    const SearchQuestion questions[] = {
        {.k = 1, .self = self},
        {.k = 1 + static_cast<int>(random() % many), .self = self},
        {.k = many, .self = self},
        {.radius = 0, .self = self},
        {.radius = some_distance(all, random), .self = self},
        {.radius = 1e300, .self = self},
    };
    for (const SearchQuestion& question : questions) {
      SearchOptions options{.distance = distance, .threads = 1 + static_cast<int>(random() % 3)};
      if (random() % 3 > 0) options.memory = std::size_t{1} << (14 + random() % 8);
      SCOPED_TRACE(testing::Message()
                   << "k " << question.k << ", radius " << question.radius << ", self " << self
                   << ", threads " << options.threads << ", memory " << options.memory);
      const Neighbours answer = test::ask(world.documents, world.queries, question, options);
      test::expect_answer(answer, all, question);
      if (testing::Test::HasFailure()) return;
    }
  }
}

TEST(Search, GivesTheAnswerOfAllDistances) {
  SearchShape shapes[] = {
      {.documents = 90, .queries = 40},
      {.documents = 70, .queries = 70},
      {.documents = 1, .queries = 130},
      {.documents = 150, .queries = 1},
      {.documents = 80, .queries = 80, .max_words = 60},
      {.documents = 100, .queries = 9, .length = 100},
      {.documents = 60, .queries = 66, .length = 1e-3f},
      {.documents = 60, .queries = 66, .length = 1e-8f},
      {.documents = 60, .queries = 66, .length = 1e15f},
      {.documents = 85, .queries = 3, .max_words = 1},
  };
  unsigned seed = 0;
  for (SearchShape& shape : shapes) {
    for (int turn = 0; turn < 2; ++turn) {
      shape.seed = ++seed;
      SCOPED_TRACE(testing::Message() << "seed " << seed);
      expect_all_answers(test::search_world(shape), seed);
      if (HasFailure()) return;
    }
  }
}

// Several groups of candidates, of which most need no second look.
TEST(Search, OfManyDocumentsLooksAtFew) {
  const SearchWorld world = test::search_world({.seed = 3, .documents = 2500, .queries = 12});
  for (const Measure measure : {Measure::two_way, Measure::exact}) {
    const Distance distance{measure, 1};
    const AllDistances all = test::all_distances(world.documents, world.queries, distance);
    for (const SearchQuestion question : {SearchQuestion{.k = 7}, {.k = 900}, {.radius = 1.0}}) {
      const Neighbours answer = test::ask(world.documents, world.queries, question,
                                          {.distance = distance, .memory = 1 << 20});
      test::expect_answer(answer, all, question);
      EXPECT_EQ(answer.stats.pairs, 2500 * 12);
      EXPECT_LE(answer.stats.refined, answer.stats.pairs);
      if (question.k != 7) continue;
      EXPECT_LT(answer.stats.refined, answer.stats.pairs / 2);
      EXPECT_LT(answer.stats.settled + answer.stats.solved, answer.stats.pairs / 10);
    }
  }
}

TEST(Search, GivesTheSameAnswerOnEveryInstructionSet) {
  const SearchWorld world = test::search_world({.seed = 8, .documents = 80, .queries = 20});
  for (const Distance& distance : every_distance(1)) {
    SCOPED_TRACE(name_of(distance));
    const AllDistances all = test::all_distances(world.documents, world.queries, distance);
    test::on_every_instruction_set([&] {
      for (const SearchQuestion question : {SearchQuestion{.k = 5}, {.radius = 1.1}}) {
        test::expect_answer(
            test::ask(world.documents, world.queries, question, {.distance = distance}), all,
            question);
      }
    });
  }
}

TEST(Search, DistancesOfPairsAndOfAllAgree) {
  for (const unsigned seed : {5u, 6u}) {
    const SearchWorld world = test::search_world({.seed = seed, .documents = 75, .queries = 70});
    for (const Distance& distance : every_distance(seed)) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << ", " << name_of(distance));
      const AllDistances all = test::all_distances(world.documents, world.queries, distance);
      const SearchOptions options{
          .distance = distance, .threads = 1 + static_cast<int>(seed % 3), .memory = 1 << 15};
      const DistanceMatrix matrix = distance_matrix(world.documents, world.queries, options);
      ASSERT_EQ(std::pair(matrix.documents, matrix.queries), std::pair(Count{75}, Count{70}));
      const bool exact = distance.measure == Measure::exact;
      std::vector<Pair> pairs;
      for (Count q = 0; q < 70; ++q) {
        for (Count i = 0; i < 75; ++i) pairs.push_back({i, q});
      }
      const std::vector<double> list = distances(world.documents, world.queries, pairs, options);
      for (size_t p = 0; p < pairs.size(); ++p) {
        const double expected = all[pairs[p].query][pairs[p].document];
        ASSERT_EQ(list[p], expected);
        const double found = exact ? matrix.exact[p] : matrix.distances[p];
        // Rows of a length of about 6 at most.
        if (exact || std::isinf(expected)) {
          ASSERT_EQ(found, expected) << p;
        } else {
          ASSERT_NEAR(found, expected, 6e-3) << p;
        }
      }
    }
  }
}

// A slice alone is a collection whose documents keep their numbers.
TEST(Search, OfASliceNamesDocumentsByTheirNumbersInTheWhole) {
  const SearchWorld world = test::search_world({.seed = 2, .documents = 30, .queries = 10});
  const Collection slice = world.documents.slice(1, 2);
  const Count first = slice.first_document();
  ASSERT_GT(first, 0);
  for (const SearchQuestion question :
       {SearchQuestion{.k = 50}, {.k = 50, .self = true}, {.radius = 1, .self = true}}) {
    Neighbours answer = test::ask(slice, world.queries, question, {});
    for (Count& document : answer.documents) document -= first;
    const Collection& queries = question.self ? slice : world.queries;
    test::expect_answer(answer, test::all_distances(slice, queries, {}), question);
  }
}

TEST(Search, OfNothingFindsNothing) {
  const SearchWorld world = test::search_world({.seed = 4, .documents = 5, .queries = 5});
  for (const Collection& nothing : {Collection(), world.documents.for_queries()}) {
    for (const Distance& distance : every_distance(0)) {
      for (const SearchQuestion question : {SearchQuestion{.k = 3}, {.radius = 1}}) {
        const SearchOptions options{.distance = distance, .threads = 2};
        EXPECT_EQ(test::ask(nothing, world.queries, question, options).offsets,
                  std::vector<Count>(6));
        EXPECT_EQ(test::ask(world.documents, nothing, question, options).offsets,
                  std::vector<Count>(1));
        SearchQuestion self = question;
        self.self = true;
        EXPECT_EQ(test::ask(nothing, nothing, self, options).offsets, std::vector<Count>(1));
        const DistanceMatrix matrix = distance_matrix(nothing, world.queries, options);
        EXPECT_EQ(matrix.distances.size() + matrix.exact.size(), 0u);
        EXPECT_EQ(distance_matrix(world.documents, nothing, options).documents, 5);
      }
    }
  }
}

TEST(Search, RefusesWhatMakesNoSense) {
  const auto two_words = [](int dimensions, bool unit_length, float weight) {
    Collection result;
    result.append(
        {.offsets = std::vector<Count>{0, 1, 2},
         .words = std::vector{0, 1},
         .weights = std::vector{1.0f, weight},
         .normalise = false},
        Vectors::from_arrays({}, std::vector<float>(2 * dimensions, 1), dimensions, unit_length));
    return result;
  };
  const Collection good = two_words(2, true, 1);
  const double nan = std::nan("");
  const Distance exact{Measure::exact};
  const struct {
    Collection documents;
    SearchQuestion question;
    SearchOptions options;
    const char* where;
    const char* says;
  } cases[] = {
      {good, {.radius = -1}, {}, "radius", "positive"},
      {good, {.radius = nan}, {}, "radius", "positive"},
      {good, {.radius = infinite}, {}, "radius", "positive"},
      {good, {.k = 1}, {.distance = {Measure::two_way, -1}}, "steps", "-1"},
      {good, {.k = 1}, {.threads = -1}, "threads", "-1"},
      {two_words(3, true, 1), {.k = 1}, {}, "queries", "2 dimensions"},
      {two_words(2, false, 1), {.k = 1}, {}, "queries", "scaled to length 1"},
      {two_words(2, true, 2), {.k = 1}, {.distance = exact}, "distance", "sums to"},
      {two_words(2, true, 2), {.k = 1, .self = true}, {.distance = exact}, "distance", "sums to"},
  };
  const auto refused = [](const std::function<void()>& call, const std::string& where,
                          const std::string& says) {
    try {
      call();
      ADD_FAILURE() << "not refused";
    } catch (const ArgumentError& error) {
      EXPECT_EQ(error.where(), where);
      EXPECT_NE(std::string(error.what()).find(says), std::string::npos) << error.what();
    }
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.where << ": " << c.says);
    refused([&] { test::ask(c.documents, good, c.question, c.options); }, c.where, c.says);
    if (c.question.k == 0 || c.question.self) continue;
    refused([&] { distance_matrix(c.documents, good, c.options); }, c.where, c.says);
  }
  for (const int k : {0, -1}) {
    refused([&] { neighbours(good, good, k); }, "k", std::to_string(k));
    refused([&] { neighbours(good, k); }, "k", std::to_string(k));
  }
}

TEST(Search, SeveralThreadsSearchOneCollectionAtOnce) {
  const SearchWorld world = test::search_world({.seed = 9, .documents = 100, .queries = 70});
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([&world, t] {
      const Distance distance = every_distance(t)[t + 1];
      const AllDistances all = test::all_distances(world.documents, world.queries, distance);
      for (int turn = 0; turn < 3; ++turn) {
        Count reports = 0;
        const SearchOptions options{.distance = distance,
                                    .threads = 1 + static_cast<int>(t % 2),
                                    .memory = std::size_t{1} << (15 + turn),
                                    .progress = [&](const Progress&) { return ++reports > 0; },
                                    .progress_seconds = 0};
        const SearchQuestion question{.k = 1 + 10 * turn};
        test::expect_answer(test::ask(world.documents, world.queries, question, options), all,
                            question);
        EXPECT_GT(reports, 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// What may be ended or fail.
class Interrupted : public testing::TestWithParam<Distance> {
 protected:
  using Call = std::function<void(const SearchOptions&)>;

  // Every function that searches, with several batches and blocks.
  std::vector<Call> calls() const {
    return {[this](const SearchOptions& o) { neighbours(world.documents, world.queries, 3, o); },
            [this](const SearchOptions& o) { within(world.documents, 0.9, o); },
            [this](const SearchOptions& o) { distances(world.documents, world.queries, pairs, o); },
            [this](const SearchOptions& o) { distance_matrix(world.documents, world.queries, o); }};
  }
  void expect_right_answer() const {
    const SearchQuestion question{.k = 3};
    test::expect_answer(test::ask(world.documents, world.queries, question, options), all,
                        question);
  }

  const SearchWorld world = test::search_world({.seed = 2, .documents = 40, .queries = 70});
  const AllDistances all = test::all_distances(world.documents, world.queries, GetParam());
  const std::vector<Pair> pairs = std::vector<Pair>(100, {39, 1});
  SearchOptions options{
      .distance = GetParam(), .threads = 2, .memory = 1 << 13, .progress_seconds = 0};
};

INSTANTIATE_TEST_SUITE_P(Measures, Interrupted,
                         testing::Values(Distance{Measure::other_way},
                                         Distance{Measure::two_way, 1}, Distance{Measure::exact}));

TEST_P(Interrupted, ASearchEndsWhereverItsCallerWantsItTo) {
  options.threads = 1;  // the thread that reports has all the work
  for (const Call& call : calls()) {
    bool ended = true;
    int least = 0;
    for (; ended; least += 1 + least / 4) {
      SearchOptions ending = options;
      Progress last{0, 0, 0};
      int reports = 0;
      ending.progress = [&](const Progress& now) {
        EXPECT_TRUE(last.done <= now.done && now.done <= now.total);
        EXPECT_LE(last.seconds, now.seconds);
        last = now;
        return reports++ < least;
      };
      try {
        call(ending);
        ended = false;
      } catch (const Cancelled&) {
      }
      EXPECT_EQ(reports, ended ? least + 1 : reports);  // it is not asked again
    }
    EXPECT_GT(least, 1);
  }
  expect_right_answer();
  options.progress = [](const Progress&) -> bool { throw std::out_of_range("the caller's own"); };
  for (const Call& call : calls()) EXPECT_THROW(call(options), std::out_of_range);
}

TEST_P(Interrupted, TheSearchAfterAFailedAllocationIsRight) {
  for (const Call& call : calls()) {
    bool failed = true;
    int allocations = 0;
    for (; failed && !HasFailure(); allocations += 1 + allocations / 16) {
      SCOPED_TRACE(allocations);
      allocations_left = allocations;
      try {
        call(options);
        failed = false;
      } catch (const std::bad_alloc&) {
      }
      allocations_left = -1;
      if (!failed && allocations == 0) GTEST_SKIP() << "not with this operator new";
    }
    EXPECT_GT(allocations, 3);
    expect_right_answer();
  }
}

}  // namespace
}  // namespace talvik
