// The distance of a pair, on which every answer of a search rests, against slow computations in
// double precision.  Weights are multiples of 1/64 that sum to 1, so that masses agree to the bit.
#include "search/pair_distance.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <random>

#include "libwmd/cpu/sizes.hpp"
#include "support/instruction_sets.hpp"
#include "talvik/error.hpp"
#include "talvik/search.hpp"

namespace talvik::internal {
namespace {

using Matrix = std::vector<std::vector<double>>;

constexpr Metric metrics[] = {talvik::Metric::euclidean, talvik::Metric::cosine};
constexpr double infinity = std::numeric_limits<double>::infinity();

struct Bag {
  std::vector<int> words;
  std::vector<float> weights;
};

struct Scene {
  VectorTable vectors;
  std::vector<Bag> bags;
  DocumentView view(int i) const { return {vectors, bags[i].words, bags[i].weights}; }
};

Bag random_bag(int words, int length, std::mt19937& random) {
  Bag bag;
  bag.words.resize(words);
  std::iota(bag.words.begin(), bag.words.end(), 0);
  std::shuffle(bag.words.begin(), bag.words.end(), random);
  bag.words.resize(length);
  std::sort(bag.words.begin(), bag.words.end());
  bag.weights.resize(length);
  for (int part = 0; part < 64; ++part) bag.weights[random() % length] += 1 / 64.f;
  return bag;
}

// Rows of any length, or of length 1; some come again under another word, and that of word 0 is
// zero.  Documents of 1 to 14 words, one of 40.
Scene random_scene(unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal;
  Scene scene;
  constexpr int words = 45, lengths[] = {1, 1, 2, 3, 5, 8, 14, 40};
  const int dimensions = std::vector{1, 2, 5, 33}[seed % 4];
  scene.vectors.num_words = words;
  scene.vectors.dimensions = dimensions;
  scene.vectors.rows.resize(words * dimensions);
  for (int w = 1; w < words; ++w) {
    float* row = scene.vectors.rows.data() + w * dimensions;
    std::generate_n(row, dimensions, [&] { return normal(random); });
    const float norm = std::sqrt(std::inner_product(row, row + dimensions, row, 0.0f));
    if (seed % 3 == 0)
      std::transform(row, row + dimensions, row, [&](float x) { return x / norm; });
    if (w % 4 == 0) std::copy_n(row - dimensions * (1 + random() % (w - 1)), dimensions, row);
  }
  for (const int length : lengths) scene.bags.push_back(random_bag(words, length, random));
  return scene;
}

Matrix slow_distances(Metric metric, const DocumentView& from, const DocumentView& to) {
  Matrix result(from.words.size(), std::vector<double>(to.words.size()));
  for (std::size_t i = 0; i < from.words.size(); ++i) {
    for (std::size_t j = 0; j < to.words.size(); ++j) {
      double dot = 0, a2 = 0, b2 = 0, difference2 = 0;
      for (int c = 0; c < from.vectors.dimensions; ++c) {
        const double a = from.vectors.rows[from.words[i] * from.vectors.dimensions + c];
        const double b = to.vectors.rows[to.words[j] * to.vectors.dimensions + c];
        dot += a * b;
        a2 += a * a;
        b2 += b * b;
        difference2 += (a - b) * (a - b);
      }
      const double cosine = a2 > 0 && b2 > 0 ? 1 - dot / std::sqrt(a2) / std::sqrt(b2) : 1;
      result[i][j] = metric == talvik::Metric::euclidean ? std::sqrt(difference2) : cosine;
    }
  }
  return result;
}

double slow_relaxed(Metric metric, int steps, const DocumentView& from, const DocumentView& to) {
  const Matrix distances = slow_distances(metric, from, to);
  const int nearest = nearest_of_document(steps, static_cast<int>(to.words.size()));
  double sum = 0;
  for (std::size_t i = 0; i < from.words.size(); ++i) {
    std::vector<std::size_t> order(to.words.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](auto a, auto b) { return distances[i][a] < distances[i][b]; });
    double left = from.weights[i];
    for (int t = 0; t < nearest; ++t) {
      const double moved = t + 1 == nearest ? left : std::min<double>(left, to.weights[order[t]]);
      sum += moved * distances[i][order[t]];
      left -= moved;
    }
  }
  return sum;
}

// A transport is of least cost if and only if there are potentials under which no arc that could
// carry more, or less, would save anything.  Returns what one would save under those that shortest
// paths yield.
double largest_saving(const Matrix& distances, const std::vector<EntryFlow>& flows) {
  struct Arc {
    std::size_t from, to;
    double cost;
  };
  const std::size_t m = distances.size(), n = distances[0].size();
  std::vector<Arc> arcs;
  for (std::size_t i = 0; i < m; ++i) {
    for (std::size_t j = 0; j < n; ++j) arcs.push_back({i, m + j, distances[i][j]});
  }
  for (const EntryFlow& f : flows) {
    arcs.push_back({m + f.to, std::size_t(f.from), -distances[f.from][f.to]});
  }
  std::vector<double> path(m + n);
  double saving = 0;
  for (std::size_t round = 0; round <= m + n; ++round) {
    saving = 0;
    for (const Arc& arc : arcs) {
      const double found = path[arc.from] + arc.cost;
      saving = std::max(saving, path[arc.to] - found);
      path[arc.to] = std::min(path[arc.to], found);
    }
  }
  return saving;
}

// What leaves, or reaches, every entry.
std::vector<double> marginal(const std::vector<EntryFlow>& flows, int EntryFlow::*end,
                             std::size_t entries) {
  std::vector<double> sums(entries);
  for (const EntryFlow& flow : flows) sums[flow.*end] += flow.weight;
  return sums;
}

void expect_near(const std::vector<double>& sums, std::span<const float> weights) {
  for (std::size_t i = 0; i < sums.size(); ++i) EXPECT_NEAR(sums[i], weights[i], 1e-14) << i;
}

double cost(const std::vector<EntryFlow>& flows) {
  return std::accumulate(flows.begin(), flows.end(), 0.0, [](double sum, const EntryFlow& flow) {
    return sum + flow.weight * flow.distance;
  });
}

template <class Body>  // Body: void(scene, metric)
void in_every_scene(const Body& body) {
  for (unsigned seed = 0; seed < 12; ++seed) {
    for (const Metric metric : metrics) {
      SCOPED_TRACE(testing::Message()
                   << "seed " << seed << ", metric " << static_cast<int>(metric));
      body(random_scene(seed), metric);
    }
  }
}

TEST(WordDistances, AreTheSameBitsOnEveryInstructionSetAndInBothDirections) {
  in_every_scene([](const Scene& scene, Metric metric) {
    WordDistanceScratch scratch;
    std::vector<int> all(scene.vectors.num_words);
    std::iota(all.begin(), all.end(), 0);
    for (const int cols : {1, 3, 9, 16, 30, 45}) {  // panels that are full, narrow and cut
      const int rows = 45 - cols % 4;
      const float* table = scene.vectors.rows.data();
      const WordRows from{table, scene.vectors.dimensions, std::span(all).last(rows)};
      const WordRows to{table, scene.vectors.dimensions, std::span(all).first(cols)};
      const Matrix slow =
          slow_distances(metric, {scene.vectors, from.words, {}}, {scene.vectors, to.words, {}});
      std::vector<double> first(rows * cols), turned(first);
      word_distances(metric, from, to, scratch, first.data());
      word_distances(metric, to, from, scratch, turned.data());
      for (int i = 0; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
          EXPECT_NEAR(first[i * cols + j], slow[i][j], 1e-13);
          EXPECT_EQ(first[i * cols + j], turned[j * rows + i]);
          const int d = scene.vectors.dimensions, a = from.words[i], b = to.words[j];
          if (!std::equal(table + a * d, table + (a + 1) * d, table + b * d)) continue;
          EXPECT_EQ(first[i * cols + j], metric == talvik::Metric::cosine && a == 0 ? 1 : 0);
        }
      }
      test::on_every_instruction_set([&] {
        std::vector<double> again(first.size());
        word_distances(metric, from, to, scratch, again.data());
        EXPECT_EQ(again, first);
      });
    }
  });
}

