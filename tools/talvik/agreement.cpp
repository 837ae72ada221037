#include "agreement.hpp"

#include <fmt/core.h>
#include <mpi.h>

#include <algorithm>
#include <array>

#include "run_error.hpp"

namespace talvik::tool {

namespace {

std::string machine() {
  std::array<char, MPI_MAX_PROCESSOR_NAME + 1> name{};
  int length = 0;
  MPI_Get_processor_name(name.data(), &length);
  return name.data();
}

int smallest_of_all(int own) {
  int smallest = own;
  if (num_procs <= 1) return smallest;
  MPI_Allreduce(&own, &smallest, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
  return smallest;
}

}  // namespace

std::string from_process(const std::string& text, int root) {
  if (num_procs <= 1) return text;
  auto bytes = static_cast<unsigned long long>(text.size());
  MPI_Bcast(&bytes, 1, MPI_UNSIGNED_LONG_LONG, root, MPI_COMM_WORLD);
  std::string shared = text;
  shared.resize(bytes);
  constexpr unsigned long long piece = 1ULL << 30;  // MPI counts in int
  for (unsigned long long at = 0; at < bytes; at += piece) {
    MPI_Bcast(shared.data() + at, static_cast<int>(std::min(piece, bytes - at)), MPI_CHAR, root,
              MPI_COMM_WORLD);
  }
  return shared;
}

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

}  // namespace talvik::tool
