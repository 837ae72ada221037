// talvik search: the nearest documents of a saved collection.
#include <limits>
#include <memory>

#include "choice_option.hpp"
#include "commands/commands.hpp"
#include "distance_options.hpp"
#include "run_options.hpp"
#include "search_run.hpp"
#include "texts_input.hpp"

namespace {

using namespace talvik::tool;

const Names<NeighboursFormat> file_formats = {{"tsv", NeighboursFormat::tsv},
                                              {"jsonl", NeighboursFormat::jsonl},
                                              {"trec", NeighboursFormat::trec},
                                              {"npz", NeighboursFormat::npz}};

void add_output_options(CLI::App& command, SearchRun& options) {
  command.add_option("--out", options.out, "Result file; - is standard output")
      ->required()
      ->type_name("FILE");
  add_choice(command, "--format", options.format, file_formats,
             "tsv: query, neighbour, rank, distance; jsonl: an object per query; trec: a run file "
             "with score = -distance; npz: arrays of NumPy");
  command.add_flag("--stats", options.stats, "Print what every stage of the search did");
  command.add_flag("--quiet", options.quiet,
                   "Nothing on standard output but results that go there");
}

}  // namespace

void add_search_command(CLI::App& app, int& status) {
  CLI::App* command = app.add_subcommand("search", "Find the nearest documents of a collection");
  auto options = std::make_shared<SearchRun>();
  command->add_option("--collection", options->collection, "Collection made by talvik index")
      ->required()
      ->type_name("FILE");
  CLI::Option* texts =
      command
          ->add_option("--texts", options->texts,
                       "Texts that get neighbours: in every form that talvik index takes; - is "
                       "standard input")
          ->type_name("PATH");
  CLI::Option* self =
      command->add_flag("--self", options->self, "Every document against the others")
          ->excludes(texts);
  add_texts_options(*command, options->reading);
  command
      ->add_option("--vectors", options->vectors,
                   "Word vectors for words of the texts that the collection lacks")
      ->needs(texts)
      ->type_name("FILE");
  CLI::Option* k = command
                       ->add_option("--k", options->k,
                                    "Neighbours per query; above the collection its size "
                                    "counts")
                       ->check(at_least(1))
                       ->capture_default_str();
  command
      ->add_option("--radius", options->radius,
                   "All documents at most so far away, in the place of the k nearest")
      ->check(CLI::Range(0.0, std::numeric_limits<double>::max()).description("(from 0)"))
      ->excludes(k);
  add_distance_options(*command, options->distance);
  add_output_options(*command, *options);
  command
      ->add_option("--threads", options->threads,
                   "Threads per process (default: hardware threads over local processes)")
      ->check(CLI::Range(1, most_threads));
  command
      ->add_option("--memory", options->memory_mib,
                   "MiB that a process works with, beside the collection and the results")
      ->check(at_least(1))
      ->capture_default_str();
  command->footer(
      "Examples:\n"
      "  talvik search --collection news.talvik --texts today.jsonl --k 5 \\\n"
      "    --out near.tsv\n"
      "  mpirun -n 4 talvik search --collection news.talvik --self --distance exact \\\n"
      "    --format jsonl --out near.jsonl\n");
  command->callback([options, texts, self, &status] {
    if (texts->count() + self->count() == 0) throw CLI::RequiredError("--texts or --self");
    check_distance_options(options->distance);
    require_no_input(
        "--out", options->out,
        {options->collection, options->texts == "-" ? "" : options->texts, options->vectors});
    status = execute_search(*options);
  });
}
