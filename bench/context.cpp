#include "context.hpp"

#include <cblas.h>
#include <hwy/highway.h>

#include <cstdint>
#include <cstdio>
#include <fstream>

#include "libwmd/cpu/dense_product.hpp"
#include "talvik.hpp"

namespace talvik::bench {
namespace {

constexpr const char* compiler =
#if defined(__clang__)
    "clang " __clang_version__;
#else
    "g++ " __VERSION__;
#endif

std::string processor_model() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line)) {
    const size_t colon = line.find(": ");
    if (line.rfind("model name", 0) == 0 && colon != std::string::npos) {
      return line.substr(colon + 2);
    }
  }
  return "unknown";
}

// The best of those that the loops are compiled for and that the processor has.
const char* instruction_set() {
  const std::int64_t usable = hwy::SupportedTargets() & HWY_TARGETS;
  return hwy::TargetName(usable & -usable);  // lower bits are better
}

constexpr int text_dimensions = 300;  // which product multiplies words depends on it

}  // namespace

std::string kernels_in_use() {
  return std::string("own loops ") + instruction_set() + ", OpenBLAS " + openblas_get_corename() +
         ", engine's dense product " +
         internal::name_of_kernel(internal::product_scratch(text_dimensions));
}

void print_context() {
  std::printf(
      "compiler:   %s\n"
      "flags:      %s\n"
      "processor:  %s\n"
      "threads:    %d\n"
      "kernels:    %s\n"
      "            (%s)\n",
      compiler, TALVIK_BENCH_FLAGS, processor_model().c_str(), num_cpu_threads,
      kernels_in_use().c_str(), openblas_get_config());
  std::fflush(stdout);
}

}  // namespace talvik::bench
