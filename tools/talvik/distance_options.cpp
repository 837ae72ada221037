#include "distance_options.hpp"

#include <fmt/core.h>

#include "choice_option.hpp"
#include "run_options.hpp"

namespace talvik::tool {
namespace {

const Names<Measure> measure_names = {{"one-way", Measure::one_way},
                                      {"other-way", Measure::other_way},
                                      {"two-way", Measure::two_way},
                                      {"exact", Measure::exact}};
const Names<talvik::Metric> word_metric_names = {{"euclidean", talvik::Metric::euclidean},
                                                 {"cosine", talvik::Metric::cosine}};

}  // namespace

void add_distance_options(CLI::App& command, Distance& distance) {
  add_choice(command, "--distance", distance.measure, measure_names,
             "one-way: the neighbour's words travel to the query's; other-way: the query's to the "
             "neighbour's; two-way: the larger of both; exact: the cost of the optimal transport");
  command
      .add_option("--steps", distance.steps,
                  "Capacity steps: 0 sends every word whole to the nearest word, more are closer "
                  "to the exact distance")
      ->check(at_least(0))
      ->capture_default_str();
  add_choice(command, "--metric", distance.metric, word_metric_names, "Word distance");
}

void check_distance_options(const Distance& distance) {
  if (distance.measure == Measure::exact && distance.steps > 0) {
    throw CLI::ValidationError("--steps", "the exact distance has no capacity steps");
  }
}

std::string described(const Distance& distance) {
  const std::string steps =
      distance.measure == Measure::exact ? "" : fmt::format("steps {}, ", distance.steps);
  return fmt::format("{}, {}{}", name_of(distance.measure, measure_names), steps,
                     name_of(distance.metric, word_metric_names));
}

std::string distance_text(double distance, bool exact) {
  return exact ? fmt::format("{}", distance) : fmt::format("{:.9g}", distance);
}

}  // namespace talvik::tool
