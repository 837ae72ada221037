// What the headers of the search library share.
#ifndef TALVIK_API_HPP
#define TALVIK_API_HPP

#include <cstdint>

#ifndef TALVIK_API
#if defined(__GNUC__)
#define TALVIK_API __attribute__((visibility("default")))
#else
#define TALVIK_API
#endif
#endif

namespace talvik {

/// The number of a document or of an entry, or how many there are; from 0.
using Count = std::int64_t;

}  // namespace talvik

#endif
