#include "same_run.hpp"

#include <fmt/core.h>
#include <mpi.h>

#include <bit>
#include <functional>
#include <string_view>

#include "agreement.hpp"
#include "internal/index.hpp"
#include "run_error.hpp"

namespace talvik::tool {
namespace {

template <class T>
NamedDigest digest_of_value(const char* name, const T& value) {
  const auto number = static_cast<double>(value);
  return {name, Digest().add(std::span(&number, 1)).value()};
}

std::uint64_t digest_of_collection(const LoadedCollection& collection) {
  Digest digest;
  for (const Document& doc : collection.docs) digest.add(std::span(doc));
  return digest.add(std::span(collection.ids)).add(std::span(collection.classes)).value();
}

}  // namespace

Digest& Digest::add_bytes(const void* bytes, size_t count) {
  constexpr int rotation = 23;  // so that the order of the pieces counts
  const std::string_view piece(static_cast<const char*>(bytes), count);
  value_ = std::rotl(value_ ^ count, rotation) ^ std::hash<std::string_view>{}(piece);
  return *this;
}

void require_same(const std::vector<NamedDigest>& digests) {
  std::vector<std::uint64_t> values;
  values.reserve(digests.size());
  for (const NamedDigest& digest : digests) values.push_back(digest.value);
  const int count = static_cast<int>(values.size());
  MPI_Bcast(values.data(), count, MPI_UINT64_T, 0, MPI_COMM_WORLD);
  together([&] {
    for (int i = 0; i < count; ++i) {
      if (values[i] != digests[i].value) {
        throw RunError(digests[i].name + " is not what process 0 has");
      }
    }
  });
}

std::vector<NamedDigest> digests_of(const RunOptions& options) {
  return {digest_of_value("--k", options.k),
          digest_of_value("--steps", options.steps),
          digest_of_value("--mode", options.mode),
          digest_of_value("--metric", options.metric),
          digest_of_value("--normalise", options.normalise),
          digest_of_value("--gpu", options.gpu),
          digest_of_value("--limit-resident", options.limit_resident),
          digest_of_value("--limit-queries", options.limit_queries),
          digest_of_value("--matrix, asked for or not,", !options.matrix.empty()),
          digest_of_value("--keep-shards", options.keep_shards)};
}

std::vector<NamedDigest> digests_of(const Problem& problem) {
  const std::span<const float> vectors(problem.embeddings.get(),
                                       internal::elements(problem.voc_size, problem.vec_size));
  return {{"the file of word vectors", Digest().add(vectors).value()},
          {"the collection of resident documents", digest_of_collection(problem.resident)},
          {"the collection of queries", digest_of_collection(problem.queries)}};
}

}  // namespace talvik::tool
