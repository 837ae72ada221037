// What must hold of collections and options before distances are formed.
#ifndef TALVIK_SEARCH_CHECKS_HPP
#define TALVIK_SEARCH_CHECKS_HPP

#include "search/pair_distance.hpp"
#include "talvik/search.hpp"

namespace talvik::internal {

/// The entries of a document of a collection, which must outlive the view.
DocumentView view_of(const Collection& collection, Count document);

/// How far the sums of weights may lie apart for exact distances, as a share of the larger one.
/// Sums of weights that were scaled in single precision to sum to 1 are much nearer than that.
inline constexpr double tolerated_difference_of_masses = 1e-5;

/// Looks at documents one by one; each is compared with all before it.
class DistanceCheck {
 public:
  /// @throws ArgumentError  for negative steps, and where dimensions or scaling differ
  DistanceCheck(const Collection& collection, const Collection& queries, const Distance& distance);

  /// @throws ArgumentError  a number out of range; for the exact distance, a sum of weights
  ///                        unlike others
  void document(Count number) { check(collection_, number, "document"); }
  void query(Count number) { check(queries_, number, "query"); }

 private:
  struct Sum {
    double value = 0;
    const Collection* of = nullptr;
    Count number = 0;
    const char* role = nullptr;
  };
  void check(const Collection& collection, Count number, const char* role);

  const Collection& collection_;
  const Collection& queries_;
  const Distance distance_;
  Sum least_, most_;
};

/// Checks all documents and queries.
/// @throws ArgumentError  as DistanceCheck
void check_distance(const Collection& collection, const Collection& queries,
                    const Distance& distance);

/// The threads of the team that the options ask for.
/// @throws ArgumentError  for a negative number
int team_threads(const SearchOptions& options);

}  // namespace talvik::internal

#endif
