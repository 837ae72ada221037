// Result files byte for byte against the C library's formatting.
#include "talvik/result_file.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "support/files.hpp"
#include "support/pipelines.hpp"

namespace talvik {
namespace {

TEST(ResultFile, EveryFloatIsWrittenAsPrintfWritesIt) {
  std::vector<float> distances{0,        -0.f,      1,    0.73182f,   1e30f,  -1e30f,
                               INFINITY, -INFINITY, NAN,  -NAN,       1e-45f, 5e-7f,
                               1e6f,     3.4e38f,   0.5f, 0.1234565f, 2.5e-6f};
  std::mt19937 random(17);
  // Long enough for the buffer to be written out several times.
  while (distances.size() < 60'000) {
    distances.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(random())));
  }
  constexpr int k = 4, first_query = 2, num_queries = 15'000;
  std::vector<int> neighbours(distances.size());
  for (int& i : neighbours) i = static_cast<int>(random() % 4);
  const LabelList resident_labels{0, 12, 999, std::numeric_limits<unsigned long>::max()};
  LabelList query_labels(first_query + num_queries);
  std::iota(query_labels.begin(), query_labels.end(), 100ul);

  std::string expected;
  for (size_t at = 0; at < distances.size(); ++at) {
    expected += test::result_line(query_labels[first_query + at / k],
                                  resident_labels[neighbours[at]], distances[at]);
  }
  const test::TempDir dir;
  auto file = internal::open_result_file(dir / "lists");
  internal::write_lists(file, {first_query, num_queries, k, neighbours.data(), distances.data()},
                        query_labels, resident_labels);
  internal::close_result_file(std::move(file));
  EXPECT_TRUE(test::read_file(dir / "lists") == expected);
}

}  // namespace
}  // namespace talvik
