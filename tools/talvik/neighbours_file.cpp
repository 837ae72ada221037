#include "neighbours_file.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>

#include "atomic_output.hpp"
#include "distance_options.hpp"
#include "npz.hpp"
#include "run_error.hpp"
#include "texts/tokenizer.hpp"

namespace talvik::tool {
namespace {

std::string json_text(const std::string& text) {
  constexpr int no_indent = -1;
  return nlohmann::json(text).dump(no_indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

// One list in the lines of a format.
class Lines {
 public:
  Lines(const NeighboursFile& file, const Neighbours& neighbours)
      : file_(file), neighbours_(neighbours) {}

  void add_header(fmt::memory_buffer& text) const {
    if (file_.format == NeighboursFormat::tsv) put(text, "query\tneighbour\trank\tdistance\n");
  }

  void add_query(fmt::memory_buffer& text, Count q) const {
    const Count first = neighbours_.offsets[q], last = neighbours_.offsets[q + 1];
    const std::string& query = file_.queries[q];
    const bool json = file_.format == NeighboursFormat::jsonl;
    if (json) put(text, R"({{"query": {}, "neighbours": [)", json_text(query));
    for (Count place = first; place < last; ++place) {
      const std::string& id = file_.ids[neighbours_.documents[place]];
      const double distance = neighbours_.distance(place);
      const Count rank = place - first + 1;
      if (json) {
        put(text, R"({}{{"id": {}, "rank": {}, "distance": {}}})", rank > 1 ? ", " : "",
            json_text(id), rank, std::isfinite(distance) ? number(distance) : "null");
      } else if (file_.format == NeighboursFormat::trec) {
        put(text, "{} Q0 {} {} {} talvik\n", query, id, rank, number(0 - distance));  // not -0
      } else {
        put(text, "{}\t{}\t{}\t{}\n", query, id, rank, number(distance));
      }
    }
    if (json) put(text, "]}}\n");
  }

 private:
  template <class... T>
  static void put(fmt::memory_buffer& text, fmt::format_string<T...> format, T&&... values) {
    fmt::format_to(std::back_inserter(text), format, std::forward<T>(values)...);
  }
  std::string number(double distance) const {
    return distance_text(distance, !neighbours_.exact.empty());
  }

  const NeighboursFile& file_;
  const Neighbours& neighbours_;
};

}  // namespace

void require_writable_ids(const NeighboursFile& file) {
  constexpr size_t longest = 1024;  // NumPy gives every text of an array the room of the longest
  const bool npz = file.format == NeighboursFormat::npz;
  const bool trec = file.format == NeighboursFormat::trec;
  if (file.format == NeighboursFormat::jsonl) return;
  const auto bad = [&](const std::string& id) {
    if (npz) return id.size() > longest;
    return id.find_first_of(trec ? " \t\n\v\f\r" : "\t\n\r") != std::string::npos;
  };
  for (const auto& ids : {file.ids, file.queries}) {
    const auto found = std::find_if(ids.begin(), ids.end(), bad);
    if (found == ids.end()) continue;
    const std::string name = texts::printable(found->substr(0, longest));
    throw RunError(fmt::format(
        "the id '{}' {}; --format jsonl holds any", name,
        npz    ? fmt::format("is longer than {} bytes, the most in npz", longest)
        : trec ? "holds a blank, which separates the columns of trec"
               : "holds a tab or the end of a line, which separate the columns and lines of tsv"));
  }
}

void write_neighbours(const NeighboursFile& file, const Neighbours& neighbours,
                      const std::function<void(std::string_view)>& write) {
  if (file.format == NeighboursFormat::npz) return write_npz(file, neighbours, write);
  const Lines lines(file, neighbours);
  fmt::memory_buffer text;
  lines.add_header(text);
  const auto hand_over = [&] {
    write({text.data(), text.size()});
    text.clear();
  };
  for (Count q = 0; q < neighbours.num_queries(); ++q) {
    lines.add_query(text, q);
    if (text.size() >= piece_bytes) hand_over();
  }
  hand_over();
}

}  // namespace talvik::tool
