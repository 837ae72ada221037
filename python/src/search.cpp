// Neighbours, distances, explanations.
#include "talvik/search.hpp"

#include <pybind11/stl.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "bindings.hpp"
#include "talvik/communicator.hpp"
#include "talvik/error.hpp"

namespace talvik::python {
namespace {

using Shared = std::shared_ptr<const Collection>;

/// What every search is asked for beside the documents.
struct Settings {
  Distance distance;
  int threads;
  std::uintptr_t communicator;  // address of an MPI_Comm, or 0
  py::object progress;          // called with (done, total), or None
};

Settings make_settings(Measure measure, int steps, Metric metric, int threads,
                       std::uintptr_t communicator, py::object progress) {
  return {{.measure = measure, .steps = steps, .metric = metric},
          threads,
          communicator,
          std::move(progress)};
}

/// Looks at the signals while a search runs, and shows how far it has come.
class Watch {
 public:
  explicit Watch(const py::object& progress) : progress_(progress) {}

  bool go_on(const Progress& progress) {
    const py::gil_scoped_acquire acquired;
    try {
      if (PyErr_CheckSignals() != 0) throw py::error_already_set();
      if (!progress_.is_none()) progress_(progress.done, progress.total);
      return true;
    } catch (py::error_already_set& error) {
      // It cannot pass through the team of threads.
      error_ = std::make_unique<py::error_already_set>(std::move(error));
      return false;
    }
  }

  void raise_error() const {
    if (error_) throw py::error_already_set(*error_);
  }