TEST(PairDistance, OfRelaxedMeasuresIsThatOfTheDefinition) {
  PairDistance pair;  // one for all: what was computed before leaves no trace
  in_every_scene([&](const Scene& scene, Metric metric) {
    for (int steps = 0; steps < 10; ++steps) {
      for (int i = 0; i < 8; ++i) {
        const DocumentView document = scene.view(i), query = scene.view((3 * i + steps) % 8);
        const double there = slow_relaxed(metric, steps, document, query);
        const double back = slow_relaxed(metric, steps, query, document);
        const std::pair<Measure, double> expected[] = {{Measure::one_way, there},
                                                       {Measure::other_way, back},
                                                       {Measure::two_way, std::max(there, back)}};
        for (const auto& [measure, distance] : expected) {
          const PairFlows parts = pair.flows(document, query, {measure, steps, metric});
          EXPECT_NEAR(parts.distance, distance, 1e-13);
          EXPECT_NEAR(cost(parts.flows), parts.distance, 1e-13);
          EXPECT_EQ(pair.relaxed(document, query, {measure, steps, metric}),
                    static_cast<float>(parts.distance));
          const DocumentView& from = parts.from_query ? query : document;
          expect_near(marginal(parts.flows, &EntryFlow::from, from.words.size()), from.weights);
        }
      }
    }
  });
}

