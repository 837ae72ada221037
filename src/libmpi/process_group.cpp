// The process's place in the job, and the collective operations for the library and host programs.
#include <mpi.h>

#include <algorithm>  // copy_n
#include <cstdlib>
#include <iostream>
#include <string>

#include "internal/failure.hpp"
#include "libmpi/abort_job.hpp"
#include "talvik.hpp"

namespace talvik {

int myid = 0;
int num_procs = 0;
int local_id = 0;
int num_local_procs = 0;

namespace {

bool mpi_initialized() {
  int flag = 0;
  MPI_Initialized(&flag);
  return flag != 0;
}

bool mpi_finalized() {
  int flag = 0;
  MPI_Finalized(&flag);
  return flag != 0;
}

// A number that the launcher left in the environment.
// @return fallback where it left none
int launcher_value(const char* name, int fallback) {
  constexpr int decimal = 10;
  const char* text = std::getenv(name);
  return text ? static_cast<int>(std::strtol(text, nullptr, decimal)) : fallback;
}

}  // namespace

namespace internal {

void abort_job(const std::string& text) {
  print_failure(text);
  if (mpi_initialized() && !mpi_finalized()) MPI_Abort(MPI_COMM_WORLD, failure_status);
  std::exit(failure_status);
}

}  // namespace internal

void init_mpi(int* rank, int* size, int* local_rank, int* local_size) {
  if (!mpi_initialized()) MPI_Init(nullptr, nullptr);
  MPI_Comm_size(MPI_COMM_WORLD, size);
  MPI_Comm_rank(MPI_COMM_WORLD, rank);
  char node[MPI_MAX_PROCESSOR_NAME + 1] = "";
  int node_length = 0;
  MPI_Get_processor_name(node, &node_length);
  *local_rank = launcher_value("OMPI_COMM_WORLD_LOCAL_RANK", 0);
  *local_size = launcher_value("OMPI_COMM_WORLD_LOCAL_SIZE", 1);
  // Written as one string, so that the lines of several processes do not mix.
  std::cout << "Process " + std::to_string(*rank) + " of " + std::to_string(*size) + " is on " +
                   node + " (local id: " + std::to_string(*local_rank) +
                   ", local procs: " + std::to_string(*local_size) + ")\n"
            << std::flush;
}

void finalize_mpi() {
  if (!mpi_finalized()) MPI_Finalize();
}

void barrier_mpi() { MPI_Barrier(MPI_COMM_WORLD); }

void reduce_mpi_sum_int(void* send, void* receive, int count) {
  if (!mpi_initialized()) {
    std::copy_n(static_cast<const int*>(send), count, static_cast<int*>(receive));
    return;
  }
  MPI_Allreduce(send, receive, count, MPI_INT, MPI_SUM, MPI_COMM_WORLD);
}

void reduce_mpi_min_float(void* send, void* receive, int count) {
  MPI_Allreduce(send, receive, count, MPI_FLOAT, MPI_MIN, MPI_COMM_WORLD);
}

void broadcast_mpi(void* buffer, int length, int root) {
  MPI_Bcast(buffer, length, MPI_BYTE, root, MPI_COMM_WORLD);
}

void all_gather_mpi(int* items) {
  MPI_Allgatherv(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, items, grp_length, grp_start, MPI_INT,
                 MPI_COMM_WORLD);
}

}  // namespace talvik
