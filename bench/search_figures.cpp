// What the search library's answers cost, beside its own one-way search and the full runs.
#include <unistd.h>  // getpid

#include <cstdio>
#include <filesystem>
#include <utility>

#include "child_runs.hpp"
#include "engine_calls.hpp"
#include "figures.hpp"
#include "search_data.hpp"
#include "talvik/search.hpp"

namespace talvik::bench {
namespace {

constexpr int k = 10;
constexpr int self_k = 5;
constexpr Count self_documents = 20'000;
constexpr double most_load_seconds = 1;
constexpr double most_search_mib = 600;

// Where runs write their lists; goes with the object.
struct ListsFolder {
  std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("talvik-bench-lists-" + std::to_string(getpid()));
  ListsFolder() { std::filesystem::create_directories(folder); }
  ~ListsFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  ListsFolder(const ListsFolder&) = delete;
  ListsFolder& operator=(const ListsFolder&) = delete;
  std::string path() const { return folder / "lists"; }
};

// A contender whose repetitions take turns with others'.
struct Timed {
  const char* name;
  Samples samples = {};

  template <class Work>
  void add(const Work& work) {
    add_sample(samples, work);
    say_sample(name, samples.wall.back(), samples.cpu.back());
  }
};

SearchOptions search_options(const Options& options, Measure measure) {
  return {.distance = {.measure = measure}, .threads = options.threads};
}

void add_stages(const char* name, const SearchStats& stats, Table& table) {
  char line[256];
  std::snprintf(line, sizeof line,
                "%s: %lld pairs, refined %.4f %%, settled %.4f %%, dual bounds %lld, solved %lld; "
                "seconds: bound %.2f, refine %.2f, solve %.2f, all %.2f",
                name, static_cast<long long>(stats.pairs),
                100 * static_cast<double>(stats.refined) / static_cast<double>(stats.pairs),
                100 * static_cast<double>(stats.settled) / static_cast<double>(stats.pairs),
                static_cast<long long>(stats.dual_bounds), static_cast<long long>(stats.solved),
                stats.bound_seconds, stats.refine_seconds, stats.solve_seconds, stats.seconds);
  table.remarks.emplace_back(line);
}

bool is_there(const std::string& path, const std::string& command, Table& table) {
  if (std::filesystem::exists(path)) return true;
  table.remarks.push_back("NOT RUN: " + path + " is missing; make it with: " + command);
  return false;
}

void add_process_figures(const Options& options, const LargeData& data, Table& table) {
  const int count = repetitions(options, 3);
  const ChildRequest alone{.world = data.folder, .threads = options.threads, .search = true};
  add_value(table,
            {.world = "large texts",
             .what = "two-way search, peak resident memory, MiB",
             .target = most_search_mib},
            run_in_child(alone).working_mib, "");
  const auto run = [&](int ranks, int threads) {
    return run_in_child({.world = data.folder,
                         .repetitions = count,
                         .threads = threads,
                         .ranks = ranks,
                         .search = true})
        .samples;
  };
  const Samples ranks = run(2, 1), threads = run(1, 2);
  add_ratio(
      table,
      {"large texts", "two-way search by 2 processes x 1 thread", "1 process x 2 threads", 1.1},
      ranks, threads);
}

void add_load(const Options& options, const LargeData& data, Table& table) {
  Timed load{"large texts, load"};
  for (int i = 0; i < repetitions(options, 5); ++i) {
    load.add([&] { Collection::load(data.saved()); });
  }
  char note[32];
  std::snprintf(note, sizeof note, "%.2f", spread(load.samples.wall));
  table.figures.push_back({{.world = "large texts",
                            .what = "loading the saved collection, seconds",
                            .target = most_load_seconds},
                           median(load.samples.wall),
                           median(load.samples.cpu),
                           note});
}

void add_large(const Options& options, const Collection& texts, const Collection& queries,
               Table& table) {
  const Collections today = collections_of(texts, queries);
  const ListsFolder lists;
  Timed one_way{"large texts, one-way search"}, two_way{"large texts, two-way search"},
      full{"large texts, full two-way run"};
  SearchStats stats;
  for (int i = 0; i < repetitions(options, 5); ++i) {
    one_way.add([&] { neighbours(texts, queries, k, search_options(options, Measure::one_way)); });
    two_way.add([&] {
      stats = neighbours(texts, queries, k, search_options(options, Measure::two_way)).stats;
    });
    if (i >= repetitions(options, 2)) continue;
    DocumentSet resident_copy = today.resident, queries_copy = today.queries;
    full.add([&] {
      run_two_way_lists(today, std::move(resident_copy), std::move(queries_copy), k, lists.path());
    });
  }
  add_ratio(table, {"large texts", "two-way search", "one-way search", 1.5}, two_way.samples,
            one_way.samples);
  add_ratio(table, {"large texts", "two-way search", "full two-way run", 0.15}, two_way.samples,
            full.samples);
  add_stages("large texts, two-way search", stats, table);
}

void add_self(const Options& options, const LargeData& data, Table& table) {
  const Collection part =  // with the words of these texts alone
      read_collection(data.vectors, data.texts(), AllWords::no, self_documents);
  const Collections today = collections_of(part, part);
  const ListsFolder lists;
  Timed self{"large texts, self search of 20,000"}, full{"large texts, full self run of 20,000"};
  SearchStats stats;
  for (int i = 0; i < repetitions(options, 2); ++i) {
    self.add(
        [&] { stats = neighbours(part, self_k, search_options(options, Measure::two_way)).stats; });
    DocumentSet resident_copy = today.resident, queries_copy = today.queries;
    full.add([&] {  // whose lists have each document itself, too
      run_two_way_lists(today, std::move(resident_copy), std::move(queries_copy), self_k + 1,
                        lists.path());
    });
  }
  add_ratio(table, {"large texts", "self search of 20,000, two-way", "full two-way run", 0.2},
            self.samples, full.samples);
  add_stages("large texts, self search of 20,000", stats, table);
}

void add_exact(const Options& options, Table& table) {
  const LargeData data;
  const std::string resident = "data/spam/resident", queries_path = "data/spam/queries";
  if (!is_there(resident, "scripts/fetch-data spam", table)) return;
  const Collection collection = read_collection(data.vectors, resident);
  const Collection queries = read_queries(collection, queries_path);
  Timed exact{"SpamAssassin, exact search"}, two_way{"SpamAssassin, two-way search"};
  SearchStats exact_stats, two_way_stats;
  for (int i = 0; i < repetitions(options, 3); ++i) {
    two_way.add([&] {
      two_way_stats =
          neighbours(collection, queries, k, search_options(options, Measure::two_way)).stats;
    });
    exact.add([&] {
      exact_stats =
          neighbours(collection, queries, k, search_options(options, Measure::exact)).stats;
    });
  }
  add_ratio(table, {"SpamAssassin", "exact search", "two-way search", 15}, exact.samples,
            two_way.samples);
  add_stages("SpamAssassin, two-way search", two_way_stats, table);
  add_stages("SpamAssassin, exact search", exact_stats, table);
}

}  // namespace

void search_figures(const Options& options, Table& table) {
  const LargeData data{options.large};
  if (!is_there(data.vectors, "scripts/fetch-data", table)) return;
  if (is_there(data.texts(), "scripts/make-large --output " + data.folder, table)) {
    index_once(data);
    add_process_figures(options, data, table);
    add_load(options, data, table);
    const Collection texts = Collection::load(data.saved());
    const Collection queries = read_queries(texts, data.queries());
    add_large(options, texts, queries, table);
    add_self(options, data, table);
  }
  add_exact(options, table);
}

}  // namespace talvik::bench
