#include "agreement.hpp"

#include <mpi.h>

#include "run_error.hpp"
#include "talvik.hpp"

namespace talvik::tool {

namespace {

std::string from_process(const std::string& text, int root) {
  std::string shared = text;
  int length = static_cast<int>(text.size());
  MPI_Bcast(&length, 1, MPI_INT, root, MPI_COMM_WORLD);
  shared.resize(length);
  MPI_Bcast(shared.data(), length, MPI_CHAR, root, MPI_COMM_WORLD);
  return shared;
}

}  // namespace

void agree(const std::string& error) {
  const int nobody = num_procs;
  const int offered = error.empty() ? nobody : myid;
  int lowest = nobody;
  MPI_Allreduce(&offered, &lowest, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
  if (lowest != nobody) throw RunError(from_process(error, lowest));
}

std::string from_first_process(const std::string& text) { return from_process(text, 0); }

}  // namespace talvik::tool
