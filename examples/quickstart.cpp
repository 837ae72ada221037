// The five nearest documents of every query text:  mpirun -n 2 quickstart VECTORS TEXTS QUERIES OUT
#include <cstdio>
#include <cstdlib>
#include <talvik.hpp>

struct Collection {
  talvik::DocumentSet docs;
  talvik::LabelList ids, classes;
};

Collection read_texts(const char* directory, talvik::VocabularyMap& words) {
  Collection texts;
  int docs = 0, entries = 0;
  const int max_words = 500, skip_none = -1;
  talvik::parse_docs_20(directory, max_words, skip_none, texts.docs, texts.ids, texts.classes, docs,
                        entries, words);
  return texts;
}

int main(int argc, char** argv) {
  if (argc != 5) return std::fprintf(stderr, "usage: quickstart VECTORS TEXTS QUERIES OUT\n"), 2;
  talvik::VocabularyMap words;
  float *vectors = nullptr, *distances = nullptr;
  long long vec_size = 0, voc_size = 0;
  if (!talvik::parse_embedding_file(argv[1], false, nullptr, words, &vectors, vec_size, voc_size))
    return std::fprintf(stderr, "quickstart: cannot read %s\n", argv[1]), 1;
  const Collection texts = read_texts(argv[2], words), queries = read_texts(argv[3], words);

  // Every process answers its share of the queries and writes it to OUT.thread<node rank>-<rank>,
  // a line per neighbour: "query", "neighbour", "distance".
  const int neighbours = 5, capacity_steps = 0;
  const bool write_lists = true, use_gpu = false;
  talvik::num_cpu_threads = 2;
  talvik::rwmd2_twoway_wrapper(static_cast<int>(voc_size), vectors, static_cast<int>(vec_size),
                               neighbours, capacity_steps, queries.docs, queries.ids, texts.docs,
                               texts.ids, &distances, write_lists, argv[4], use_gpu);
  talvik::finalize_mpi();
  std::free(distances);
  delete[] vectors;
}
