// The sparse stage, compiled once per instruction set; the processor's own is chosen at run time.
#include "libwmd/cpu/pour.hpp"

#include <algorithm>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "libwmd/cpu/pour.cpp"
#include <hwy/cache_control.h>   // Prefetch
#include <hwy/foreach_target.h>  // compiles this file again for every instruction set
#include <hwy/highway.h>

#include "internal/team.hpp"
#include "libwmd/cpu/cache_line.hpp"

HWY_BEFORE_NAMESPACE();
namespace talvik::internal::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using Floats = hn::ScalableTag<float>;
using Vector = hn::Vec<Floats>;
constexpr std::size_t lanes = HWY_LANES(float);

// Adds one resident document's entries to its sums with U vectors of query documents side by side.
// K nearest entries take part, or, with K = 0, as many as the tables hold.
template <int K, int U>
HWY_INLINE void pour_document(const NearestTables& tables, const CsrCollection& resident, int begin,
                              int end, std::size_t chunk_offset, float* sums) {
  const Floats d;
  const int steps = K > 0 ? K - 1 : static_cast<int>(tables.capacity.size());
  Vector sum[U];
#pragma GCC unroll 8
  for (int u = 0; u < U; ++u) sum[u] = hn::LoadU(d, sums + lanes * u);
  for (int p = begin; p < end; ++p) {
    const Vector weight = hn::Set(d, resident.weight[p]);
    const std::size_t at =
        chunk_offset + static_cast<std::size_t>(resident.ind[p] - tables.first_word) *
                           static_cast<std::size_t>(tables.width);
#pragma GCC unroll 8
    for (int u = 0; u < U; ++u) {
      Vector rest = weight;
      for (int t = 0; t < steps; ++t) {
        const float* capacity = tables.capacity[static_cast<std::size_t>(t)];
        const float* distance = tables.distance[static_cast<std::size_t>(t)];
        // The rest wherever the capacity is not smaller.
        const Vector moved = hn::Min(hn::LoadU(d, capacity + at + lanes * u), rest);
        sum[u] = hn::MulAdd(moved, hn::LoadU(d, distance + at + lanes * u), sum[u]);
        rest = hn::Sub(rest, moved);
      }
      const float* farthest = tables.distance[static_cast<std::size_t>(steps)];
      sum[u] = hn::MulAdd(rest, hn::LoadU(d, farthest + at + lanes * u), sum[u]);
    }
  }
#pragma GCC unroll 8
  for (int u = 0; u < U; ++u) hn::StoreU(sum[u], d, sums + lanes * u);
}

template <int K>
void pour_tile(const NearestTables& tables, const CsrCollection& resident, int begin, int end,
               std::size_t chunk_offset, float* sums) {
  // A row of a table is width floats; as many sums as there are registers to spare at a time.
  constexpr std::size_t U = 4;
  const std::size_t width = static_cast<std::size_t>(tables.width);
  std::size_t at = 0;
  for (; at + U * lanes <= width; at += U * lanes) {
    pour_document<K, static_cast<int>(U)>(tables, resident, begin, end, chunk_offset + at,
                                          sums + at);
  }
  for (; at < width; at += lanes) {
    pour_document<K, 1>(tables, resident, begin, end, chunk_offset + at, sums + at);
  }
}

constexpr int widest = 4 * line_floats;

// A sum goes on where the last block of words has left it: one sum over the entries in their order,
// wherever the blocks end, so that distances do not depend on how the work was cut.
HWY_INLINE void load_sums(const float* Z, int width, int chunk_docs, int docs, int num_docs,
                          bool overwrite, float (*sums)[widest]) {
  for (int r = 0; r < docs; ++r) std::fill(sums[r], sums[r] + width, 0.0f);
  if (overwrite) return;
  for (int j = 0; j < chunk_docs; ++j) {
    const float* z = Z + static_cast<std::size_t>(j) * static_cast<std::size_t>(num_docs);
    for (int r = 0; r < docs; ++r) sums[r][j] = z[r];
  }
}

// Sums [first, last) of each document, one by one.
HWY_INLINE void store_rest(const float (*sums)[widest], int first, int last, int docs,
                           std::size_t num_docs, float* Z) {
  for (int j = first; j < last; ++j) {
    float* z = Z + static_cast<std::size_t>(j) * num_docs;
    for (int r = 0; r < docs; ++r) z[r] = sums[r][j];
  }
}

