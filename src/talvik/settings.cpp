// The host program's settings, its hook at the end of a batch, and the wall clock.
#include <sys/time.h>  // gettimeofday

#include "talvik.hpp"

namespace talvik {

int num_cpu_threads = 8;
bool use_cosine = false;
bool normalize_embeddings = false;

void (*batch_finished)(const BatchResult& batch, void* context) = nullptr;
void* batch_finished_context = nullptr;

double When() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_usec) / 1000.0 / 1000.0 + static_cast<double>(now.tv_sec);
}

}  // namespace talvik
