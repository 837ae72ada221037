// talvik mnist: nearest images between IDX files of 28 x 28 pixels, or within one.
#include <memory>

#include "choice_option.hpp"
#include "commands/commands.hpp"
#include "execute.hpp"
#include "load_mnist.hpp"

using namespace talvik::tool;

void add_mnist_command(CLI::App& app, int& status) {
  struct Options {
    RunOptions run;
    MnistOptions images;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand(
      "mnist",
      "Nearest images between IDX files of 28 x 28 pixels, or within one.\n"
      "A limit takes the first images of the file; queries that are limited within\n"
      "the resident images are spread evenly over them.");
  MnistOptions& images = options->images;
  command
      ->add_option("--resident-images", images.resident_images,
                   "Images in which neighbours are searched")
      ->required()
      ->type_name("FILE");
  command->add_option("--resident-labels", images.resident_labels, "Their classes")
      ->required()
      ->type_name("FILE");
  auto* query_images =
      command
          ->add_option("--query-images", images.query_images,
                       "Images that get neighbours (default: the resident ones, each against the "
                       "others)")
          ->type_name("FILE");
  auto* query_labels = command->add_option("--query-labels", images.query_labels, "Their classes")
                           ->type_name("FILE")
                           ->needs(query_images);
  query_images->needs(query_labels);
  add_run_options(*command, options->run);
  command->footer(
      "Examples:\n"
      "  talvik mnist --resident-images train-images --resident-labels train-labels \\\n"
      "    --query-images t10k-images --query-labels t10k-labels --out near.csv\n"
      "  talvik mnist --resident-images train-images --resident-labels train-labels \\\n"
      "    --limit-queries 500 --out near.csv --matrix distances.npy\n");
  command->callback([options, &status] {
    const MnistOptions& files = options->images;
    check_run_options(options->run, {files.resident_images, files.resident_labels,
                                     files.query_images, files.query_labels});
    options->images.limit_resident = options->run.limit_resident;
    options->images.limit_queries = options->run.limit_queries;
    status = execute(options->run, [options] { return load_mnist(options->images); });
  });
}
