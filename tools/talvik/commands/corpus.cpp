// talvik corpus: nearest documents between text corpora, or within one.
#include <memory>

#include "choice_option.hpp"
#include "commands/commands.hpp"
#include "execute.hpp"
#include "load_corpus.hpp"

using namespace talvik::tool;

void add_corpus_command(CLI::App& app, int& status) {
  struct Options {
    RunOptions run;
    CorpusOptions corpus;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand(
      "corpus",
      "Nearest documents between text corpora (DIR/CLASS/NUMBER), or within one.\n"
      "A limit takes documents evenly spread over the collection, so that all classes\n"
      "stay.");
  CorpusOptions& corpus = options->corpus;
  command->add_option("--embeddings", corpus.embeddings, "Word vectors: an embedding file")
      ->required()
      ->type_name("FILE");
  command->add_option("--resident", corpus.resident, "Corpus in which neighbours are searched")
      ->required()
      ->type_name("DIR");
  command
      ->add_option("--queries", corpus.queries,
                   "Corpus whose documents get neighbours (default: the resident one, every "
                   "document against the others)")
      ->type_name("DIR");
  command
      ->add_option("--max-words", corpus.max_words,
                   "Keep the so many most frequent words of a document (default: all)")
      ->check(at_least(1));
  command->add_option("--skip-index", corpus.skip_index,
                      "Leave out the words of the embedding file up to this number from 0; they "
                      "usually stand by frequency (default: none)");
  add_run_options(*command, options->run);
  command->footer(
      "Examples:\n"
      "  talvik corpus --embeddings words.bin --resident texts --queries news \\\n"
      "    --out near.csv\n"
      "  mpirun -n 4 talvik corpus --embeddings words.bin --resident texts --k 5 \\\n"
      "    --format tsv --out near.tsv\n");
  command->callback([options, &status] {
    check_run_options(options->run, {options->corpus.embeddings});
    options->corpus.limit_resident = options->run.limit_resident;
    options->corpus.limit_queries = options->run.limit_queries;
    status = execute(options->run, [options] { return load_corpus(options->corpus); });
  });
}