TEST(PairDistance, OfTheExactMeasureIsThatOfATransportOfLeastCost) {
  PairDistance pair;
  in_every_scene([&](const Scene& scene, Metric metric) {
    for (int i = 0; i < 8; ++i) {
      for (int q = 0; q < 8; ++q) {
        const DocumentView document = scene.view(i), query = scene.view(q);
        const PairFlows parts = pair.flows(document, query, {Measure::exact, 0, metric});
        expect_near(marginal(parts.flows, &EntryFlow::from, document.words.size()),
                    document.weights);
        expect_near(marginal(parts.flows, &EntryFlow::to, query.words.size()), query.weights);
        EXPECT_LE(largest_saving(slow_distances(metric, document, query), parts.flows), 1e-13);
        EXPECT_NEAR(cost(parts.flows), parts.distance, 1e-13);
        EXPECT_NEAR(pair.exact(query, document, metric), parts.distance, 1e-13);
        // Masses that differ are scaled to the document's.
        std::vector<float> triple(document.weights.begin(), document.weights.end());
        for (float& weight : triple) weight *= 3;
        EXPECT_NEAR(pair.exact({scene.vectors, document.words, triple}, query, metric),
                    3 * parts.distance, 1e-12);
      }
    }
  });
}

TEST(PairDistance, GrowsFromBoundToBoundAndIsZeroBetweenEqualDocuments) {
  PairDistance pair;
  in_every_scene([&](const Scene& scene, Metric metric) {
    constexpr double rounding = 1e-13;
    for (int i = 0; i < 8; ++i) {
      for (int q = 0; q < 8; ++q) {
        const DocumentView document = scene.view(i), query = scene.view(q);
        const auto relaxed = [&](Measure measure, int steps) {
          return pair.relaxed_sum(document, query, {measure, steps, metric});
        };
        const double two_way = relaxed(Measure::two_way, 0);
        const double exact = pair.exact(document, query, metric);
        EXPECT_LE(relaxed(Measure::one_way, 0), two_way);
        for (int steps = 1; steps < 10; ++steps) {
          EXPECT_LE(two_way, relaxed(Measure::two_way, steps) + rounding);
          EXPECT_LE(relaxed(Measure::two_way, steps), exact + rounding);
        }
        if (i != q || document.words[0] == 0) continue;  // of two zero rows the cosine is 1 away
        EXPECT_EQ(exact, 0);
        EXPECT_EQ(relaxed(Measure::two_way, 9), 0);
      }
    }
  });
}

