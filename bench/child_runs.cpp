#include "child_runs.hpp"

#include <cblas.h>
#include <hwy/highway.h>
#include <mpi.h>
#include <unistd.h>  // getpid

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>  // istreambuf_iterator
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "context.hpp"
#include "engine_calls.hpp"
#include "search_data.hpp"
#include "talvik/communicator.hpp"
#include "talvik/search.hpp"
#include "worlds.hpp"

namespace talvik::bench {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ChildRequest, world, steps, repetitions, threads, ranks,
                                   instruction_set, return_block, search)

namespace {

using nlohmann::json;

// How an instruction set is asked for: Highway's targets above it are disabled, and OpenBLAS is
// told a processor, which it reads while it is loaded.
struct Limit {
  std::int64_t best_target;
  const char* openblas_core;
};

Limit limit_of(const std::string& instruction_set) {
  if (instruction_set == "avx2") return {HWY_AVX2, "Haswell"};
  if (instruction_set == "avx512") return {HWY_AVX3, "SkylakeX"};
  throw std::invalid_argument("There is no instruction set " + instruction_set);
}

// Files between parent and child, in a folder that goes with the parent's object.
struct Exchange {
  std::filesystem::path folder;
  Exchange()
      : folder(std::filesystem::temp_directory_path() /
               ("talvik-bench-" + std::to_string(getpid()))) {
    std::filesystem::create_directories(folder);
  }
  ~Exchange() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
};

std::string read_text(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string command_of(const ChildRequest& request, const std::filesystem::path& folder) {
  std::string command = "env OMP_NUM_THREADS=" + std::to_string(request.threads);
  if (!request.instruction_set.empty()) {
    command += std::string(" OPENBLAS_CORETYPE=") + limit_of(request.instruction_set).openblas_core;
  }
  if (request.ranks > 0) {
    command += std::string(" '") + TALVIK_BENCH_MPIEXEC +
               "' --allow-run-as-root --oversubscribe --bind-to none -n " +
               std::to_string(request.ranks);
  }
  json text = request;
  text["folder"] = folder.string();
  return command + " '" + std::filesystem::read_symlink("/proc/self/exe").string() + "' --child='" +
         text.dump() + "' >'" + (folder / "log").string() + "' 2>&1 </dev/null";
}

json measure_engine(const ChildRequest& request, const std::filesystem::path& folder) {
  const World world = make_world(request.world);
  std::vector<float> Z(block_floats_of(world));
  restart_peak();
  const double before_mib = resident_mib();
  const LoadedResident resident(world);
  const double loaded_mib = resident_mib();
  Samples samples;
  for (int i = 0; i < request.repetitions; ++i) {
    add_sample(samples, [&] { run_engine(world, request.steps, Z.data()); });
  }
  const double peak_mib = peak_resident_mib();
  if (request.return_block) {
    std::ofstream(folder / "Z", std::ios::binary)
        .write(reinterpret_cast<const char*>(Z.data()),
               static_cast<std::streamsize>(Z.size() * sizeof(float)));
  }
  return {{"wall", samples.wall},
          {"cpu", samples.cpu},
          {"copies_mib", loaded_mib - before_mib},
          {"working_mib", peak_mib - loaded_mib}};
}

// From the start of all ranks to the end of the last.
Samples of_all_ranks(const Samples& samples) {
  Samples all = samples;
  const auto repetitions = static_cast<int>(samples.wall.size());
  MPI_Allreduce(samples.wall.data(), all.wall.data(), repetitions, MPI_DOUBLE, MPI_MAX,
                MPI_COMM_WORLD);
  MPI_Allreduce(samples.cpu.data(), all.cpu.data(), repetitions, MPI_DOUBLE, MPI_SUM,
                MPI_COMM_WORLD);
  return all;
}

json measure_whole_run(const ChildRequest& request, const std::filesystem::path& folder) {
  constexpr int k = 16;
  init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
  const Collections collections = make_collections(request.world);
  Samples samples;
  for (int i = 0; i < request.repetitions; ++i) {
    DocumentSet resident = collections.resident, queries = collections.queries;
    barrier_mpi();
    add_sample(samples, [&] {
      run_lists(collections, std::move(resident), std::move(queries), k, folder / "lists");
    });
  }
  const Samples all = of_all_ranks(samples);
  return {{"wall", all.wall}, {"cpu", all.cpu}, {"copies_mib", 0}, {"working_mib", 0}};
}

// A process as a user has it: the collection, or its slice, is loaded, the queries are read.
json measure_search(const ChildRequest& request) {
  constexpr int k = 10;
  std::unique_ptr<Communicator> group;
  int rank = 0, size = 1;
  if (request.ranks > 0) {
    init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
    group = std::make_unique<Communicator>(MPI_COMM_WORLD);
    rank = group->rank(), size = group->size();
  }
  const LargeData data{request.world};
  const Collection collection = Collection::load(data.saved(), rank, size);
  const Collection queries = read_queries(collection, data.queries());
  const SearchOptions options{.distance = {.steps = request.steps},
                              .threads = request.threads,
                              .communicator = group.get()};
  Samples samples;
  for (int i = 0; i < request.repetitions; ++i) {
    if (group) barrier_mpi();
    add_sample(samples, [&] { neighbours(collection, queries, k, options); });
  }
  double peak_mib = peak_resident_mib();
  if (group) {
    samples = of_all_ranks(samples);
    MPI_Allreduce(MPI_IN_PLACE, &peak_mib, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
  }
  return {
      {"wall", samples.wall}, {"cpu", samples.cpu}, {"copies_mib", 0}, {"working_mib", peak_mib}};
}

json measure(const ChildRequest& request, const std::filesystem::path& folder) {
  if (request.search) return measure_search(request);
  return request.ranks > 0 ? measure_whole_run(request, folder) : measure_engine(request, folder);
}

}  // namespace

bool processor_has(const std::string& instruction_set) {
  return (hwy::SupportedTargets() & limit_of(instruction_set).best_target) != 0;
}

ChildReport run_in_child(const ChildRequest& request) {
  const Exchange exchange;
  const std::string command = command_of(request, exchange.folder);
  const int status = std::system(command.c_str());
  if (status != 0 || !std::filesystem::exists(exchange.folder / "report")) {
    throw std::runtime_error("A run in a process of its own failed with status " +
                             std::to_string(status) + ": " + command + "\n" +
                             read_text(exchange.folder / "log"));
  }
  const json report = json::parse(read_text(exchange.folder / "report"));
  ChildReport result{{report["wall"], report["cpu"]},
                     report["copies_mib"],
                     report["working_mib"],
                     report["kernels"],
                     {}};
  if (request.return_block) {
    const std::filesystem::path path = exchange.folder / "Z";
    result.Z.resize(std::filesystem::file_size(path) / sizeof(float));
    std::ifstream(path, std::ios::binary)
        .read(reinterpret_cast<char*>(result.Z.data()),
              static_cast<std::streamsize>(result.Z.size() * sizeof(float)));
  }
  std::string name = request.world + ", process, " + std::to_string(request.steps) + " steps";
  if (request.ranks > 0) {
    name = request.world + ", run on " + std::to_string(request.ranks) + " ranks";
  }
  if (!request.instruction_set.empty()) name += ", " + request.instruction_set;
  for (size_t i = 0; i < result.samples.wall.size(); ++i) {
    say_sample(name, result.samples.wall[i], result.samples.cpu[i]);
  }
  return result;
}

int serve_as_child(const std::string& text) {
  const json told = json::parse(text);
  const auto request = told.get<ChildRequest>();
  const std::filesystem::path folder = told["folder"].get<std::string>();
  if (!request.instruction_set.empty()) {
    hwy::DisableTargets(limit_of(request.instruction_set).best_target - 1);  // lower bits: better
  }
  num_cpu_threads = request.threads;
  openblas_set_num_threads(request.threads);
  json report = measure(request, folder);
  report["kernels"] = kernels_in_use();
  if (myid == 0) std::ofstream(folder / "report") << report;
  if (request.ranks > 0) finalize_mpi();
  return 0;
}

}  // namespace talvik::bench
