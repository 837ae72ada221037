#include "search/group.hpp"

#include <algorithm>
#include <climits>
#include <optional>
#include <string>

#include "search/collection_parts.hpp"
#include "talvik/communicator.hpp"
#include "talvik/error.hpp"

namespace talvik::internal {
namespace {

enum Outcome : int { fine, cancelled, failed };

Outcome outcome_of(const std::exception_ptr& failure) {
  if (!failure) return fine;
  try {
    std::rethrow_exception(failure);
  } catch (const Cancelled&) {
    return cancelled;
  } catch (...) {
    return failed;
  }
}

int checked_int(Count count) {
  if (count > INT_MAX) {
    throw Error("", std::to_string(count) + " numbers are too many to be sent to another process");
  }
  return static_cast<int>(count);
}

// Sends an array in pieces that MPI's counts can name; it has its size everywhere.
template <class Value>
void broadcast_array(MPI_Comm comm, int root, std::vector<Value>& values) {
  const auto size = static_cast<long long>(values.size());
  constexpr long long piece = (1LL << 30) / sizeof(Value);
  for (long long at = 0; at < size; at += piece) {
    const auto count = static_cast<int>(std::min(piece, size - at) * sizeof(Value));
    MPI_Bcast(values.data() + at, count, MPI_BYTE, root, comm);
  }
}

}  // namespace

int Group::rank() const { return communicator_ ? communicator_->rank() : 0; }
int Group::size() const { return communicator_ ? communicator_->size() : 1; }

void Group::agree(const std::exception_ptr& failure) const {
  if (size() == 1) {
    if (failure) std::rethrow_exception(failure);
    return;
  }
  struct {
    int outcome, rank;
  } worst{outcome_of(failure), rank()};
  MPI_Allreduce(MPI_IN_PLACE, &worst, 1, MPI_2INT, MPI_MAXLOC, communicator_->get());
  if (failure) std::rethrow_exception(failure);
  if (worst.outcome == cancelled) throw Cancelled();
  if (worst.outcome == failed) {
    throw Error("process " + std::to_string(worst.rank), "its part of the search has failed");
  }
}

bool Group::same(std::initializer_list<double> values) const {
  if (size() == 1) return true;
  std::vector<double> least, most;
  together([&] { least = most = values; });
  const auto count = static_cast<int>(values.size());
  MPI_Allreduce(MPI_IN_PLACE, least.data(), count, MPI_DOUBLE, MPI_MIN, communicator_->get());
  MPI_Allreduce(MPI_IN_PLACE, most.data(), count, MPI_DOUBLE, MPI_MAX, communicator_->get());
  return least == most;
}

Count Group::largest(Count value) const {
  long long most = value;
  if (size() > 1) {
    MPI_Allreduce(MPI_IN_PLACE, &most, 1, MPI_LONG_LONG, MPI_MAX, communicator_->get());
  }
  return most;
}

double Group::largest(double value) const {
  if (size() > 1) {
    MPI_Allreduce(MPI_IN_PLACE, &value, 1, MPI_DOUBLE, MPI_MAX, communicator_->get());
  }
  return value;
}

Count Group::sum(Count value) const {
  long long sum = value;
  if (size() > 1) {
    MPI_Allreduce(MPI_IN_PLACE, &sum, 1, MPI_LONG_LONG, MPI_SUM, communicator_->get());
  }
  return sum;
}

void Group::gather(const std::vector<int>& counts, const std::vector<int>& places,
                   float* values) const {
  if (size() == 1) return;
  MPI_Allgatherv(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, values, counts.data(), places.data(),
                 MPI_FLOAT, communicator_->get());
}

void Group::merge(std::vector<std::vector<Found>>& lists, Count k) const {
  if (size() == 1) return;
  MPI_Comm comm = communicator_->get();
  const size_t queries = lists.size();
  // Per process: the lengths of its lists, then its lists, one behind the other.
  std::vector<long long> lengths, documents, all_documents;
  std::vector<double> distances, all_distances;
  std::vector<int> counts, places;
  together([&] {
    checked_int(static_cast<Count>(queries));
    lengths.resize(queries * size());
    for (size_t q = 0; q < queries; ++q) {
      lengths[rank() * queries + q] = std::ssize(lists[q]);
      for (const auto& [distance, document] : lists[q]) {
        distances.push_back(distance);
        documents.push_back(document);
      }
      lists[q].clear();
    }
  });
  MPI_Allgather(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, lengths.data(), static_cast<int>(queries),
                MPI_LONG_LONG, comm);
  together([&] {
    Count total = 0;
    for (int p = 0; p < size(); ++p) {
      Count count = 0;
      for (size_t q = 0; q < queries; ++q) count += lengths[p * queries + q];
      counts.push_back(checked_int(count));
      places.push_back(checked_int(total));
      total += count;
    }
    all_distances.resize(total);
    all_documents.resize(total);
  });
  MPI_Allgatherv(distances.data(), counts[rank()], MPI_DOUBLE, all_distances.data(), counts.data(),
                 places.data(), MPI_DOUBLE, comm);
  MPI_Allgatherv(documents.data(), counts[rank()], MPI_LONG_LONG, all_documents.data(),
                 counts.data(), places.data(), MPI_LONG_LONG, comm);
  together([&] {
    for (int p = 0; p < size(); ++p) {
      Count at = places[p];
      for (size_t q = 0; q < queries; ++q) {
        for (long long i = 0; i < lengths[p * queries + q]; ++i, ++at) {
          lists[q].emplace_back(all_distances[at], all_documents[at]);
        }
      }
    }
    for (auto& list : lists) {
      std::sort(list.begin(), list.end());
      if (std::ssize(list) > k) list.resize(k);
    }
  });
}

Collection Group::broadcast(const Collection& own, int root) const {
  MPI_Comm comm = communicator_->get();
  struct {
    long long first, documents, entries;
  } sizes{own.first_document(), own.size(), own.entries()};
  MPI_Bcast(&sizes, 3, MPI_LONG_LONG, root, comm);
  std::vector<Count> offsets;
  std::vector<int> words;
  std::vector<float> weights;
  together([&] {
    if (rank() == root) {
      offsets.assign(own.offsets().begin(), own.offsets().end());
      words.assign(own.words().begin(), own.words().end());
      weights.assign(own.weights().begin(), own.weights().end());
    } else {
      offsets.resize(sizes.documents + 1);
      words.resize(sizes.entries);
      weights.resize(sizes.entries);
    }
  });
  broadcast_array(comm, root, offsets);
  broadcast_array(comm, root, words);
  broadcast_array(comm, root, weights);
  std::optional<Collection> documents;
  together([&] {
    documents = CollectionParts::bare(own, std::move(offsets), std::move(words), std::move(weights),
                                      sizes.first);
  });
  return *std::move(documents);
}

}  // namespace talvik::internal
