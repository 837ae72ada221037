#include "agreement.hpp"

#include <mpi.h>

#include "run_error.hpp"
#include "talvik.hpp"

namespace talvik::tool {

void agree(const std::string& error) {
  const int nobody = num_procs;
  const int offered = error.empty() ? nobody : myid;
  int lowest = nobody;
  MPI_Allreduce(&offered, &lowest, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
  if (lowest == nobody) return;

  std::string text = error;
  int length = static_cast<int>(text.size());
  MPI_Bcast(&length, 1, MPI_INT, lowest, MPI_COMM_WORLD);
  text.resize(length);
  MPI_Bcast(text.data(), length, MPI_CHAR, lowest, MPI_COMM_WORLD);
  throw RunError(text);
}

}  // namespace talvik::tool
