// The search on several processes, each with its slice of one world: the answer is that of all
// distances, on every process, and what fails on one of them fails on all.
#include <gtest/gtest.h>
#include <mpi.h>

#include <functional>
#include <memory>
#include <vector>

#include "support/allocations.hpp"
#include "support/search_world.hpp"
#include "talvik/communicator.hpp"
#include "talvik/error.hpp"

namespace talvik {
namespace {

using test::AllDistances;
using test::SearchQuestion;
using test::SearchWorld;

std::unique_ptr<Communicator> processes;

class Mpi : public testing::Environment {
  void SetUp() override {
    MPI_Init(nullptr, nullptr);
    processes = std::make_unique<Communicator>(MPI_COMM_WORLD);
  }
  void TearDown() override {
    processes.reset();
    MPI_Finalize();
  }
};
const auto* const environment = testing::AddGlobalTestEnvironment(new Mpi);

// What a call has come to on this process.
enum Outcome : int { fine, cancelled, refused, failed, out_of_memory };

template <class Call>
Outcome outcome_of(const Call& call) {
  try {
    call();
    return fine;
  } catch (const Cancelled&) {
    return cancelled;
  } catch (const ArgumentError&) {
    return refused;
  } catch (const Error&) {
    return failed;
  } catch (const std::bad_alloc&) {
    return out_of_memory;
  }
}

// How many processes came to it.
int count(Outcome outcome, Outcome own) {
  int found = own == outcome ? 1 : 0;
  MPI_Allreduce(MPI_IN_PLACE, &found, 1, MPI_INT, MPI_SUM, processes->get());
  return found;
}

class Ranks : public testing::Test {
 protected:
  void use(const SearchWorld& world) {
    whole = world;
    slice = whole.documents.slice(processes->rank(), processes->size());
  }
  AllDistances all_distances(bool self) const {
    return test::all_distances(whole.documents, self ? whole.documents : whole.queries,
                               options.distance);
  }
  void expect_right_answer(const SearchQuestion& question, const AllDistances& all) const {
    const Neighbours answer = test::ask(slice, whole.queries, question, options);
    test::expect_answer(answer, all, question);
    const Collection& queries = question.self ? whole.documents : whole.queries;
    EXPECT_EQ(answer.stats.pairs, queries.size() * whole.documents.size());  // summed
  }
  void expect_right_answer(const SearchQuestion& question) const {
    expect_right_answer(question, all_distances(question.self));
  }

