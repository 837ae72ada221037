// Searching with several processes.
#ifndef TALVIK_COMMUNICATOR_HPP
#define TALVIK_COMMUNICATOR_HPP

#include <mpi.h>

#include "talvik/api.hpp"

namespace talvik {

/// The processes that answer together.  The collectives of the library run on a duplicate, so that
/// they meet no message of the caller's.  MPI is initialised before and finalised after its life.
class TALVIK_API Communicator {
 public:
  /// Collective over comm.
  explicit Communicator(MPI_Comm comm);
  /// Collective.
  ~Communicator();
  Communicator(const Communicator&) = delete;
  Communicator& operator=(const Communicator&) = delete;

  int rank() const { return rank_; }      ///< of this process
  int size() const { return size_; }      ///< processes
  MPI_Comm get() const { return comm_; }  ///< the duplicate

 private:
  MPI_Comm comm_;
  int rank_ = 0;
  int size_ = 1;
};

}  // namespace talvik

#endif
