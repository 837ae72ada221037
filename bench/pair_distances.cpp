// Distances of pairs by the search library, and the time of a search, for bench/peers.
//
// Standard input: a line "QUERY DOCUMENT" of ids for each pair.  Standard output: a line with the
// pair's entries of both documents and its distance, 17 digits; then, with --k, of a search of all
// queries the seconds on the clock and of the processor, and the transport problems solved.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "search_data.hpp"
#include "talvik/search.hpp"

namespace talvik::bench {
namespace {

Count number_of(const Collection& documents, const std::string& id) {
  const auto number = documents.find(id);
  if (!number) throw std::runtime_error("no document is called " + id);
  return *number;
}

Count entries_of(const Collection& documents, Count i) {
  return documents.offsets()[i + 1] - documents.offsets()[i];
}

void print_pairs(const Collection& collection, const Collection& queries,
                 const SearchOptions& options) {
  std::vector<Pair> pairs;
  std::string query, document;
  while (std::cin >> query >> document) {
    pairs.push_back({number_of(collection, document), number_of(queries, query)});
  }
  const std::vector<double> found = distances(collection, queries, pairs, options);
  for (size_t i = 0; i < pairs.size(); ++i) {
    std::printf("%lld %lld %.17g\n", static_cast<long long>(entries_of(queries, pairs[i].query)),
                static_cast<long long>(entries_of(collection, pairs[i].document)), found[i]);
  }
}

void print_search(const Collection& collection, const Collection& queries, int k,
                  const SearchOptions& options) {
  const std::clock_t busy = std::clock();
  const SearchStats stats = neighbours(collection, queries, k, options).stats;
  const double processor_seconds = static_cast<double>(std::clock() - busy) / CLOCKS_PER_SEC;
  std::printf("%.6f %.6f %lld\n", stats.seconds, processor_seconds,
              static_cast<long long>(stats.solved));
}

int run(int argc, char** argv) {
  CLI::App app{"Prints exact distances of pairs of documents."};
  std::string vectors, resident, queries_path;
  int k = 0, threads = 2;
  app.add_option("--vectors", vectors)->required();
  app.add_option("--resident", resident)->required();
  app.add_option("--queries", queries_path)->required();
  app.add_option("--k", k, "search, too: neighbours per query");
  app.add_option("--threads", threads)->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  const Collection collection = read_collection(vectors, resident, AllWords::yes);
  const Collection queries = read_queries(collection, queries_path);
  const SearchOptions options{.distance = {.measure = Measure::exact}, .threads = threads};
  print_pairs(collection, queries, options);
  if (k > 0) print_search(collection, queries, k, options);
  return 0;
}

}  // namespace
}  // namespace talvik::bench

int main(int argc, char** argv) {
  try {
    return talvik::bench::run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "pair_distances: %s\n", failure.what());
    return 1;
  }
}
