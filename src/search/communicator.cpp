#include "talvik/communicator.hpp"

namespace talvik {

Communicator::Communicator(MPI_Comm comm) {
  MPI_Comm_dup(comm, &comm_);
  MPI_Comm_rank(comm_, &rank_);
  MPI_Comm_size(comm_, &size_);
}

Communicator::~Communicator() { MPI_Comm_free(&comm_); }

}  // namespace talvik
