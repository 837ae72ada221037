// Two searches of an installed search library: distances known by hand, and an error caught.
#include <cstdio>
#include <string>
#include <talvik/error.hpp>
#include <talvik/search.hpp>
#include <vector>

int main() {
  // Two columns of words at x = 0 and x = 6.
  const std::vector<float> rows = {0, 0, 0, 1, 0, 5, 6, 0, 6, 1, 6, 9};
  const auto vectors = talvik::Vectors::from_arrays(
      {"dog", "puppy", "price", "sleeps", "rests", "rises"}, rows, 2, false);
  talvik::Collection texts;
  const std::vector<talvik::Text> searched = {{"1", "a puppy rests"},
                                              {"2", "the dog sleeps while the price rises"}};
  texts.append(searched, vectors);
  talvik::Collection queries;
  const std::vector<talvik::Text> asked = {{"3", "the dog sleeps"}};
  queries.append(asked, vectors);
  const talvik::Neighbours found = neighbours(texts, queries, 2);
  const bool right = found.documents == std::vector<talvik::Count>{0, 1} &&
                     found.distances == std::vector<float>{1.0f, 3.5f};
  if (!right) std::printf("wrong distances\n");
  try {
    neighbours(texts, queries, 0);
  } catch (const talvik::ArgumentError& error) {
    return right && error.where() == "k" ? 0 : 1;
  }
  return 1;
}
