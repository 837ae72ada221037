// Files that must not survive a run that a signal ends.
#ifndef TALVIK_TOOL_UNFINISHED_HPP
#define TALVIK_TOOL_UNFINISHED_HPP

#include <mutex>
#include <string>

namespace talvik::tool {

/// Held by who changes what is unfinished, and to the end by the thread that a signal wakes.
std::mutex& unfinished_mutex();

/// A file or directory that is removed at the end of the scope, or when a signal ends the program.
class Unfinished {
 public:
  explicit Unfinished(std::string path);
  ~Unfinished() { remove(); }
  Unfinished(const Unfinished&) = delete;
  Unfinished& operator=(const Unfinished&) = delete;

  const std::string& path() const { return path_; }
  void remove();

  /// Gives it its final name, under which it stays.
  /// @return false, with errno set, where that cannot be done
  bool rename_to(const std::string& name);

 private:
  void forget();
  std::string path_;
};

/// Runs a step that leaves nothing unfinished once it is over; a signal that would end the program
/// waits for that.
template <class Step>
void uninterrupted(const Step& step) {
  const std::lock_guard lock(unfinished_mutex());
  step();
}

/// For who ends the process without leaving its scopes.
void remove_all_unfinished();

/// From now on what is unfinished is removed when the library ends the process, and INT, TERM and
/// HUP do so and end it with status 128 plus the signal's number; a signal that is ignored stays
/// so. A pipe without a reader is a failed write.  Not to be called twice.
void remove_unfinished_at_the_end();

}  // namespace talvik::tool

#endif
