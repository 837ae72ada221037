# Interface targets that carry the build's options: warnings, sanitizers, the choice of a BLAS.

# Every target of the project is compiled with these.  nvcc hands the host compiler's options on.
add_library(talvik_build_options INTERFACE)
target_compile_options(talvik_build_options INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall;-Wextra>
  $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-Wall,-Wextra,-fopenmp>)
if(TALVIK_WARNINGS_AS_ERRORS)
  target_compile_options(talvik_build_options INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Werror> $<$<COMPILE_LANGUAGE:CUDA>:--Werror=all-warnings>)
endif()
if(TALVIK_SANITIZE)
  target_compile_options(talvik_build_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:
    -fsanitize=address,undefined;-fno-sanitize-recover=undefined;-fno-omit-frame-pointer>)
  target_link_options(talvik_build_options INTERFACE -fsanitize=address,undefined)
endif()

# Eigen's dense products call OpenBLAS, which picks its kernels at run time.  Any of Debian's
# variants will do; the engine keeps it to one thread while its own team calls it.
add_library(talvik_blas INTERFACE)
if(TALVIK_USE_BLAS)
  pkg_check_modules(openblas IMPORTED_TARGET openblas)
endif()
if(TALVIK_USE_BLAS AND openblas_FOUND)
  message(STATUS "Dense products: OpenBLAS ${openblas_VERSION}")
  target_compile_definitions(talvik_blas INTERFACE EIGEN_USE_BLAS)
  target_link_libraries(talvik_blas INTERFACE PkgConfig::openblas)
else()
  message(STATUS "Dense products: no OpenBLAS, Eigen's own kernel (several times slower)")
endif()

# Symbols are bound when a program starts and cannot be rebound afterwards: the linker's tables are
# read-only from then on.
add_link_options(LINKER:-z,relro LINKER:-z,now)
