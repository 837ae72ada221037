// The three sentences of docs/concepts.md, asked of an installed library: distances known by hand.
#include <cstdio>
#include <cstdlib>
#include <talvik.hpp>
#include <vector>

int main() {
  // Two columns of words at x = 0 and x = 6: dog, puppy, price and sleeps, rests, rises.
  std::vector<float> embeddings = {0, 0, 0, 1, 0, 5, 6, 0, 6, 1, 6, 9};
  const talvik::DocumentSet queries = {{{0, 0.5f}, {3, 0.5f}}};  // the dog sleeps
  const talvik::DocumentSet searched = {
      {{1, 0.5f}, {4, 0.5f}},                             // a puppy rests
      {{0, 0.25f}, {3, 0.25f}, {2, 0.25f}, {5, 0.25f}}};  // the dog sleeps while the price rises
  talvik::num_cpu_threads = 2;
  float* distances = nullptr;
  talvik::rwmd2_twoway_wrapper(6, embeddings.data(), 2, 2, 0, queries, {1}, searched, {1, 2},
                               &distances, false, nullptr, false);
  const bool right = distances && distances[0] == 1.0f && distances[1] == 3.5f;
  if (!right) std::printf("wrong distances\n");
  std::free(distances);
  talvik::cleanup_distribution_info();
  talvik::finalize_mpi();
  return right ? 0 : 1;
}
