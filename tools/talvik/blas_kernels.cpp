#include "blas_kernels.hpp"

#include <dlfcn.h>
#include <unistd.h>  // execv

#include <cstdlib>

namespace talvik::tool {
namespace {

constexpr const char* variable = "OPENBLAS_CORETYPE";
constexpr std::string_view fallback = "Prescott";

// Null: the processor has nothing better than what was fallen back on.
const char* kernels_of_processor() {
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
      __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl")) {
    return "SkylakeX";
  }
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return "Haswell";
#endif
  return nullptr;
}

}  // namespace

void choose_blas_kernels(char** argv) {
  if (blas_kernels() != fallback || std::getenv(variable)) return;
  const char* const kernels = kernels_of_processor();
  if (!kernels || setenv(variable, kernels, 0) != 0) return;
  execv("/proc/self/exe", argv);
  unsetenv(variable);  // goes on as it is
}

std::string_view blas_kernels() {
  const auto name =
      reinterpret_cast<const char* (*)()>(dlsym(RTLD_DEFAULT, "openblas_get_corename"));
  return name ? name() : "";
}

}  // namespace talvik::tool
