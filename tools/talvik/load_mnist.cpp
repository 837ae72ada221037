// Reads IDX files with the library's reader, after checks that it does not make.
#include "load_mnist.hpp"

#include <fmt/core.h>

#include "idx_input.hpp"
#include "run_error.hpp"

namespace talvik::tool {
namespace {

LoadedCollection read_images(const std::string& image_path, const std::string& label_path,
                             int limit, Problem& problem) {
  const long long images = check_idx_images(image_path);
  const long long labels = check_idx_labels(label_path);
  if (images != labels) {
    throw RunError(fmt::format("{}: holds {} labels for the {} images of {}", label_path, labels,
                               images, image_path));
  }
  DocumentSet docs;
  LabelList ids, classes;
  int num_docs = 0, num_words = 0;
  float* vectors = problem.embeddings.release();  // the reader takes the array back
  long long vec_size = 0, voc_size = 0;
  parse_docs_mnist(image_path.c_str(), label_path.c_str(), docs, ids, classes, num_docs, num_words,
                   &vectors, vec_size, voc_size);
  problem.embeddings.reset(vectors);
  if (docs.size() != ids.size()) throw RunError(image_path + ": cannot be read");
  problem.voc_size = static_cast<int>(voc_size);
  problem.vec_size = static_cast<int>(vec_size);

  LoadedCollection collection;
  const size_t read = limit > 0 ? std::min<size_t>(docs.size(), limit) : docs.size();
  for (size_t i = 0; i < read; ++i) {
    if (docs[i].empty()) {
      collection.dropped.push_back(fmt::format("{}: image {}: all pixels are zero", image_path, i));
      continue;
    }
    collection.docs.push_back(std::move(docs[i]));
    collection.ids.push_back(ids[i]);
    collection.classes.push_back(classes[i]);
  }
  if (collection.docs.empty()) {
    throw RunError(fmt::format("{}: all pixels of all {} images are zero", image_path, read));
  }
  finish_collection(collection, image_path);
  return collection;
}

}  // namespace

Problem load_mnist(const MnistOptions& options) {
  Problem problem;
  problem.resident = read_images(options.resident_images, options.resident_labels,
                                 options.limit_resident, problem);
  if (options.query_images.empty()) {
    make_self_run(problem, options.limit_queries);
  } else {
    problem.queries =
        read_images(options.query_images, options.query_labels, options.limit_queries, problem);
  }
  return problem;
}

}  // namespace talvik::tool
