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
  const auto of_a = times_.find(a), of_b = times_.find(b);
  if (of_a == times_.end() || of_b == times_.end()) {
    std::printf("%-48s not run\n", name.c_str());
    return;
  }
  const Times &x = of_a->second, &y = of_b->second;
  std::printf("%-48s wall %6.3f   cpu %6.3f", name.c_str(), median(x.wall) / median(y.wall),
              median(x.cpu) / median(y.cpu));
  if (target > 0) std::printf("   target %.2f", target);
  std::printf("   (spread %.2f, %.2f)\n", spread(x.wall), spread(y.wall));
}

}  // namespace talvik::bench
