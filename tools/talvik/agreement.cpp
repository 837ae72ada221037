// Agreement over the library's thin collectives; the program calls nothing of MPI itself.
#include "agreement.hpp"

#include <algorithm>

#include "run_error.hpp"
#include "talvik.hpp"

namespace talvik::tool {

void agree(const std::string& error) {
  const float nobody = static_cast<float>(num_procs);
  float offered = error.empty() ? nobody : static_cast<float>(myid);
  float lowest = nobody;
  reduce_mpi_min_float(&offered, &lowest, 1);
  if (lowest == nobody) return;

  const int root = static_cast<int>(lowest);
  std::string text = error;
  int length = static_cast<int>(text.size());
  broadcast_mpi(&length, sizeof length, root);
  text.resize(static_cast<size_t>(length));
  broadcast_mpi(text.data(), length, root);
  throw RunError(text);
}

void broadcast_bytes(void* data, size_t bytes, int root) {
  constexpr size_t chunk_bytes = size_t{1} << 30;  // the length is an int
  auto* at = static_cast<char*>(data);
  for (size_t done = 0; done < bytes; done += chunk_bytes) {
    broadcast_mpi(at + done, static_cast<int>(std::min(chunk_bytes, bytes - done)), root);
  }
}

}  // namespace talvik::tool
