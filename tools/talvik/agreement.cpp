#include "agreement.hpp"

#include <fmt/core.h>
#include <mpi.h>

#include <array>

#include "run_error.hpp"

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

std::string machine() {
  std::array<char, MPI_MAX_PROCESSOR_NAME + 1> name{};
  int length = 0;
  MPI_Get_processor_name(name.data(), &length);
  return name.data();
}

int smallest_of_all(int own) {
  int smallest = own;
  MPI_Allreduce(&own, &smallest, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
  return smallest;
}

}  // namespace

void agree(const std::string& error) {
  const int nobody = num_procs;
  const int lowest = smallest_of_all(error.empty() ? nobody : myid);
  if (lowest == nobody) return;
  const std::string text = from_process(error, lowest);
  const bool common = smallest_of_all(error == text ? 1 : 0) == 1;
  if (common) throw RunError(text);
  throw RunError(
      fmt::format("process {} on {}: {}", lowest, from_process(machine(), lowest), text));
}

void agree_with_first(const std::string& error) {
  const std::string text = from_process(error, 0);
  if (!text.empty()) throw RunError(text);
}

std::string from_first_process(const std::string& text) { return from_process(text, 0); }

}  // namespace talvik::tool