TEST(PairDistance, OfADocumentWithoutEntriesIsInfinite) {
  const Scene scene = random_scene(1);
  const DocumentView empty{scene.vectors, {}, {}};
  for (const Measure measure : {Measure::two_way, Measure::exact}) {
    for (const auto& [a, b] : {std::pair(empty, scene.view(3)), std::pair(scene.view(3), empty)}) {
      const PairFlows parts = PairDistance().flows(a, b, {measure, 2, talvik::Metric::cosine});
      EXPECT_EQ(parts.distance, infinity);
      EXPECT_TRUE(parts.flows.empty());
    }
  }
}

TEST(Transport, HoldsTheLargestAndTheSmallestCosts) {
  Transport transport;
  std::vector<MassFlow> flows;
  const Mass half = transport_mass / 2;
  for (const double scale : {1e-150, 1.0, 1e150}) {
    for (const bool cross : {false, true}) {  // one way costs 2e-12 less than the other, beside 1
      const double to_0 = cross ? 1e-12 : 3e-12, to_1 = cross ? 3e-12 : 1e-12;
      flows.clear();
      transport.solve(std::vector{half, half}, std::vector{half, half},
                      std::vector{scale, scale * to_0, scale, scale * to_1}, flows);
      ASSERT_EQ(flows.size(), 2u);
      EXPECT_EQ(flows[0].to, cross ? 1 : 0);
      EXPECT_EQ(flows[1].to, cross ? 0 : 1);
    }
  }
  const std::vector<Mass> many(46'341, 1);  // squared, one arc more than an int counts
  EXPECT_THROW(transport.solve(many, many, {}, flows), ArgumentError);
}

// The sentences of docs/concepts.md; the queries know other words, under other numbers.
struct Sentences {
  static Collection make(const std::vector<std::string>& words, const std::vector<float>& rows,
                         std::vector<Count> offsets, std::vector<int> numbers,
                         std::vector<float> weights, bool unit_length = false) {
    const Vectors vectors = Vectors::from_arrays(words, rows, 2, unit_length);
    Collection result({.all_words = true});
    result.append({.offsets = offsets, .words = numbers, .weights = weights, .normalise = false},
                  vectors);
    return result;
  }
  // A, and a document without words; then C and B.
  Collection resident = make({"dog", "sleeps"}, {0, 0, 6, 0}, {0, 2, 2}, {0, 1}, {0.5f, 0.5f});
  Collection queries = make({"rises", "price", "sleeps", "dog", "puppy", "rests"},
                            {6, 9, 0, 5, 6, 0, 0, 0, 0, 1, 6, 1}, {0, 4, 6}, {0, 1, 2, 3, 4, 5},
                            {0.25f, 0.25f, 0.25f, 0.25f, 0.5f, 0.5f});
};

TEST(Explain, NamesTheWordsAndTheirCostsByFallingCost) {
  const Sentences s;
  const auto words = [](const Collection& c, int number) {
    return std::string(c.vocabulary().word(number));
  };
  const auto told = [&](const Distance& distance) {
    const Explanation e = explain(s.resident, 0, s.queries, 0, distance);
    std::string text = std::to_string(e.distance).substr(0, 4);
    for (const Flow& flow : e.flows) {
      text += "; " + words(e.from_query ? s.queries : s.resident, flow.from);
      text += " " + words(e.from_query ? s.resident : s.queries, flow.to);
      text += " " + std::to_string(flow.weight * flow.distance).substr(0, 4);
    }
    return text;
  };
  EXPECT_EQ(told({Measure::one_way}), "0.00; dog dog 0.00; sleeps sleeps 0.00");
  EXPECT_EQ(told({Measure::one_way, 1}),
            "2.75; sleeps dog 1.50; dog price 1.25; dog dog 0.00; sleeps sleeps 0.00");
  EXPECT_EQ(told({Measure::two_way}),
            "3.50; rises sleeps 2.25; price dog 1.25; sleeps sleeps 0.00; dog dog 0.00");
  EXPECT_EQ(told({Measure::exact}),
            "3.50; sleeps rises 2.25; dog price 1.25; dog dog 0.00; sleeps sleeps 0.00");
  EXPECT_TRUE(explain(s.resident, 1, s.queries, 0).flows.empty());
}

TEST(Distances, OfPairsAreThoseOfEachOnAnyNumberOfThreads) {
  const Sentences s;
  std::vector<Pair> pairs;
  for (int p = 0; p < 101; ++p) pairs.push_back({p % 2 * (p % 3), p % 2});
  for (Pair& pair : pairs) pair.document %= 2;
  for (const Measure measure : {Measure::one_way, Measure::two_way, Measure::exact}) {
    SearchOptions options{.distance = {measure}, .threads = 1};
    const std::vector<double> alone = distances(s.resident, s.queries, pairs, options);
    options.threads = 3;
    EXPECT_EQ(distances(s.resident, s.queries, pairs, options), alone);
    for (std::size_t p = 0; p < pairs.size(); ++p) {
      EXPECT_EQ(
          alone[p],
          explain(s.resident, pairs[p].document, s.queries, pairs[p].query, {measure}).distance);
    }
  }
}

TEST(Distances, OfWhatCannotBeComparedAreRefused) {
  const Sentences s;
  const auto one_word = [](std::vector<float> weights, bool unit_length = false) {
    return Sentences::make({"dog", "cat"}, {1, 0, 0, 1}, {0, 2}, {0, 1}, std::move(weights),
                           unit_length);
  };
  Collection other_dimensions;
  other_dimensions.append(
      {.offsets = std::vector<Count>{0, 1}, .words = std::vector{0}, .weights = std::vector{1.f}},
      Vectors::from_arrays({"dog"}, std::vector{1.f, 2.f, 3.f}, 3, false));
  const struct {
    Collection queries;
    Pair pair;
    Distance distance;
    const char* where;
    const char* says;
  } cases[] = {
      {one_word({1, 1}), {2, 0}, {}, "document", "below 2"},
      {one_word({1, 1}), {0, -1}, {}, "query", "-1"},
      {one_word({1, 1}), {0, 0}, {Measure::two_way, -1}, "steps", "negative"},
      {one_word({1, 1}), {0, 0}, {Measure::exact}, "distance", "sums to 1, query 0 (0) to 2"},
      {one_word({1, 1}, true), {0, 0}, {}, "queries", "scaled"},
      {other_dimensions, {0, 0}, {}, "queries", "3 dimensions"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.says);
    const auto refused = [&](const std::function<void()>& call) {
      try {
        call();
        ADD_FAILURE() << "not refused";
      } catch (const ArgumentError& error) {
        EXPECT_EQ(error.where(), c.where);
        EXPECT_NE(std::string(error.what()).find(c.says), std::string::npos) << error.what();
      }
    };
    refused([&] { explain(s.resident, c.pair.document, c.queries, c.pair.query, c.distance); });
    refused([&] {
      distances(s.resident, c.queries, std::vector{c.pair}, {.distance = c.distance, .threads = 2});
    });
  }
  // Masses may differ where nothing depends on them.
  EXPECT_NO_THROW(explain(s.resident, 0, one_word({1, 1}), 0, {Measure::two_way}));
  EXPECT_NO_THROW(explain(s.resident, 0, one_word({0.500001f, 0.5f}), 0, {Measure::exact}));
}

}  // namespace
}  // namespace talvik::internal
