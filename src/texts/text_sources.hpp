// Texts in the forms that people have them in: the readers behind read_texts and the program.
#ifndef TALVIK_TEXTS_TEXT_SOURCES_HPP
#define TALVIK_TEXTS_TEXT_SOURCES_HPP

#include <functional>
#include <string>

#include "talvik/texts.hpp"

namespace talvik::texts {

using TextHandler = std::function<void(Text&&)>;

inline constexpr const char* standard_input = "-";

/// Whether a text without a label is an error.
enum class Labels { optional, required };

/// The format that a path's kind and ending tell, whether it is there or not; lines where they tell
/// none.
TextsFormat format_by_name(const std::string& path);

/// As talvik::read_texts.  With labels required, a JSON object without its member, or with a null,
/// is an error, and so is a CSV file without the column.
TextsRead read_texts(const std::string& path, const TextsOptions& options, Labels labels,
                     const TextHandler& handle);

}  // namespace talvik::texts

#endif
