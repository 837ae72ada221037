// The end of all processes of a job.
#ifndef TALVIK_LIBMPI_ABORT_JOB_HPP
#define TALVIK_LIBMPI_ABORT_JOB_HPP

#include <string>

namespace talvik::internal {

/// Prints text as a line and ends every process of the job with status 1.  For failures of a single
/// process, for which the others would wait for ever.
[[noreturn]] void abort_job(const std::string& text);

}  // namespace talvik::internal

#endif