#if HWY_TARGET == HWY_SCALAR
HWY_INLINE void store_sums(const float (*sums)[widest], int chunk_docs, int docs,
                           std::size_t num_docs, float* Z) {
  store_rest(sums, 0, chunk_docs, docs, num_docs, Z);
}
#else
// From documents with their sums side by side to Z.  Squares of four by four are turned in
// registers: single floats would fill the store buffer before the lines of Z are there.
HWY_INLINE void store_sums(const float (*sums)[widest], int chunk_docs, int docs,
                           std::size_t num_docs, float* Z) {
  constexpr int side = 4;
  const hn::FixedTag<float, side> d;
  const int turned = docs % side == 0 ? chunk_docs / side * side : 0;
  int j = 0;
  for (; j < turned; j += side) {
    float* z = Z + static_cast<std::size_t>(j) * num_docs;
    for (int r = 0; r < docs; r += side) {
      const auto row0 = hn::LoadU(d, sums[r] + j), row1 = hn::LoadU(d, sums[r + 1] + j);
      const auto row2 = hn::LoadU(d, sums[r + 2] + j), row3 = hn::LoadU(d, sums[r + 3] + j);
      const auto low02 = hn::InterleaveLower(d, row0, row2);
      const auto low13 = hn::InterleaveLower(d, row1, row3);
      const auto high02 = hn::InterleaveUpper(d, row0, row2);
      const auto high13 = hn::InterleaveUpper(d, row1, row3);
      hn::StoreU(hn::InterleaveLower(d, low02, low13), d, z + r);
      hn::StoreU(hn::InterleaveUpper(d, low02, low13), d, z + num_docs + r);
      hn::StoreU(hn::InterleaveLower(d, high02, high13), d, z + 2 * num_docs + r);
      hn::StoreU(hn::InterleaveUpper(d, high02, high13), d, z + 3 * num_docs + r);
    }
  }
  store_rest(sums, j, chunk_docs, docs, num_docs, Z);
}
#endif

// The lines of Z that a tile's sums go to, fetched before they are needed: those of query document
// r while resident document r is summed.
static_assert(pour_tile_docs >= widest);
HWY_INLINE void fetch_lines(const float* z) {
  for (int i = 0; i < pour_tile_docs; i += line_floats) hwy::Prefetch(z + i);
}

template <int K>
void pour_block(const NearestTables& tables, const CsrCollection& resident,
                const EntryRanges& ranges, int first, int last, float* Z, bool overwrite) {
  alignas(line_bytes) float sums[pour_tile_docs][widest];
  const std::size_t num_docs = static_cast<std::size_t>(resident.num_docs);
  for (int chunk = 0; chunk < chunks_of(tables.docs, tables.width); ++chunk) {
    const std::size_t offset = static_cast<std::size_t>(chunk) *
                               static_cast<std::size_t>(tables.words) *
                               static_cast<std::size_t>(tables.width);
    const int chunk_docs = std::min(tables.width, tables.docs - chunk * tables.width);
    float* Z_chunk =
        Z + static_cast<std::size_t>(chunk) * static_cast<std::size_t>(tables.width) * num_docs;
    for (int i = first; i < last; i += pour_tile_docs) {
      const int docs = std::min(pour_tile_docs, last - i);
      load_sums(Z_chunk + i, tables.width, chunk_docs, docs, resident.num_docs, overwrite, sums);
      for (int r = 0; r < docs; ++r) {
        const std::size_t d = static_cast<std::size_t>(i + r);
        if (r < chunk_docs) fetch_lines(Z_chunk + static_cast<std::size_t>(r) * num_docs + i);
        pour_tile<K>(tables, resident, ranges.begin[d], ranges.end[d], offset, sums[r]);
      }
      store_sums(sums, chunk_docs, docs, num_docs, Z_chunk + i);
    }
  }
}

void PourDocuments(const NearestTables& tables, const CsrCollection& resident,
                   const EntryRanges& ranges, int first, int last, float* Z, bool overwrite) {
  const auto run = [&]<int K>() {
    pour_block<K>(tables, resident, ranges, first, last, Z, overwrite);
  };
  switch (tables.distance.size()) {
    case 1:
      return run.template operator()<1>();
    case 2:
      return run.template operator()<2>();
    default:
      return run.template operator()<0>();
  }
}

}  // namespace talvik::internal::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace talvik::internal {
namespace {

// On from the entries of the block before to those of this one.
void move_on(const NearestTables& tables, const CsrCollection& resident, int first, int last,
             EntryRanges& ranges) {
  const int words_end = tables.first_word + tables.words;
  for (int i = first; i < last; ++i) {
    const std::size_t d = static_cast<std::size_t>(i);
    const int begin = tables.first_word == 0 ? resident.start[i] : ranges.end[d];
    const int* document_end = resident.ind + resident.start[i + 1];
    ranges.begin[d] = begin;
    ranges.end[d] = static_cast<int>(
        std::lower_bound(resident.ind + begin, document_end, words_end) - resident.ind);
  }
}

}  // namespace

HWY_EXPORT(PourDocuments);

void pour(const NearestTables& tables, const CsrCollection& resident, int threads,
          EntryRanges& ranges, float* Z) {
  // Every thread writes whole lines.
  const int lines = static_cast<int>(round_up(resident.num_docs, line_floats) / line_floats);
  const auto document_at = [&](int line) {
    return static_cast<int>(std::min<long long>(resident.num_docs, 1ll * line * line_floats));
  };
  for_each_share(threads, lines, [&](int first_line, int last_line, int) {
    const int first = document_at(first_line), last = document_at(last_line);
    const bool first_block = tables.first_word == 0;
    move_on(tables, resident, first, last, ranges);
    HWY_DYNAMIC_DISPATCH(PourDocuments)(tables, resident, ranges, first, last, Z, first_block);
  });
}

}  // namespace talvik::internal
#endif  // HWY_ONCE
