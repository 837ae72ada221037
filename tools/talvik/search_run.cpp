#include "search_run.hpp"

#include <fmt/core.h>
#include <mpi.h>
#include <omp.h>  // omp_set_num_threads

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "agreement.hpp"
#include "atomic_output.hpp"
#include "blas_kernels.hpp"
#include "distance_options.hpp"
#include "group_run.hpp"
#include "memory_plan.hpp"
#include "messages.hpp"
#include "report.hpp"
#include "run_error.hpp"
#include "same_run.hpp"
#include "status_line.hpp"
#include "strings_exchange.hpp"
#include "talvik/communicator.hpp"
#include "talvik/error.hpp"
#include "texts_input.hpp"

namespace talvik::tool {
namespace {

struct Loaded {
  Collection collection;  // this process's slice
  Collection queries;     // the same on every process; of a self search empty
  AppendReport counted;   // of the queries
  TextsRead read;
  std::vector<std::string> ids, labels;  // process 0: of the whole collection
  double seconds = 0;
};

template <class T>
NamedDigest digest_of(const char* name, const T& value) {
  return {name, Digest().add(std::span(&value, 1)).value()};
}

// Launchers can start processes with other options, and on machines with other files.
void require_same_search(const SearchRun& options, const Collection& collection) {
  if (num_procs <= 1) return;
  const double radius = options.radius.value_or(-1);
  const std::array<Count, 2> sizes = {collection.total_documents(), collection.used_words()};
  require_same(
      {digest_of("--k", options.k),
       digest_of("--radius", radius),
       digest_of("--distance", options.distance.measure),
       digest_of("--steps", options.distance.steps),
       digest_of("--metric", options.distance.metric),
       digest_of("--self", options.self),
       digest_of("--quiet", options.quiet),
       digest_of("--vectors", !options.vectors.empty()),
       digest_of("the number of documents or words in the collection", sizes),
       {"the words of the collection", Digest().add(collection.vocabulary().rows()).value()}});
}

void read_queries(const SearchRun& options, StatusLine& status, Loaded& loaded) {
  std::vector<Text> texts;
  on_first_process(
      [&] { texts = read_all_texts(options.texts, options.reading, status, loaded.read); });
  texts = texts_from_first_process(std::move(texts));
  together([&] {
    loaded.queries = loaded.collection.for_queries();
    loaded.counted =
        loaded.queries.append(texts, query_vectors(loaded.collection, options.vectors, status));
  });
}

Loaded load(const SearchRun& options, StatusLine& status) {
  Loaded loaded;
  status.show_now("reading " + options.collection);
  together([&] {
    loaded.collection = Collection::load(options.collection, myid, num_procs);
    if (loaded.collection.total_documents() == 0) {
      throw RunError(options.collection + ": holds no documents");
    }
  });
  require_same_search(options, loaded.collection);
  if (!options.self) read_queries(options, status, loaded);
  loaded.ids = strings_of_all(loaded.collection.ids());
  loaded.labels = strings_of_all(loaded.collection.labels());
  loaded.seconds = status.seconds();
  return loaded;
}

std::string progress_text(const talvik::Progress& progress) {
  constexpr int percent = 100, minute = 60;
  const auto done = static_cast<double>(progress.done), total = static_cast<double>(progress.total);
  std::string text = fmt::format("{} of {} queries", progress.done, progress.total);
  if (progress.done == 0) return text;
  const auto left = static_cast<Count>(progress.seconds * (total - done) / done);
  return fmt::format("{}  {:.0f} %  {:.3g} queries/s  {}:{:02} left", text, percent * done / total,
                     done / progress.seconds, left / minute, left % minute);
}

// What a process says when another one's part has failed is no reason of its own.
bool is_of_another_process(const std::exception& failure) {
  const auto* error = dynamic_cast<const Error*>(&failure);
  return error && error->where().starts_with("process ");
}

Neighbours find(const SearchRun& options, const Loaded& loaded, StatusLine& status) {
  constexpr std::size_t mib = std::size_t{1} << 20;
  std::unique_ptr<Communicator> communicator;
  if (num_procs > 1) communicator = std::make_unique<Communicator>(MPI_COMM_WORLD);
  SearchOptions how;
  how.distance = options.distance;
  how.threads = options.threads;
  how.memory = options.memory_mib * mib;
  how.communicator = communicator.get();
  how.progress = [&](const talvik::Progress& progress) {
    status.show([&] { return progress_text(progress); });
    return true;
  };
  Neighbours found;
  std::string failure;
  try {
    if (options.radius) {
      found = options.self ? within(loaded.collection, *options.radius, how)
                           : within(loaded.collection, loaded.queries, *options.radius, how);
    } else {
      found = options.self ? neighbours(loaded.collection, options.k, how)
                           : neighbours(loaded.collection, loaded.queries, options.k, how);
    }
  } catch (const std::bad_alloc&) {
    failure = "not enough memory";
  } catch (const std::exception& error) {
    if (!is_of_another_process(error)) failure = error.what();
  }
  agree(failure);
  return found;
}

void report_loaded(const SearchRun& options, const Loaded& loaded) {
  if (myid != 0 || options.quiet) return;
  const Collection& collection = loaded.collection;
  say("{:<26}{} documents, {} words, {} floats each\n", "collection", collection.total_documents(),
      collection.used_words(), collection.vocabulary().dimensions());
  if (options.self) {
    say("{:<26}the same, each without itself\n", "queries");
  } else {
    report_texts_read(loaded.read);
    say("{:<26}{} texts, {} words\n", "queries", loaded.counted.documents, loaded.counted.tokens);
    say("{:<26}{}\n", "words without a vector",
        share_of(loaded.counted.unknown_tokens, loaded.counted.tokens));
    if (loaded.counted.empty > 0) {
      say("{:<26}{}\n", "queries without a word", loaded.counted.empty);
    }
  }
  say("{:<26}{}\n", "distance", described(options.distance));
  say("{:<26}{}, {} thread(s) each\n", "processes", num_procs, options.threads);
  say("{:<26}{:.2f}\n", "seconds of loading", loaded.seconds);
}

void report_stats(const SearchStats& stats) {
  if (!blas_kernels().empty()) say("{:<26}{}\n", "OpenBLAS kernels", blas_kernels());
  const auto row = [](const char* stage, Count count, double seconds) {
    say("{:<26}{:>12} {:>9.2f} s\n", stage, count, seconds);
  };
  row("pairs bounded", stats.pairs, stats.bound_seconds);
  row("pairs refined", stats.refined, stats.refine_seconds);
  say("{:<26}{:>12}\n", "pairs settled", stats.settled);
  row("transports solved", stats.solved, stats.solve_seconds);
}

// Classes as numbers, which are the same on both sides.
LabelList numbered(std::span<const std::string> labels,
                   std::map<std::string, unsigned long>& known) {
  LabelList numbers;
  for (const std::string& label : labels) {
    numbers.push_back(known.emplace(label, known.size()).first->second);
  }
  return numbers;
}

// Process 0 has the labels of all and scores every list; the others take part.
void report_labels(const SearchRun& options, const Loaded& loaded, const Neighbours& found) {
  const Count queries = found.num_queries();
  const Count k = queries > 0 ? found.offsets[1] : 0;
  const bool scored = !options.quiet && !options.radius && k > 0 &&
                      std::max(std::ssize(loaded.ids), queries) <= std::numeric_limits<int>::max();
  const bool labelled = !loaded.labels.empty() && (options.self || loaded.queries.has_labels());
  if (from_first_process(scored && labelled ? "scored" : "").empty()) return;
  ResultLists lists{.num_queries = 0, .k = static_cast<int>(k), .neighbours = {}, .distances = {}};
  LabelList query_classes, classes;
  if (myid == 0) {
    lists.num_queries = static_cast<int>(queries);
    lists.neighbours.assign(found.documents.begin(), found.documents.end());
    std::map<std::string, unsigned long> known;
    classes = numbered(loaded.labels, known);
    query_classes = options.self ? classes : numbered(loaded.queries.labels(), known);
  }
  const bool skip_first = false;
  report_classification(lists, skip_first, query_classes, classes, options.quiet);
}

void run(const SearchRun& asked) {
  SearchRun options = asked;
  if (options.threads == 0) options.threads = default_threads(num_local_procs);
  StatusLine status;
  std::unique_ptr<AtomicFile> output;
  on_first_process([&] { output = std::make_unique<AtomicFile>(options.out); });
  together([&] { require_threads(options.threads); });
  omp_set_num_threads(options.threads);
  const Loaded loaded = load(options, status);
  const NeighboursFile file{
      .format = options.format,
      .ids = loaded.ids,
      .queries = options.self ? std::span<const std::string>(loaded.ids) : loaded.queries.ids(),
      .ragged = options.radius.has_value()};
  on_first_process([&] { require_writable_ids(file); });
  status.clear();
  report_loaded(options, loaded);

  const Neighbours found = find(options, loaded, status);
  status.clear();
  on_first_process([&] {
    write_neighbours(file, found, [&](std::string_view bytes) { output->write(bytes); });
    output->commit();
    if (!options.quiet) {
      if (options.radius) say("{:<26}{}\n", "neighbours in all", found.documents.size());
      say("{:<26}{:.2f}\n", "seconds of searching", found.stats.seconds);
    }
    if (options.stats) report_stats(found.stats);
  });
  report_labels(options, loaded, found);
}

}  // namespace

int execute_search(const SearchRun& options) {
  // Starting MPI takes longer than many a search.
  return run_in_group({.name = "talvik search", .with_mpi = is_launched(), .quiet = options.quiet},
                      [&] { run(options); });
}

}  // namespace talvik::tool
