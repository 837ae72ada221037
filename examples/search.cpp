// The three texts nearest to a query, and the word of each that is furthest from the query's:
//   search VECTORS TEXTS QUERY
#include <iostream>
#include <talvik/error.hpp>
#include <talvik/search.hpp>

int main(int argc, char** argv) try {
  if (argc != 4) return std::cerr << "usage: search VECTORS TEXTS QUERY\n", 2;
  const talvik::Vectors vectors = talvik::Vectors::read(argv[1]);
  std::vector<talvik::Text> texts;
  talvik::read_texts(argv[2], {}, [&](talvik::Text&& text) { texts.push_back(std::move(text)); });
  talvik::Collection collection({.rules = {.stop_words = talvik::english_stop_words()}});
  collection.append(texts, vectors);

  talvik::Collection query(collection.options());  // the same rules, so that it is treated alike
  const talvik::Text asked = {.id = "query", .text = argv[3]};
  query.append({&asked, 1}, vectors);

  const talvik::Distance exact = {.measure = talvik::Measure::exact};
  const talvik::Neighbours found = neighbours(collection, query, 3, {.distance = exact});
  for (std::size_t place = 0; place < found.documents.size(); ++place) {
    const talvik::Count document = found.documents[place];
    std::cout << found.distance(place) << "  " << collection.id(document);
    const talvik::Explanation why = explain(collection, document, query, 0, exact);
    if (!why.flows.empty()) {  // by falling cost; exact costs go from the document to the query
      std::cout << ": " << collection.vocabulary().word(why.flows[0].from) << " -> "
                << query.vocabulary().word(why.flows[0].to);
    }
    std::cout << '\n';
  }
} catch (const talvik::Error& error) {
  return std::cerr << "search: " << error.what() << '\n', 1;
}
