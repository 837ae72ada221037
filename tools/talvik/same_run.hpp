// What all processes of a run must have alike.  Launchers can start them with other options and on
// machines with other files, and the library would go on with both.
#ifndef TALVIK_TOOL_SAME_RUN_HPP
#define TALVIK_TOOL_SAME_RUN_HPP

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "problem.hpp"
#include "run_options.hpp"

namespace talvik::tool {

/// A hash of bytes, added piece by piece.  Equal between processes of one build, not for keeping.
class Digest {
 public:
  template <class T>
  Digest& add(std::span<const T> values) {
    return add_bytes(values.data(), values.size_bytes());
  }
  std::uint64_t value() const { return value_; }

 private:
  Digest& add_bytes(const void* bytes, size_t count);
  std::uint64_t value_ = 0;
};

struct NamedDigest {
  std::string name;  ///< "--steps", "the resident documents"
  std::uint64_t value;
};

/// Throws RunError on every process where one of them has other digests than process 0, naming the
/// process, its machine, and the first difference.  Collective.
void require_same(const std::vector<NamedDigest>& digests);

/// Of what changes the result, but not of names of files.
std::vector<NamedDigest> digests_of(const RunOptions& options);
std::vector<NamedDigest> digests_of(const Problem& problem);

}  // namespace talvik::tool

#endif
