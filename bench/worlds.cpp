// Generated collections: words with the statistics of text, and pen strokes on a grid of pixels.
#include "worlds.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>  // back_inserter
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>

#include "internal/team.hpp"

namespace talvik::bench {
namespace {

constexpr int text_dimensions = 300;
constexpr int stop_words = 100;         // the most frequent ones, as a stop list takes away
constexpr double zipf_exponent = 1.05;  // the r-th most frequent word is drawn with weight r^-1.05
constexpr unsigned text_seed = 20;

// Draws words with these frequencies; the most frequent kept word has index 0.
class ZipfWords {
 public:
  explicit ZipfWords(int voc_size) {
    double sum = 0;
    for (int word = 0; word < voc_size; ++word) {
      sum += std::pow(word + 1 + stop_words, -zipf_exponent);
      cumulated_.push_back(sum);
    }
  }
  template <class Random>
  unsigned operator()(Random& random) const {
    const double at = std::uniform_real_distribution<>(0, cumulated_.back())(random);
    const auto found = std::upper_bound(cumulated_.begin(), cumulated_.end() - 1, at);
    return static_cast<unsigned>(found - cumulated_.begin());
  }

 private:
  std::vector<double> cumulated_;
};

template <class Random>
std::vector<float> draw_vectors(int rows, int vec_size, Random& random) {
  std::vector<float> vectors(static_cast<size_t>(rows) * static_cast<size_t>(vec_size));
  std::normal_distribution<float> component(0, 1 / std::sqrt(static_cast<float>(vec_size)));
  for (float& x : vectors) x = component(random);
  return vectors;
}

// So many different words, drawn until there are enough.
template <class Random>
Document draw_document(size_t length, const ZipfWords& words, Random& random) {
  std::vector<unsigned> used;
  while (used.size() < length) {
    std::generate_n(std::back_inserter(used), length - used.size(), [&] { return words(random); });
    std::sort(used.begin(), used.end());
    used.erase(std::unique(used.begin(), used.end()), used.end());
  }
  Document doc;
  doc.reserve(length);
  for (const unsigned word : used) doc.emplace_back(word, 1.0f / static_cast<float>(length));
  return doc;
}

// Lengths are uniform from half to 1.5 times the average.
DocumentSet draw_documents(int count, int average_length, const ZipfWords& words,
                           std::mt19937& random) {
  std::uniform_int_distribution<int> length(average_length / 2,
                                            average_length + average_length / 2);
  DocumentSet docs(static_cast<size_t>(count));
  for (Document& doc : docs) {
    const auto wanted = static_cast<size_t>(length(random));
    doc = draw_document(wanted, words, random);
  }
  return docs;
}

Collections make_text(int voc_size) {
  constexpr int num_resident = 4000, num_queries = 1000, average_length = 95;
  std::mt19937 random(text_seed);
  Collections text{
      voc_size, text_dimensions, draw_vectors(voc_size, text_dimensions, random), {}, {}};
  const ZipfWords words(voc_size);
  text.resident = draw_documents(num_resident, average_length, words, random);
  text.queries = draw_documents(num_queries, average_length, words, random);
  return text;
}

// The query documents take words from a shuffled vocabulary, each once.
Collections make_distinct() {
  constexpr int voc_size = 60000, num_entries = 20000, length = 100;
  Collections distinct = make_text(voc_size);
  std::vector<unsigned> words(voc_size);
  std::iota(words.begin(), words.end(), 0u);
  std::shuffle(words.begin(), words.end(), std::mt19937(text_seed));
  distinct.queries.assign(num_entries / length, {});
  size_t taken = 0;
  for (Document& doc : distinct.queries) {
    while (doc.size() < length) doc.emplace_back(words[taken++], 1.0f / length);
    std::sort(doc.begin(), doc.end());
  }
  return distinct;
}

// One document after the other from a seed of its own, so that a team draws them all alike.
template <class DrawDocument>
DocumentSet draw_in_team(int count, unsigned seed, const DrawDocument& draw) {
  DocumentSet docs(static_cast<size_t>(count));
  internal::for_each_share(num_cpu_threads, count, [&](int first, int last, int) {
    for (int i = first; i < last; ++i) {
      std::minstd_rand random(seed + static_cast<unsigned>(i));
      random.discard(4);  // neighbouring seeds begin with neighbouring values
      docs[static_cast<size_t>(i)] = draw(random);
    }
  });
  return docs;
}

Collections make_large() {
  constexpr int voc_size = 50000, num_resident = 500000, num_queries = 64, length = 60;
  std::mt19937 random(text_seed);
  Collections large{
      voc_size, text_dimensions, draw_vectors(voc_size, text_dimensions, random), {}, {}};
  const ZipfWords words(voc_size);
  const auto draw = [&](std::minstd_rand& own) { return draw_document(length, words, own); };
  large.resident = draw_in_team(num_resident, text_seed, draw);
  large.queries = draw_in_team(num_queries, text_seed + num_resident, draw);
  return large;
}

constexpr int image_side = 28;

// A pen wanders from somewhere near the middle, turning a little with every step and away from the
// margin, and leaves a line about three pixels wide, dark in the middle.
Document draw_stroke(std::minstd_rand& random) {
  constexpr float step = 0.7f, most_turn = 0.6f, pen_radius = 1.7f, margin = 2;
  std::uniform_real_distribution<float> turn(-most_turn, most_turn);
  std::uniform_real_distribution<float> place(10, 18);
  const int wanted = std::uniform_int_distribution<int>(100, 200)(random);
  std::vector<float> ink(image_side * image_side);
  float x = place(random), y = place(random), direction = 10 * turn(random);
  for (int covered = 0; covered < wanted;) {
    for (int row = 0; row < image_side; ++row) {
      for (int column = 0; column < image_side; ++column) {
        const float shade =
            pen_radius - std::hypot(static_cast<float>(column) - x, static_cast<float>(row) - y);
        float& pixel = ink[static_cast<size_t>(row * image_side + column)];
        if (shade <= 0) continue;
        covered += pixel == 0;
        pixel = std::max(pixel, shade);
      }
    }
    direction += turn(random);
    x += step * std::cos(direction);
    y += step * std::sin(direction);
    const float low = margin, high = image_side - 1 - margin;
    if (x < low || x > high || y < low || y > high) direction += 2;  // about a third of a circle
    x = std::clamp(x, low, high);
    y = std::clamp(y, low, high);
  }
  const float sum = std::accumulate(ink.begin(), ink.end(), 0.0f);
  Document doc;
  for (size_t pixel = 0; pixel < ink.size(); ++pixel) {
    if (ink[pixel] > 0) doc.emplace_back(static_cast<unsigned>(pixel), ink[pixel] / sum);
  }
  return doc;
}

Collections make_images() {
  constexpr int num_resident = 60000, num_queries = 256;
  Collections images{image_side * image_side, 2, {}, {}, {}};
  for (int pixel = 0; pixel < images.voc_size; ++pixel) {
    images.embeddings.push_back(static_cast<float>(pixel % image_side));
    images.embeddings.push_back(static_cast<float>(pixel / image_side));
  }
  images.resident = draw_in_team(num_resident, text_seed, draw_stroke);
  images.queries = draw_in_team(num_queries, text_seed + num_resident, draw_stroke);
  return images;
}

SparseRows sparse_rows_of(const DocumentSet& docs) {
  const auto entries = static_cast<size_t>(entries_of(docs));
  SparseRows rows{std::vector<int>(docs.size() + 1), std::vector<int>(entries),
                  std::vector<float>(entries)};
  setup_raw_data(docs, 0, static_cast<int>(docs.size()), rows.ind.data(), rows.start.data(),
                 rows.weight.data());
  return rows;
}

}  // namespace

Collections make_collections(const std::string& name) {
  if (name == "text") return make_text(60000);
  if (name == "small") return make_text(20000);
  if (name == "distinct") return make_distinct();
  if (name == "large") return make_large();
  if (name == "images") return make_images();
  throw std::invalid_argument("There is no world " + name);
}

World make_world(const std::string& name) { return world_of(name, make_collections(name)); }

World world_of(const std::string& name, Collections collections) {
  World world;
  world.name = name;
  world.num_resident = static_cast<int>(collections.resident.size());
  world.num_queries = static_cast<int>(collections.queries.size());
  world.vec_size = collections.vec_size;
  world.queries = sparse_rows_of(collections.queries);
  world.X2.resize(world.queries.ind.size() * static_cast<size_t>(world.vec_size));
  setup_vectors(collections.embeddings.data(), world.vec_size, collections.queries, 0,
                world.num_queries, world.X2.data(), world.queries.start.data(),
                world.queries.weight.data());
  float* compressed = nullptr;
  compress_vocabulary(collections.voc_size, collections.embeddings.data(), &world.voc_size,
                      &compressed, world.vec_size, collections.resident, 0, world.num_resident);
  const std::unique_ptr<float[]> owned(compressed);
  world.words.assign(compressed, compressed + static_cast<size_t>(world.voc_size) *
                                                  static_cast<size_t>(world.vec_size));
  world.resident = sparse_rows_of(collections.resident);
  return world;
}

std::string description_of(const World& world) {
  char line[160];
  std::snprintf(line, sizeof line,
                "world %s: %d resident and %d query documents, %zu and %zu entries, vocabulary %d, "
                "%d dimensions",
                world.name.c_str(), world.num_resident, world.num_queries,
                world.resident.ind.size(), world.queries.ind.size(), world.voc_size,
                world.vec_size);
  return line;
}

int entries_of(const DocumentSet& docs) {
  size_t entries = 0;
  for (const Document& doc : docs) entries += doc.size();
  return static_cast<int>(entries);
}

}  // namespace talvik::bench