 private:
  const py::object& progress_;
  std::unique_ptr<py::error_already_set> error_;
};

// Runs `call(options)` without the interpreter's lock, which the watch takes for moments.
template <class Call>
auto run(const Settings& settings, const Call& call) {
  Watch watch(settings.progress);
  SearchOptions options{.distance = settings.distance, .threads = settings.threads};
  options.progress = [&](const Progress& progress) { return watch.go_on(progress); };
  try {
    const py::gil_scoped_release released;
    std::optional<Communicator> communicator;
    if (settings.communicator != 0) {
      // NOLINTNEXTLINE(performance-no-int-to-ptr): mpi4py gives the address as a number
      communicator.emplace(*reinterpret_cast<const MPI_Comm*>(settings.communicator));
      options.communicator = &*communicator;
    }
    return call(options);
  } catch (const Cancelled&) {
    watch.raise_error();
    throw;
  }
}

py::dict to_dict(const SearchStats& stats) {
  using namespace py::literals;
  return py::dict("pairs"_a = stats.pairs, "refined"_a = stats.refined, "settled"_a = stats.settled,
                  "dual_bounds"_a = stats.dual_bounds, "solved"_a = stats.solved,
                  "bound_seconds"_a = stats.bound_seconds,
                  "refine_seconds"_a = stats.refine_seconds,
                  "solve_seconds"_a = stats.solve_seconds, "seconds"_a = stats.seconds);
}

py::array distances_of(std::vector<float>&& relaxed, std::vector<double>&& exact, bool is_exact) {
  if (is_exact) return array_of(std::move(exact));
  return array_of(std::move(relaxed));
}

py::tuple to_tuple(Neighbours&& found, const Settings& settings) {
  const bool exact = settings.distance.measure == Measure::exact;
  return py::make_tuple(array_of(std::move(found.offsets)), array_of(std::move(found.documents)),
                        distances_of(std::move(found.distances), std::move(found.exact), exact),
                        to_dict(found.stats));
}

py::tuple find_nearest(const SharedCollection& collection, const SharedCollection* queries, int k,
                       const Settings& settings) {
  const Shared resident = collection.held, asked = queries ? queries->held : nullptr;
  Neighbours found = run(settings, [&](const SearchOptions& options) {
    return asked ? neighbours(*resident, *asked, k, options) : neighbours(*resident, k, options);
  });
  return to_tuple(std::move(found), settings);
}

py::tuple find_within(const SharedCollection& collection, const SharedCollection* queries,
                      double radius, const Settings& settings) {
  const Shared resident = collection.held, asked = queries ? queries->held : nullptr;
  Neighbours found = run(settings, [&](const SearchOptions& options) {
    return asked ? within(*resident, *asked, radius, options) : within(*resident, radius, options);
  });
  return to_tuple(std::move(found), settings);
}

py::array_t<double> pair_distances(const SharedCollection& collection,
                                   const SharedCollection& queries,
                                   const py::array_t<Count, py::array::c_style>& pairs,
                                   const Settings& settings) {
  static_assert(sizeof(Pair) == 2 * sizeof(Count));
  if (pairs.ndim() != 2 || pairs.shape(1) != 2) {
    throw ArgumentError("pairs", "an array of two columns is needed: document, query");
  }
  const Shared resident = collection.held, asked = queries.held;
  const std::span<const Pair> rows(reinterpret_cast<const Pair*>(pairs.data()),
                                   static_cast<std::size_t>(pairs.shape(0)));
  return array_of(run(settings, [&](const SearchOptions& options) {
    return distances(*resident, *asked, rows, options);
  }));
}

py::array all_distances(const SharedCollection& collection, const SharedCollection& queries,
                        const Settings& settings) {
  const Shared resident = collection.held, asked = queries.held;
  DistanceMatrix matrix = run(settings, [&](const SearchOptions& options) {
    return distance_matrix(*resident, *asked, options);
  });
  const bool exact = settings.distance.measure == Measure::exact;
  const std::vector<py::ssize_t> shape = {matrix.queries, matrix.documents};
  return distances_of(std::move(matrix.distances), std::move(matrix.exact), exact).reshape(shape);
}

py::tuple explain_pair(const SharedCollection& collection, Count document,
                       const SharedCollection& queries, Count query, const Settings& settings) {
  const Shared resident = collection.held, asked = queries.held;
  const Explanation explanation = [&] {
    const py::gil_scoped_release released;
    return explain(*resident, document, *asked, query, settings.distance);
  }();
  std::vector<int> from, to;
  std::vector<double> weights, lengths;
  for (const Flow& flow : explanation.flows) {
    from.push_back(flow.from);
    to.push_back(flow.to);
    weights.push_back(flow.weight);
    lengths.push_back(flow.distance);
  }
  return py::make_tuple(explanation.distance, explanation.from_query, array_of(std::move(from)),
                        array_of(std::move(to)), array_of(std::move(weights)),
                        array_of(std::move(lengths)));
}

std::string mpi_library() {
  std::array<char, MPI_MAX_LIBRARY_VERSION_STRING + 1> version{};
  int length = 0;
  MPI_Get_library_version(version.data(), &length);
  return version.data();  // to the first zero: the length may count one
}

}  // namespace

void bind_search(py::module_& module) {
  py::enum_<Measure>(module, "Measure")
      .value("one_way", Measure::one_way)
      .value("other_way", Measure::other_way)
      .value("two_way", Measure::two_way)
      .value("exact", Measure::exact);
  py::enum_<Metric>(module, "Metric")
      .value("euclidean", Metric::euclidean)
      .value("cosine", Metric::cosine);
  py::class_<Settings>(module, "Settings")
      .def(py::init(&make_settings), py::kw_only(), py::arg("measure") = Measure::two_way,
           py::arg("steps") = 0, py::arg("metric") = Metric::euclidean, py::arg("threads") = 0,
           py::arg("communicator") = 0, py::arg("progress") = py::none());
  module.def("neighbours", &find_nearest, py::arg("collection"), py::arg("queries"), py::arg("k"),
             py::arg("settings"));
  module.def("within", &find_within, py::arg("collection"), py::arg("queries"), py::arg("radius"),
             py::arg("settings"));
  module.def("pair_distances", &pair_distances, py::arg("collection"), py::arg("queries"),
             py::arg("pairs"), py::arg("settings"));
  module.def("distance_matrix", &all_distances, py::arg("collection"), py::arg("queries"),
             py::arg("settings"));
  module.def("explain", &explain_pair, py::arg("collection"), py::arg("document"),
             py::arg("queries"), py::arg("query"), py::arg("settings"));
  module.def("mpi_library", &mpi_library, "The MPI library's name and version.");
}

}  // namespace talvik::python
