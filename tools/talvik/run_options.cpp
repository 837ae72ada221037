// The shared options and their texts.
#include "run_options.hpp"

#include <algorithm>
#include <filesystem>

#include "atomic_output.hpp"
#include "choice_option.hpp"

namespace talvik::tool {
namespace {

constexpr double most_gib = 1e9;

bool same_file(const std::string& a, const std::string& b) {
  if (a.empty() || b.empty()) return false;
  if (is_standard_output(a) && is_standard_output(b)) return true;
  std::error_code missing;
  return std::filesystem::path(a).lexically_normal() ==
             std::filesystem::path(b).lexically_normal() ||
         std::filesystem::equivalent(a, b, missing);
}

// FILE.RANK
bool is_shard_of(const std::string& path, const std::string& matrix) {
  const std::filesystem::path number = std::filesystem::path(path).extension();
  const std::string digits = number.string().substr(std::min<size_t>(number.string().size(), 1));
  return !digits.empty() && digits.find_first_not_of("0123456789") == std::string::npos &&
         same_file(std::filesystem::path(path).replace_extension(), matrix);
}

}  // namespace

void add_run_options(CLI::App& command, RunOptions& options) {
  command.add_option("--out", options.out, "Result file")->required()->type_name("FILE");
  command
      .add_option("--k", options.k, "Neighbours per query; above the collection its size counts")
      ->check(at_least(1))
      ->capture_default_str();
  command
      .add_option("--steps,--delta", options.steps,
                  "Capacity steps: 0 sends every word whole to the nearest word, more are "
                  "closer to the full transport distance")
      ->check(at_least(0))
      ->capture_default_str();
  add_choice(command, "--mode", options.mode, mode_names,
             "two-way: the larger of both directions; ground: the same over word distances "
             "computed once; split, scale-out: one direction, resident or query "
             "collection spread over the processes");
  add_choice(command, "--metric", options.metric, metric_names,
             "Word distance; cosine implies --normalise");
  command.add_flag("--normalise,--normalize", options.normalise, "Word vectors to unit length");
  command.add_flag("--gpu", options.gpu,
                   "Compute distances on GPUs: process p of a machine takes GPU p");
  command
      .add_option("--threads", options.threads,
                  "Threads per process (default: hardware threads over local processes)")
      ->check(CLI::Range(1, most_threads));
  command
      .add_option("--limit-resident", options.limit_resident, "At most so many resident documents")
      ->check(at_least(1));
  command.add_option("--limit-queries", options.limit_queries, "At most so many queries")
      ->check(at_least(1));
  const Names<Format> formats = {
      {"library", Format::library}, {"tsv", Format::tsv}, {"jsonl", Format::jsonl}};
  add_choice(command, "--format", options.format, formats,
             "library: \"query\", \"neighbour\", \"distance\"; tsv, jsonl: query, "
             "neighbour, rank, distance in nine significant digits");
  const Names<Naming> namings = {{"id", Naming::by_id}, {"index", Naming::by_index}};
  add_choice(command, "--by", options.naming, namings,
             "Name documents by identifier or by number from 0");
  auto* matrix = command
                     .add_option("--matrix", options.matrix,
                                 "Also write all distances: .npy, float32, queries x resident")
                     ->type_name("FILE");
  command
      .add_flag("--keep-shards", options.keep_shards,
                "Keep the part of the matrix that each process wrote, FILE.RANK")
      ->needs(matrix);
  command
      .add_option("--memory-limit", options.memory_limit_gib,
                  "GiB that the processes of a machine may plan for together (default: 80 % of "
                  "its memory)")
      ->check(CLI::Range(0.0, most_gib).description("(from 0)"));
  auto* verbose =
      command.add_flag("--verbose", options.verbose, "List what was left out, and the processes");
  command
      .add_flag("--quiet", options.quiet, "Nothing on standard output but results that go there")
      ->excludes(verbose);
}

void require_no_input(const std::string& option, const std::string& output,
                      const std::vector<std::string>& inputs) {
  if (output.empty()) throw CLI::ValidationError(option, "the name is empty");
  for (const std::string& input : inputs) {
    if (same_file(output, input)) {
      throw CLI::ValidationError(option, output + " is also an input");
    }
  }
}

void check_run_options(const RunOptions& options, const std::vector<std::string>& inputs) {
  require_no_input("--out", options.out, inputs);
  if (!options.matrix.empty()) require_no_input("--matrix", options.matrix, inputs);
  if (same_file(options.out, options.matrix)) {
    throw CLI::ValidationError("--matrix", options.matrix + " is also the name after --out");
  }
  if (options.keep_shards && is_stream(options.matrix)) {
    throw CLI::ValidationError("--keep-shards", options.matrix + " is a stream");
  }
  if (options.keep_shards && is_shard_of(options.out, options.matrix)) {
    throw CLI::ValidationError("--keep-shards", options.out + " is also the name of a shard");
  }
}

}  // namespace talvik::tool
