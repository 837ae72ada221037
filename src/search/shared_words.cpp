#include "search/shared_words.hpp"

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>

#include "internal/team.hpp"
#include "search/collection_parts.hpp"

namespace talvik::internal {
namespace {

std::vector<int> first_words(int words, int processes) {
  std::vector<int> first(processes + 1, words);
  for (int p = 0; p < processes; ++p) first[p] = share_of(p, processes, words).first;
  return first;
}

// Words [first, last), a document each.
Collection documents_of_words(const Collection& like, int first, int last) {
  std::vector<Count> offsets(last - first + 1);
  std::vector<int> words(last - first);
  std::iota(offsets.begin(), offsets.end(), 0);
  std::iota(words.begin(), words.end(), first);
  constexpr Count first_document = 0;
  return CollectionParts::bare(like, std::move(offsets), std::move(words),
                               std::vector<float>(last - first, 1), first_document);
}

}  // namespace

SharedWords::SharedWords(const Group& group, const Collection& slice, talvik::Metric metric,
                         int threads)
    : group_(group),
      first_word_(first_words(slice.used_words(), group.size())),
      share_(documents_of_words(slice, first_word_[group.rank()], first_word_[group.rank() + 1])),
      share_side_(share_, metric, threads) {}

void SharedWords::find_nearest(const Side& queries, const Range& range, const BlockRules& rules,
                               Workspace& workspace) {
  std::vector<int> counts, places;
  float* values = nullptr;
  group_.together([&] {
    for (int p = 0; p < group_.size(); ++p) {
      places.push_back(first_word_[p] * range.count);  // the plan sees to it that ints suffice
      counts.push_back((first_word_[p + 1] - first_word_[p]) * range.count);
    }
    values = gathered_.floats(0, elements(first_word_.back(), range.count));
    const int words = static_cast<int>(share_.size());
    if (words == 0) return;
    one_way_block(share_side_, {0, words}, queries, range, rules, workspace,
                  values + places[group_.rank()]);
  });
  group_.gather(counts, places, values);
  queries_ = range.count;
  nearest_ = values;
}

// The table of a slab of words of `from` and a chunk of queries.
void SharedWords::fill_table(const Side& from, const NearestTables& tables, int first_query,
                             const BlockRules& rules, float* table) const {
  const int lines = static_cast<int>(round_up(tables.words, line_floats) / line_floats);
  for_each_share(rules.threads, lines, [&](int first_line, int last_line, int thread) {
    if (rules.checkpoint) rules.checkpoint(thread);
    std::array<const float*, line_floats> of_word;  // its distance to the first query
    std::array<int, line_floats> stride;            // from there to that to the next one
    int p = 0;
    for (int line = first_line; line < last_line; ++line) {
      const int first = line * line_floats;
      const int words = std::min(line_floats, tables.words - first);
      for (int i = 0; i < words; ++i) {
        const int word = from.table_word(tables.first_word + first + i);
        while (word >= first_word_[p + 1]) ++p;
        stride[i] = first_word_[p + 1] - first_word_[p];
        of_word[i] = nearest_ + elements(first_word_[p], queries_) +
                     elements(first_query, stride[i]) + (word - first_word_[p]);
      }
      float* rows = table + elements(first, tables.width);
      for (int j = 0; j < tables.width; ++j) {
        for (int i = 0; i < words; ++i) {
          rows[i * tables.width + j] = j < tables.docs ? of_word[i][elements(j, stride[i])] : 0;
        }
      }
    }
  });
}

void SharedWords::pour_block(const Side& from, const Range& from_range, const BlockRules& rules,
                             Workspace& workspace, float* Z) const {
  if (from.words() == 0) {  // no document of it has an entry
    std::fill_n(Z, elements(queries_, from_range.count), 0.0f);
    return;
  }
  const EngineDocuments resident(from, from_range);
  EntryRanges ranges{std::vector<int>(from_range.count), std::vector<int>(from_range.count)};
  const int width = table_width(queries_);
  const Index fitting = std::max<Index>(rules.budget.table_floats / width, 1);
  const int slab = static_cast<int>(std::min<Index>(fitting, from.words()));
  float* const table = workspace.floats(Workspace::first_table, elements(slab, width));
  for (int query = 0; query < queries_; query += width) {
    for (int word = 0; word < from.words(); word += slab) {
      const NearestTables tables{.first_word = word,
                                 .words = std::min(slab, from.words() - word),
                                 .docs = std::min(width, queries_ - query),
                                 .width = width,
                                 .distance = {table},
                                 .capacity = {}};
      fill_table(from, tables, query, rules, table);
      pour(tables, resident.csr, rules.threads, ranges, Z + elements(query, from_range.count));
    }
  }
}

}  // namespace talvik::internal
