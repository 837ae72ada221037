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

std::string name_of(const Comparison& of) {
  return of.world + ": " + of.what + (of.against.empty() ? "" : " / ") + of.against;
}

const char* verdict(const Figure& figure) {
  if (figure.of.target == no_target) return "";
  // A share below 0 says only that the machine was too busy.
  const bool by_wall = figure.wall >= 0 && figure.wall <= figure.of.target;
  const bool by_cpu =
      figure.cpu == no_time ? by_wall : figure.cpu >= 0 && figure.cpu <= figure.of.target;
  if (by_wall && by_cpu) return "yes";
  if (by_wall) return "by wall";
  return by_cpu ? "by cpu" : "NO";
}

}  // namespace

void add_ratio(Table& table, const Comparison& of, const Samples& a, const Samples& b) {
  char note[64];
  std::snprintf(note, sizeof note, "%.2f, %.2f", spread(a.wall), spread(b.wall));
  table.figures.push_back(
      {of, median(a.wall) / median(b.wall), median(a.cpu) / median(b.cpu), note});
}

void add_value(Table& table, const Comparison& of, double value, const std::string& note) {
  table.figures.push_back({of, value, no_time, note});
}

void print_table(const Table& table) {
  const char* row = "%-64s %8s %8s %8s  %-8s %s\n";
  std::printf("\n");
  std::printf(row, "figure", "wall", "cpu", "target", "met", "spread of the wall times");
  for (const Figure& figure : table.figures) {
    const std::string target = figure.of.target == no_target ? "" : text_of(figure.of.target);
    std::printf(row, name_of(figure.of).c_str(), text_of(figure.wall).c_str(),
                text_of(figure.cpu).c_str(), target.c_str(), verdict(figure), figure.note.c_str());
  }
  std::printf("\n");
  for (const std::string& remark : table.remarks) std::printf("%s\n", remark.c_str());
}

}  // namespace talvik::bench
