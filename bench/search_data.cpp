#include "search_data.hpp"

#include <filesystem>
#include <utility>
#include <vector>

#include "talvik/texts.hpp"

namespace talvik::bench {
namespace {

std::vector<Text> read_all(const std::string& path) {
  std::vector<Text> texts;
  read_texts(path, {}, [&](Text&& text) { texts.push_back(std::move(text)); });
  return texts;
}

// Words are numbered as the resident side's vocabulary numbers them.
DocumentSet document_set(const Collection& documents, const Vectors& vocabulary) {
  std::vector<unsigned> number(documents.used_words());
  for (int word = 0; word < documents.used_words(); ++word) {
    number[word] =
        static_cast<unsigned>(vocabulary.find(documents.vocabulary().word(word)).value());
  }
  DocumentSet docs(documents.size());
  for (Count i = 0; i < documents.size(); ++i) {
    for (Count entry = documents.offsets()[i]; entry < documents.offsets()[i + 1]; ++entry) {
      docs[i].emplace_back(number[documents.words()[entry]], documents.weights()[entry]);
    }
  }
  return docs;
}

}  // namespace

void index_once(const LargeData& data) {
  namespace fs = std::filesystem;
  if (fs::exists(data.saved()) &&
      fs::last_write_time(data.saved()) >= fs::last_write_time(data.texts())) {
    return;
  }
  read_collection(data.vectors, data.texts()).save(data.saved());
}

Collection read_queries(const Collection& collection, const std::string& path) {
  Collection queries = collection.for_queries();
  queries.append(read_all(path), collection.vocabulary());
  return queries;
}

Collection read_collection(const std::string& vectors, const std::string& path, AllWords all_words,
                           Count limit) {
  Collection collection({.all_words = all_words == AllWords::yes});
  std::vector<Text> texts = read_all(path);
  if (std::ssize(texts) > limit) texts.resize(limit);
  collection.append(texts, Vectors::read(vectors));
  return collection;
}

Collections collections_of(const Collection& resident, const Collection& queries) {
  const Vectors& vocabulary = resident.vocabulary();
  return {vocabulary.size(),
          vocabulary.dimensions(),
          {vocabulary.rows().begin(), vocabulary.rows().end()},
          document_set(resident, vocabulary),
          document_set(queries, vocabulary)};
}

}  // namespace talvik::bench
