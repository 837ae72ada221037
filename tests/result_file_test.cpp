// Result files byte for byte against the C library's formatting.
#include "talvik/result_file.hpp"

#include <gtest/gtest.h>
#include <unistd.h>  // getpid

#include <bit>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace talvik {
namespace {

TEST(ResultFile, EveryFloatIsWrittenAsPrintfWritesIt) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::vector<float> distances = {0,    -0.f,       1,       0.73182f, 1e30f,      -1e30f,
                                  inf,  -inf,       nan,     -nan,     1e-45f,     5e-7f,
                                  1e6f, 0.0000005f, 3.4e38f, 0.5f,     0.1234565f, 2.5e-6f};
  std::mt19937 random(17);
  // Long enough for the buffer to be written out several times.
  while (distances.size() < 60'000) {
    distances.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(random())));
  }
  constexpr int k = 4;
  const int num_queries = static_cast<int>(distances.size()) / k;
  constexpr int first_query = 2;
  std::vector<int> neighbours(distances.size());
  for (int& i : neighbours) i = static_cast<int>(random() % 5);
  const LabelList resident_labels = {0, 12, 999, std::numeric_limits<unsigned long>::max(), 7};
  LabelList query_labels(static_cast<size_t>(first_query + num_queries));
  std::iota(query_labels.begin(), query_labels.end(), 100ul);

  std::string expected;
  for (size_t at = 0; at < distances.size(); ++at) {
    char line[256];
    std::snprintf(
        line, sizeof line, "\"%lu\", \"%lu\", \"%f\"\n", query_labels[first_query + at / k],
        resident_labels[static_cast<size_t>(neighbours[at])], static_cast<double>(distances[at]));
    expected += line;
  }

  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("talvik.lines." + std::to_string(getpid()));
  auto file = internal::open_result_file(path);
  internal::write_lists(file, {first_query, num_queries, k, neighbours.data(), distances.data()},
                        query_labels, resident_labels);
  internal::close_result_file(std::move(file));
  std::ifstream written(path);
  const std::string text{std::istreambuf_iterator<char>(written), {}};
  std::filesystem::remove(path);
  EXPECT_TRUE(text == expected) << text.size() << " bytes instead of " << expected.size();
}

}  // namespace
}  // namespace talvik
