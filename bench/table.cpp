#include "table.hpp"

#include <cstdio>

namespace talvik::bench {
namespace {

// Ratios and MiB share a column.
std::string text_of(double value) {
  if (value == no_time) return "";
  char text[32];
  std::snprintf(text, sizeof text, value < 10 ? "%.3f" : "%.0f", value);
  return text;
}

const char* verdict(const Figure& figure) {
  if (figure.target == no_target) return "";
  // A share below 0 says only that the machine was too busy.
  const bool by_wall = figure.wall >= 0 && figure.wall <= figure.target;
  const bool by_cpu =
      figure.cpu == no_time ? by_wall : figure.cpu >= 0 && figure.cpu <= figure.target;
  if (by_wall && by_cpu) return "yes";
  if (by_wall) return "by wall";
  return by_cpu ? "by cpu" : "NO";
}

}  // namespace

void add_ratio(Table& table, const std::string& name, const Samples& a, const Samples& b,
               double target) {
  char note[64];
  std::snprintf(note, sizeof note, "%.2f, %.2f", spread(a.wall), spread(b.wall));
  table.figures.push_back(
      {name, median(a.wall) / median(b.wall), median(a.cpu) / median(b.cpu), target, note});
}

void add_value(Table& table, const std::string& name, double value, double target,
               const std::string& note) {
  table.figures.push_back({name, value, no_time, target, note});
}

void print_table(const Table& table) {
  const char* row = "%-64s %8s %8s %8s  %-8s %s\n";
  std::printf("\n");
  std::printf(row, "figure", "wall", "cpu", "target", "met", "spread of the wall times");
  for (const Figure& figure : table.figures) {
    const std::string target = figure.target == no_target ? "" : text_of(figure.target);
    std::printf(row, figure.name.c_str(), text_of(figure.wall).c_str(), text_of(figure.cpu).c_str(),
                target.c_str(), verdict(figure), figure.note.c_str());
  }
  std::printf("\n");
  for (const std::string& remark : table.remarks) std::printf("%s\n", remark.c_str());
}

}  // namespace talvik::bench
