#include "ratio_reporter.hpp"

#include <algorithm>
#include <cstdio>

namespace talvik::bench {
namespace {

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Slowest over fastest: how far one can believe a ratio.
double spread(const std::vector<double>& values) {
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  return *high / *low;
}

}  // namespace

void RatioReporter::print_ratio(const std::string& a, const std::string& b, double target) const {
  const std::string name = a + " / " + b;
  const auto of_a = seconds_.find(a), of_b = seconds_.find(b);
  if (of_a == seconds_.end() || of_b == seconds_.end()) {
    std::printf("%-58s not run\n", name.c_str());
    return;
  }
  std::printf("%-58s %7.3f", name.c_str(), median(of_a->second) / median(of_b->second));
  if (target > 0) std::printf("   target %.2f", target);
  std::printf("   (spread %.2f, %.2f)\n", spread(of_a->second), spread(of_b->second));
}

}  // namespace talvik::bench
