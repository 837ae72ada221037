// The distances of the search library as options.
#ifndef TALVIK_TOOL_DISTANCE_OPTIONS_HPP
#define TALVIK_TOOL_DISTANCE_OPTIONS_HPP

#include <string>

#include "talvik/search.hpp"

namespace CLI {
class App;
}

namespace talvik::tool {

/// --distance, --steps, --metric.
void add_distance_options(CLI::App& command, Distance& distance);

/// Throws CLI::ValidationError where they contradict one another.
void check_distance_options(const Distance& distance);

/// "two-way, steps 0, euclidean".
std::string described(const Distance& distance);

/// "0.5": as many digits as read back the very value; "inf" without an end.
std::string distance_text(double distance, bool exact);

}  // namespace talvik::tool

#endif
