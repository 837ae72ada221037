// The dense products' speed on processors that are newer than the installed BLAS.
#ifndef TALVIK_TOOL_BLAS_KERNELS_HPP
#define TALVIK_TOOL_BLAS_KERNELS_HPP

#include <string_view>

namespace talvik::tool {

/// OpenBLAS picks its kernels by the processor's model number when it is loaded; for a model that
/// its release does not know it falls back on those of 2004, which take several times as long.
/// Where that has happened though the processor has AVX2 or AVX-512, starts the program again, in
/// its place, with kernels for these.  Not where OPENBLAS_CORETYPE is set.
/// @param argv  of main, before anything else has been done
void choose_blas_kernels(char** argv);

/// The processor whose kernels the dense products use, by OpenBLAS's name for it; empty with
/// another BLAS or with none.
std::string_view blas_kernels();

}  // namespace talvik::tool

#endif
