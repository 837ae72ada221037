// The sparse stage.  This file is compiled once per instruction set; the processor's best one is
// chosen at run time.
#include "libwmd/cpu/pour.hpp"

#include <algorithm>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "libwmd/cpu/pour.cpp"
#include <hwy/cache_control.h>   // Prefetch
#include <hwy/foreach_target.h>  // compiles this file again for every instruction set
#include <hwy/highway.h>

#include "internal/index.hpp"
#include "internal/team.hpp"
#include "libwmd/cpu/cache_line.hpp"

#ifndef TALVIK_POUR_ONCE  // above all instruction sets
#define TALVIK_POUR_ONCE
namespace talvik::internal {
// The resident documents [first, last), a thread's share.
struct PourShare {
  const NearestTables& tables;
  const CsrCollection& resident;
  const EntryRanges& ranges;
  int first, last;
  float* Z;
  bool overwrite;  // else the sums go on from Z
};
}  // namespace talvik::internal
#endif

HWY_BEFORE_NAMESPACE();
namespace talvik::internal::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using Floats = hn::ScalableTag<float>;
using Vector = hn::Vec<Floats>;
constexpr Index lanes = HWY_LANES(float);

// Adds one resident document's entries [begin, end) to its sums with U vectors of query documents.
// The tables' values for the first of these are at `offset` of the slab's first word.  K nearest
// entries take part, or, with K = 0, as many as the tables hold.
template <int K, int U>
HWY_INLINE void pour_document(const NearestTables& tables, const CsrCollection& resident, int begin,
                              int end, Index offset, float* sums) {
  const Floats d;
  const int steps = K > 0 ? K - 1 : static_cast<int>(tables.capacity.size());
  Vector sum[U];
#pragma GCC unroll 8
  for (int u = 0; u < U; ++u) sum[u] = hn::LoadU(d, sums + lanes * u);
  for (int p = begin; p < end; ++p) {
    const Vector weight = hn::Set(d, resident.weight[p]);
    const Index at = offset + elements(resident.ind[p] - tables.first_word, tables.width);
#pragma GCC unroll 8
    for (int u = 0; u < U; ++u) {
      Vector rest = weight;
      for (int t = 0; t < steps; ++t) {
        const float* capacity = tables.capacity[t];
        const float* distance = tables.distance[t];
        // Of these operands, the rest is taken wherever the capacity is not smaller.
        const Vector moved = hn::Min(hn::LoadU(d, capacity + at + lanes * u), rest);
        sum[u] = hn::MulAdd(moved, hn::LoadU(d, distance + at + lanes * u), sum[u]);
        rest = hn::Sub(rest, moved);
      }
      const float* farthest = tables.distance[steps];
      sum[u] = hn::MulAdd(rest, hn::LoadU(d, farthest + at + lanes * u), sum[u]);
    }
  }
#pragma GCC unroll 8
  for (int u = 0; u < U; ++u) hn::StoreU(sum[u], d, sums + lanes * u);
}

// The same for a whole chunk of query documents, `width` sums.
template <int K>
void pour_chunk(const NearestTables& tables, const CsrCollection& resident, int begin, int end,
                Index offset, float* sums) {
  constexpr int U = 4;  // as many vectors of sums as there are registers to spare
  Index at = 0;
  for (; at + U * lanes <= tables.width; at += U * lanes) {
    pour_document<K, U>(tables, resident, begin, end, offset + at, sums + at);
  }
  for (; at < tables.width; at += lanes) {
    pour_document<K, 1>(tables, resident, begin, end, offset + at, sums + at);
  }
}

// The sums of a tile: of its r-th resident document and the j-th query document of a chunk at
// sums[r][j].  In Z, this value is at j*num_docs + r.
constexpr int widest = 4 * line_floats;
using Sums = float[pour_tile_docs][widest];

HWY_INLINE void clear_sums(int width, int docs, Sums& sums) {
  for (int r = 0; r < docs; ++r) std::fill(sums[r], sums[r] + width, 0.0f);
}

// A sum goes on where the slab before has left it.  It is one sum over the entries in their order,
// wherever the slabs end, so that distances do not depend on how the work was cut.
HWY_INLINE void load_sums(const float* Z, int chunk_docs, int docs, Index num_docs, Sums& sums) {
  for (int j = 0; j < chunk_docs; ++j) {
    const float* z = Z + j * num_docs;
    for (int r = 0; r < docs; ++r) sums[r][j] = z[r];
  }
}