  SearchWorld whole;
  Collection slice;
  SearchOptions options{.threads = 1, .communicator = processes.get(), .progress_seconds = 0};
};

constexpr Distance some_distances[] = {
    {Measure::two_way, 0}, {Measure::other_way, 1}, {Measure::exact, 0, Metric::cosine}};

// Bytes, for the smaller worlds here.
constexpr std::size_t words_do_not_fit = 1 << 14, words_fit = 100 << 10, all_fits = 1 << 20;

TEST_F(Ranks, AllGiveTheAnswerOfAllDistances) {
  const std::vector<SearchQuestion> two_questions = {{.k = 9}, {.radius = 0.8}};
  const std::vector<SearchQuestion> every_question = {
      {.k = 1}, {.k = 9}, {.k = 500}, {.radius = 0}, {.radius = 0.8}};
  // With 3 documents and 9 processes most have none.  160 are several batches and blocks, with too
  // little memory for words to be shared, and on two processes also with just enough for that.
  const std::pair<int, std::size_t> sizes[] = {
      {160, words_do_not_fit}, {160, words_fit}, {20, all_fits}, {3, all_fits}, {0, all_fits}};
  unsigned seed = 20;
  for (const auto& [documents, memory] : sizes) {
    use(test::search_world({.seed = ++seed, .documents = documents, .queries = 70}));
    for (const Distance& distance : some_distances) {
      options.distance = distance;
      options.memory = memory;
      for (const bool self : {false, true}) {
        const AllDistances all = all_distances(self);
        for (const SearchQuestion& question : documents == 20 ? every_question : two_questions) {
          SCOPED_TRACE(testing::Message()
                       << documents << " documents, measure " << static_cast<int>(distance.measure)
                       << ", k " << question.k << ", radius " << question.radius << ", self "
                       << self);
          expect_right_answer({question.k, question.radius, self}, all);
        }
      }
    }
  }
}

TEST_F(Ranks, OneEndsTheSearchOfAll) {
  use(test::search_world({.seed = 30, .documents = 60, .queries = 70}));
  for (const Distance& distance : some_distances) {
    options.distance = distance;
    for (const bool self : {false, true}) {
      options.memory = self ? words_do_not_fit : words_fit;
      const int ending = static_cast<int>(self) % processes->size();
      int ended = processes->size();
      for (int least = 0; ended > 0; least += 1 + least / 2) {
        int reports = 0;
        options.progress = [&](const Progress&) {
          return processes->rank() != ending || reports++ < least;
        };
        const Outcome own =
            outcome_of([&] { test::ask(slice, whole.queries, {.k = 4, .self = self}, options); });
        ended = count(cancelled, own);
        ASSERT_EQ(ended + count(fine, own), processes->size());
        ASSERT_TRUE(ended == 0 || ended == processes->size()) << ended;
        ASSERT_TRUE(least > 0 || ended > 0);
      }
      options.progress = nullptr;
      expect_right_answer({.k = 4, .self = self});
    }
  }
}

TEST_F(Ranks, OneThatIsOutOfMemoryFailsTheSearchOfAll) {
  use(test::search_world({.seed = 31, .documents = 30, .queries = 70}));
  for (const Distance& distance : {Distance{}, Distance{Measure::exact}}) {
    options.distance = distance;
    for (const SearchQuestion question : {SearchQuestion{.k = 4}, {.radius = 1, .self = true}}) {
      options.memory = question.self ? words_fit : words_do_not_fit;
      const int failing = (question.self ? 0 : 1) % processes->size();
      bool ended = true;
      for (int allocations = 0; ended; allocations += 1 + allocations / 4) {
        SCOPED_TRACE(allocations);
        Neighbours answer;
        allocations_left = processes->rank() == failing ? allocations : -1;
        const Outcome own =
            outcome_of([&] { answer = test::ask(slice, whole.queries, question, options); });
        allocations_left = -1;
        ended = count(out_of_memory, own) == 1;
        ASSERT_EQ(count(failed, own), ended ? processes->size() - 1 : 0);
        ASSERT_EQ(count(fine, own), ended ? 0 : processes->size());
      }
      expect_right_answer(question);
    }
  }
}

TEST_F(Ranks, AllRefuseWhatOneCannotAnswer) {
  const int size = processes->size(), last = size - 1;
  const bool is_last = processes->rank() == last;
  use(test::search_world({.seed = 32, .documents = 30, .queries = 6}));
  const Collection& other = is_last ? whole.documents : whole.queries;
  SearchOptions longer = options;
  longer.distance.steps = is_last ? 1 : 0;
  SearchOptions wrong = options;
  wrong.distance.steps = is_last ? -1 : 0;
  // The documents of every process sum to the same, but not those of all.
  Collection heavy;
  heavy.append({.offsets = std::vector<Count>{0, 1, 2},
                .words = std::vector{0, 0},
                .weights = std::vector{1.0f, 2.0f},
                .normalise = false},
               Vectors::from_arrays({}, std::vector{1.0f}, 1));
  heavy = heavy.slice(processes->rank(), size);
  SearchOptions exact = options;
  exact.distance.measure = Measure::exact;
  const struct {
    const char* what;
    std::function<void()> call;
    bool by_one;  // the others hear of it
  } cases[] = {
      {"queries", [&] { neighbours(slice, other, 2, options); }, false},
      {"k", [&] { neighbours(slice, is_last ? 3 : 2, options); }, false},
      {"radius", [&] { within(slice, is_last ? 0.5 : 0.25, options); }, false},
      {"steps", [&] { neighbours(slice, 2, longer); }, false},
      {"negative steps", [&] { neighbours(slice, 2, wrong); }, true},
      {"masses", [&] { neighbours(heavy, 2, exact); }, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Outcome own = outcome_of(c.call);
    if (size == 1 && !c.by_one && std::string(c.what) != "masses") {
      EXPECT_EQ(own, fine);
    } else {
      EXPECT_EQ(count(refused, own), c.by_one ? 1 : size);
      EXPECT_EQ(count(failed, own), c.by_one ? size - 1 : 0);
    }
  }
  expect_right_answer({.k = 2});
}

}  // namespace
}  // namespace talvik
