// The processes that answer a search together; one process needs no MPI.
#ifndef TALVIK_SEARCH_GROUP_HPP
#define TALVIK_SEARCH_GROUP_HPP

#include <exception>
#include <initializer_list>
#include <vector>

#include "search/answer.hpp"
#include "talvik/collection.hpp"
#include "talvik/search.hpp"

namespace talvik {
class Communicator;
}

namespace talvik::internal {

/// Every function is collective, and fails on all processes or on none: what a process does alone
/// between two of them, and may fail at, it does in together().
class Group {
 public:
  /// @param communicator  null for one process
  explicit Group(const Communicator* communicator) : communicator_(communicator) {}

  int rank() const;
  int size() const;

  /// Throws on every process if any of them hands in a failure: each its own, the others an Error
  /// that says which process has failed, or Cancelled if that was the failure.
  void agree(const std::exception_ptr& failure) const;

  /// Runs this process's own work between two collectives, and agrees on how it went.
  template <class Work>
  void together(const Work& work) const {
    std::exception_ptr failure;
    try {
      work();
    } catch (...) {
      failure = std::current_exception();
    }
    agree(failure);
  }

  /// Whether all processes hand in the same values.
  bool same(std::initializer_list<double> values) const;

  /// The largest of the processes' values.
  Count largest(Count value) const;
  double largest(double value) const;
  Count sum(Count value) const;

  /// Every process's part of an array, on every process.
  /// @param counts  per process, of its part
  /// @param places  per process, where its part begins
  void gather(const std::vector<int>& counts, const std::vector<int>& places, float* values) const;

  /// Lists of the processes, per query, to the k first of all, on every process.
  void merge(std::vector<std::vector<Found>>& lists, Count k) const;

  /// The documents of a process, on every process: without ids, labels and texts.  All have the
  /// same vocabulary.
  Collection broadcast(const Collection& own, int root) const;

 private:
  const Communicator* communicator_;
};

}  // namespace talvik::internal

#endif
