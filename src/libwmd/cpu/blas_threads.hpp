// Keeps the BLAS to one thread while the library's own teams call it.
#ifndef TALVIK_LIBWMD_CPU_BLAS_THREADS_HPP
#define TALVIK_LIBWMD_CPU_BLAS_THREADS_HPP

#include <mutex>

// Functions of OpenBLAS; null with another BLAS or with none.
extern "C" {
__attribute__((weak)) int openblas_get_num_threads();
__attribute__((weak)) void openblas_set_num_threads(int threads);
}

namespace talvik::internal {

/// While one lives, dense products run on the thread that calls them; the end of the last one
/// restores the host program's setting.  The setting is the process's: computations that run side
/// by side share the first one's memory of it.
class SingleThreadedBlas {
 public:
  SingleThreadedBlas() {
    const std::lock_guard lock(shared().mutex);
    if (shared().alive++ == 0 && openblas_get_num_threads && openblas_set_num_threads) {
      shared().threads_before = openblas_get_num_threads();
      openblas_set_num_threads(1);
    }
  }
  ~SingleThreadedBlas() {
    const std::lock_guard lock(shared().mutex);
    if (--shared().alive == 0 && shared().threads_before > 0) {
      openblas_set_num_threads(shared().threads_before);
    }
  }
  SingleThreadedBlas(const SingleThreadedBlas&) = delete;
  SingleThreadedBlas& operator=(const SingleThreadedBlas&) = delete;

 private:
  struct Shared {
    std::mutex mutex;
    int alive = 0;
    int threads_before = 0;
  };
  static Shared& shared() {
    static Shared shared;
    return shared;
  }
};

}  // namespace talvik::internal

#endif
