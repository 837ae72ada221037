// The size of a document range, for conversions and pipelines.
#ifndef TALVIK_TALVIK_COLLECTIONS_HPP
#define TALVIK_TALVIK_COLLECTIONS_HPP

#include "talvik.hpp"

namespace talvik::internal {

/// The number of entries of the documents first .. first+count-1.  Offsets are ints, so a range
/// with more entries than an int holds ends the process.
int count_entries(const DocumentSet& docs, int first, int count);

}  // namespace talvik::internal

#endif
