// Ends the program with a line where the limit on its address space is too low for the BLAS to be
// loaded, which would try for ever.  Runs before the initialisation of any library, so that nothing
// but system calls may be used.
#include <sched.h>   // sched_getaffinity
#include <unistd.h>  // write, _exit

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "internal/address_space.hpp"

namespace {

// The threads for which OpenBLAS prepares itself: the processors, unless the environment says less.
int blas_threads(char** environment) {
  cpu_set_t processors;
  CPU_ZERO(&processors);
  int threads =
      sched_getaffinity(0, sizeof processors, &processors) == 0 ? CPU_COUNT(&processors) : 1;
  for (; *environment; ++environment) {
    const std::string_view variable = *environment;
    for (const std::string_view name : {"OPENBLAS_NUM_THREADS=", "OMP_NUM_THREADS="}) {
      if (!variable.starts_with(name)) continue;
      const int wanted = std::atoi(*environment + name.size());
      if (wanted > 0) threads = std::min(threads, wanted);
    }
  }
  return threads;
}

void require_address_space(int /*argc*/, char** /*argv*/, char** environment) {
  using namespace talvik::internal;
  if (fits_address_space(blas_threads(environment) * blas_bytes_per_thread)) return;
  constexpr std::string_view line =
      "talvik: the limit on the address space (ulimit -v) is too low to load the BLAS\n";
  if (write(STDERR_FILENO, line.data(), line.size()) < 0) _exit(2);
  _exit(1);
}

[[gnu::used,
  gnu::section(".preinit_array")]] void (*const load_check)(int, char**,
                                                            char**) = require_address_space;

}  // namespace
