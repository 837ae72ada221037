// What a run's figures depend on, apart from the code: said at the head of the output.
#ifndef TALVIK_BENCH_CONTEXT_HPP
#define TALVIK_BENCH_CONTEXT_HPP

#include <string>

namespace talvik::bench {

/// What the own loops and OpenBLAS have chosen in this process.
std::string kernels_in_use();

void print_context();

}  // namespace talvik::bench

#endif
