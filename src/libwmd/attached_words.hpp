// What the CPU engine tells the pipelines about its ground distances.
#ifndef TALVIK_LIBWMD_ATTACHED_WORDS_HPP
#define TALVIK_LIBWMD_ATTACHED_WORDS_HPP

namespace talvik::internal {

/// Words of the matrix that copy_ground_distances_cpu has attached; 0 if there is none.
int attached_words_cpu();

}  // namespace talvik::internal

#endif
