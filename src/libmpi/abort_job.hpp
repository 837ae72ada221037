// How one process ends all of them.
#ifndef TALVIK_LIBMPI_ABORT_JOB_HPP
#define TALVIK_LIBMPI_ABORT_JOB_HPP

#include <string>

namespace talvik::internal {

/// Prints text as a line, flushed, and ends every process of the job with status 1: for failures
/// that the other processes do not share and would wait out forever.
[[noreturn]] void abort_job(const std::string& text);

}  // namespace talvik::internal

#endif