// Stores the sums with query documents [first, last) one by one.
HWY_INLINE void store_rest(const Sums& sums, int first, int last, int docs, Index num_docs,
                           float* Z) {
  for (int j = first; j < last; ++j) {
    float* z = Z + j * num_docs;
    for (int r = 0; r < docs; ++r) z[r] = sums[r][j];
  }
}

#if HWY_TARGET == HWY_SCALAR
HWY_INLINE void store_sums(const Sums& sums, int chunk_docs, int docs, Index num_docs, float* Z) {
  store_rest(sums, 0, chunk_docs, docs, num_docs, Z);
}
#else
// Transposes the sums into Z, in registers, four by four: stores of single floats would fill the
// store buffer before the lines of Z have been fetched.
HWY_INLINE void store_sums(const Sums& sums, int chunk_docs, int docs, Index num_docs, float* Z) {
  constexpr int side = 4;
  const hn::FixedTag<float, side> d;
  const int in_squares = docs % side == 0 ? chunk_docs / side * side : 0;
  int j = 0;
  for (; j < in_squares; j += side) {
    float* z = Z + j * num_docs;
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

// Fetches lines of Z before a tile's sums go there: the lines of query document r while resident
// document r is summed.
static_assert(pour_tile_docs >= widest);
HWY_INLINE void fetch_lines(const float* z) {
  for (int i = 0; i < pour_tile_docs; i += line_floats) hwy::Prefetch(z + i);
}

template <int K>
void pour_share(const PourShare& share) {
  const NearestTables& tables = share.tables;
  const CsrCollection& resident = share.resident;
  const Index num_docs = resident.num_docs;
  alignas(line_bytes) Sums sums;
  for (int chunk = 0; chunk < chunks_of(tables.docs, tables.width); ++chunk) {
    const int first_doc = chunk * tables.width;
    const int chunk_docs = std::min(tables.width, tables.docs - first_doc);
    const Index offset = elements(first_doc, tables.words);
    for (int i = share.first; i < share.last; i += pour_tile_docs) {
      const int docs = std::min(pour_tile_docs, share.last - i);
      float* Z_tile = share.Z + first_doc * num_docs + i;
      clear_sums(tables.width, docs, sums);
      if (!share.overwrite) load_sums(Z_tile, chunk_docs, docs, num_docs, sums);
      for (int r = 0; r < docs; ++r) {
        if (r < chunk_docs) fetch_lines(Z_tile + r * num_docs);
        pour_chunk<K>(tables, resident, share.ranges.begin[i + r], share.ranges.end[i + r], offset,
                      sums[r]);
      }
      store_sums(sums, chunk_docs, docs, num_docs, Z_tile);
    }
  }
}

void PourDocuments(const PourShare& share) {
  switch (share.tables.distance.size()) {
    case 1:
      return pour_share<1>(share);
    case 2:
      return pour_share<2>(share);
    default:
      return pour_share<0>(share);
  }
}

}  // namespace talvik::internal::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace talvik::internal {
namespace {

// Moves the ranges on from the entries of the slab before to those of this one.
void move_on(const NearestTables& tables, const CsrCollection& resident, int first, int last,
             EntryRanges& ranges) {
  const int words_end = tables.first_word + tables.words;
  for (int i = first; i < last; ++i) {
    const int begin = tables.first_word == 0 ? resident.start[i] : ranges.end[i];
    const int* document_end = resident.ind + resident.start[i + 1];
    const int* end = std::lower_bound(resident.ind + begin, document_end, words_end);
    ranges.begin[i] = begin;
    ranges.end[i] = static_cast<int>(end - resident.ind);
  }
}

}  // namespace

HWY_EXPORT(PourDocuments);

void pour(const NearestTables& tables, const CsrCollection& resident, int threads,
          EntryRanges& ranges, float* Z) {
  // Every thread writes whole lines.
  const int lines = static_cast<int>(round_up(resident.num_docs, line_floats) / line_floats);
  const auto document_at = [&](int line) {
    return static_cast<int>(std::min<Index>(resident.num_docs, Index{line} * line_floats));
  };
  for_each_share(threads, lines, [&](int first_line, int last_line, int) {
    const int first = document_at(first_line), last = document_at(last_line);
    move_on(tables, resident, first, last, ranges);
    const PourShare share{.tables = tables,
                          .resident = resident,
                          .ranges = ranges,
                          .first = first,
                          .last = last,
                          .Z = Z,
                          .overwrite = tables.first_word == 0};
    HWY_DYNAMIC_DISPATCH(PourDocuments)(share);
  });
}

}  // namespace talvik::internal
#endif  // HWY_ONCE
