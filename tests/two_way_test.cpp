// Two-way runs, from vectors and from ground distances.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/pipelines.hpp"

namespace talvik {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

using TwoWay = int (*)(int, float*, int, int, int, DocumentSet, LabelList, DocumentSet, LabelList,
                       float**, bool, const char*, bool);

struct Result {
  std::vector<float> D;  // the group's rows
  std::string lines;     // of this process's own file
  std::string output;    // on standard output
};

Result run(TwoWay function, test::World& world, int k, int delta_iterations, bool compute_topk) {
  const std::string path = test::scratch_path("twoway.csv");
  float* D = nullptr;
  testing::internal::CaptureStdout();
  EXPECT_EQ(function(world.shape.voc_size, world.embeddings.data(), world.shape.vec_size, k,
                     delta_iterations, world.resident, world.resident_labels, world.queries,
                     world.query_labels, &D, compute_topk, path.c_str(), false),
            1);
  Result result{{}, {}, testing::internal::GetCapturedStdout()};
  const test::OwnedMatrix owner(D);
  result.D.assign(D, D + static_cast<size_t>(grp_length[myid]) * world.queries.size());
  result.lines =
      test::take_file(path + ".thread" + std::to_string(local_id) + "-" + std::to_string(myid));
  return result;
}

std::vector<float> own_rows(const test::Matrix& distances) {
  std::vector<float> rows;
  for (int r = grp_start[myid]; r < grp_start[myid] + grp_length[myid]; ++r) {
    const auto& row = distances[static_cast<size_t>(r)];
    rows.insert(rows.end(), row.begin(), row.end());
  }
  return rows;
}

// Word distances near 0 lose half their digits in the square root.
void expect_close(const std::vector<float>& a, const std::vector<float>& b) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t at = 0; at < a.size(); ++at) EXPECT_NEAR(a[at], b[at], 3e-3) << "at " << at;
}

TEST(TwoWay, KeepsTheLargerDirectionInTheMatrixAndTheLists) {
  for (const int delta_iterations : {0, 1, 2}) {
    for (const TwoWay function : {rwmd2_twoway_wrapper, remd2_twoway_wrapper}) {
      for (const unsigned seed : {3u, 4u}) {  // the second run drops the first one's split
        test::World world = test::exact_world(seed);
        const test::Matrix expected = test::expected_two_way(world, delta_iterations);
        const Result result = run(function, world, 3, delta_iterations, true);
        EXPECT_EQ(result.D, own_rows(expected));
        EXPECT_EQ(result.lines, test::expected_lines(expected, grp_start[myid], grp_length[myid], 3,
                                                     world.resident_labels, world.query_labels));
      }
    }
  }
}

TEST(TwoWay, GroundDistancesGiveWhatVectorsGive) {
  test::World world = test::random_world({.seed = 9, .num_resident = 13, .num_queries = 7});
  for (const int metric : {0, 1, 2}) {
    use_cosine = metric == 1;
    normalize_embeddings = metric == 2;
    for (const int delta_iterations : {0, 1, 3}) {
      const Result vectors = run(rwmd2_twoway_wrapper, world, 3, delta_iterations, false);
      const Result ground = run(remd2_twoway_wrapper, world, 3, delta_iterations, false);
      expect_close(vectors.D, own_rows(test::expected_two_way(world, delta_iterations)));
      expect_close(ground.D, vectors.D);
      EXPECT_EQ(vectors.lines, "(no file)");
    }
  }
  use_cosine = normalize_embeddings = false;
}

TEST(GroundDistances, TheSharedVocabularyIsTheUnionAndIsAnnounced) {
  test::World world = test::exact_world(5);
  world.resident = {{{40, 1.f}}, {{7, 0.5f}, {2, 0.5f}}};
  world.queries = {{{3, 1.f}}, {{49, 1.f}, {0, 1.f}}, {{3, 1.f}, {0, 0.5f}}};
  const Result result = run(remd2_twoway_wrapper, world, 2, 0, false);
  EXPECT_EQ(result.output, "Compressed vocabulary. Vocabulary size = 6\n");
  EXPECT_EQ(result.D, own_rows(test::expected_two_way(world, 0)));
}

TEST(GroundDistances, AMatrixOfTheCallersIsReadAsItIs) {
  test::World world = test::exact_world(6);
  const auto run_ground = [&](std::vector<float> ground) {
    float* D = nullptr;
    EXPECT_EQ(remd2_twoway_ground(50, ground.data(), 3, 0, world.resident, world.resident_labels,
                                  world.queries, world.query_labels, &D, false, nullptr, false),
              1);
    const test::OwnedMatrix owner(D);
    return std::vector<float>(D, D + static_cast<size_t>(grp_length[myid]) * 11);
  };
  const size_t own = run_ground(std::vector<float>(2500, 0)).size();
  EXPECT_EQ(run_ground(std::vector<float>(2500, 0)), std::vector<float>(own, 0));

  // Every word 2 apart: the distance is twice the larger total weight of the pair.
  const auto total = [](const Document& doc) {
    float weight = 0;
    for (const auto& entry : doc) weight += entry.second;
    return weight;
  };
  test::Matrix expected;
  for (const Document& doc : world.resident) {
    auto& row = expected.emplace_back();
    for (const Document& query : world.queries) {
      row.push_back(2 * std::max(total(doc), total(query)));
    }
  }
  EXPECT_EQ(run_ground(std::vector<float>(2500, 2)), own_rows(expected));
}

TEST(TwoWay, OneSideMayBeEmpty) {
  for (const TwoWay function : {rwmd2_twoway_wrapper, remd2_twoway_wrapper}) {
    for (const bool first_side : {true, false}) {
      test::World world = test::exact_world(7);
      (first_side ? world.resident : world.queries).clear();
      const Result result = run(function, world, 3, 1, true);
      EXPECT_TRUE(result.D.empty());
      EXPECT_EQ(result.lines, "");
    }
  }
}

}  // namespace
}  // namespace talvik
