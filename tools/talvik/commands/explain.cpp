// talvik explain: which words make the distance between two texts.
#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <string>

#include "choice_option.hpp"
#include "commands/commands.hpp"
#include "commands/run_command.hpp"
#include "distance_options.hpp"
#include "messages.hpp"
#include "run_error.hpp"
#include "status_line.hpp"
#include "talvik/search.hpp"
#include "texts/tokenizer.hpp"
#include "texts_input.hpp"

namespace talvik::tool {
namespace {

struct ExplainOptions {
  std::string collection;
  std::string query;  // an id, or the text is given
  std::string text;
  std::string vectors;  // empty: those of the collection
  std::string neighbour;
  Distance distance;
  int top = 0;  // 0: all
};

Count document_of(const Collection& collection, const char* option, const std::string& id,
                  const std::string& path) {
  if (const auto document = collection.find(id)) return *document;
  throw RunError(fmt::format("{}: {} has no document '{}'", option, path, texts::printable(id)));
}

Collection query_of_text(const ExplainOptions& options, const Collection& collection) {
  StatusLine status;
  Collection query = collection.for_queries();
  const Text text{.id = "text", .text = options.text, .label = {}, .place = "--text"};
  query.append({&text, 1}, query_vectors(collection, options.vectors, status));
  if (query.entries() == 0) throw RunError("--text: no word has a vector");
  return query;
}

void print_explanation(const Explanation& explanation, const ExplainOptions& options,
                       const Vectors& from, const Vectors& to) {
  const bool exact = options.distance.measure == Measure::exact;
  say("distance {}, {}\n", distance_text(explanation.distance, exact), described(options.distance));
  if (explanation.flows.empty()) {
    say("a document without words is infinitely far from every other\n");
    return;
  }
  say("{} words travel to the {}\n\n", explanation.from_query ? "the query's" : "the neighbour's",
      explanation.from_query ? "neighbour's" : "query's");
  say("{:<20} {:<20} {:>9} {:>9} {:>9}\n", "from", "to", "weight", "distance", "cost");
  const Count flows = std::ssize(explanation.flows);
  const Count shown = options.top > 0 ? std::min<Count>(options.top, flows) : flows;
  double rest = 0;
  for (Count i = 0; i < flows; ++i) {
    const Flow& flow = explanation.flows[i];
    const double cost = flow.weight * flow.distance;
    if (i >= shown) {
      rest += cost;
      continue;
    }
    say("{:<20} {:<20} {:>9.6f} {:>9.6f} {:>9.6f}\n", texts::printable(from.word(flow.from)),
        texts::printable(to.word(flow.to)), flow.weight, flow.distance, cost);
  }
  if (shown < flows) {
    say("{:<20} {:<20} {:>9} {:>9} {:>9.6f}\n", fmt::format("{} more", flows - shown), "", "", "",
        rest);
  }
}

void explain_pair(const ExplainOptions& options) {
  const Collection collection = Collection::load(options.collection);
  const Count neighbour =
      document_of(collection, "--neighbour", options.neighbour, options.collection);
  const bool by_text = !options.text.empty();
  const Collection own = by_text ? query_of_text(options, collection) : Collection();
  const Collection& queries = by_text ? own : collection;
  const Count query =
      by_text ? 0 : document_of(collection, "--query", options.query, options.collection);
  const Explanation explanation = explain(collection, neighbour, queries, query, options.distance);
  const Vectors &there = collection.vocabulary(), &here = queries.vocabulary();
  print_explanation(explanation, options, explanation.from_query ? here : there,
                    explanation.from_query ? there : here);
}

}  // namespace
}  // namespace talvik::tool

void add_explain_command(CLI::App& app, int& status) {
  using namespace talvik::tool;
  CLI::App* command =
      app.add_subcommand("explain", "Show which words make the distance between two texts");
  auto options = std::make_shared<ExplainOptions>();
  command->add_option("--collection", options->collection, "Collection made by talvik index")
      ->required()
      ->type_name("FILE");
  CLI::Option* query =
      command->add_option("--query", options->query, "Id of a document of the collection")
          ->type_name("ID");
  CLI::Option* text =
      command->add_option("--text", options->text, "The query itself")->excludes(query);
  command
      ->add_option("--vectors", options->vectors,
                   "Word vectors for words of the text that the collection lacks")
      ->needs(text)
      ->type_name("FILE");
  command->add_option("--neighbour", options->neighbour, "Id of the other document")
      ->required()
      ->type_name("ID");
  add_distance_options(*command, options->distance);
  command->add_option("--top", options->top, "Show the so many dearest moves (default: all)")
      ->check(at_least(1));
  command->footer(
      "Examples:\n"
      "  talvik explain --collection news.talvik --query 17 --neighbour 4711 --top 10\n"
      "  talvik explain --collection news.talvik --text \"oil prices fall\" \\\n"
      "    --neighbour 4711 --distance exact\n");
  command->callback([options, query, text, &status] {
    if (query->count() + text->count() == 0) throw CLI::RequiredError("--query or --text");
    check_distance_options(options->distance);
    status = run_command("explain", [&] { explain_pair(*options); });
  });
}
