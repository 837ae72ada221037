// Keeps the BLAS to one thread while the library's own teams call it.
#ifndef TALVIK_LIBWMD_CPU_BLAS_THREADS_HPP
#define TALVIK_LIBWMD_CPU_BLAS_THREADS_HPP

// Functions of OpenBLAS; null with another BLAS or with none.
extern "C" {
__attribute__((weak)) int openblas_get_num_threads();
__attribute__((weak)) void openblas_set_num_threads(int threads);
}

namespace talvik::internal {

/// While it lives, dense products run on the thread that calls them; its end restores the host
/// program's setting.
class SingleThreadedBlas {
 public:
  SingleThreadedBlas() {
    if (openblas_get_num_threads && openblas_set_num_threads) {
      threads_before_ = openblas_get_num_threads();
      openblas_set_num_threads(1);
    }
  }
  ~SingleThreadedBlas() {
    if (threads_before_ > 0) openblas_set_num_threads(threads_before_);
  }
  SingleThreadedBlas(const SingleThreadedBlas&) = delete;
  SingleThreadedBlas& operator=(const SingleThreadedBlas&) = delete;

 private:
  int threads_before_ = 0;
};

}  // namespace talvik::internal

#endif
