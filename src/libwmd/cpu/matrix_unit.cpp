// Dense products on the processor's matrix unit (AMX).  The unit multiplies numbers of 8
// significant bits (bfloat16) and adds in single precision, sixteen times as many a cycle as the
// vector units.  A float is the sum of three such numbers, x = x0 + x1 + x2, and
//   x*y = x0*y0 + x0*y1 + x1*y0 + x1*y1 + x0*y2 + x2*y0 + at most 2^-23 |x*y|
// so that six products on the unit give the result of one in single precision, up to its rounding.
// (Henry, Tang, Heinecke: Leveraging the bfloat16 artificial intelligence datatype for
// higher-precision computations, 2019.)
#include "libwmd/cpu/matrix_unit.hpp"

#if defined(__x86_64__) && defined(__linux__)
#include <cpuid.h>
#include <hwy/targets.h>
#include <immintrin.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>  // ssize

#include "internal/index.hpp"
#include "libwmd/cpu/cache_line.hpp"

// The compiler's own intrinsics start from a register that is not set.
#ifndef __clang__
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace talvik::internal {
namespace {

// For the functions that use the unit's instructions; they run only where amx_usable() holds.
#define TALVIK_AMX __attribute__((target("avx512f,avx512bw,avx512bf16,amx-tile,amx-bf16")))
#define TALVIK_AMX_INLINE TALVIK_AMX inline __attribute__((always_inline))

constexpr int tile_rows = 16;   // of 64 bytes
constexpr int tile_depth = 32;  // bfloat16 numbers in a row of a tile
constexpr Index tile_numbers = elements(tile_rows, tile_depth);  // 1 KiB
constexpr int parts = 3;                                         // of a float
constexpr Index slice_numbers = parts * tile_numbers;  // of 16 rows and tile_depth components
constexpr int square_side = 2 * tile_rows;  // two by two tiles of scores are summed at a time
constexpr Index line_numbers = line_bytes / sizeof(std::uint16_t);

// Slices per round: the packed words of a panel and the rows of a square stay in the second-level
// cache.
constexpr int slices_most = 12;

constexpr int slices_for(int components) { return (components + tile_depth - 1) / tile_depth; }
constexpr int squares_for(int rows) { return (rows + square_side - 1) / square_side; }

// Packed operands.  Band g holds rows [16g, 16g+16), slice c of it components [32c, 32c+32), part p
// of these is tile (g*slices + c)*parts + p.  For 40 rows of 70 components (3 slices, 2 squares):
//
//                     components 0..31    32..63      64..69
//   rows  0..15       tiles  0  1  2     3  4  5     6  7  8
//   rows 16..31              9 10 11    12 13 14    15 16 17
//   rows 32..39             18 19 20    21 22 23    24 25 26
//   no rows                 27 28 29    30 31 32    33 34 35      (zeros, as all padding)
//
// In a tile of rows, row r has its components side by side; in a tile of words, row i has
// components 2i and 2i+1 of all 16 words, the order of the unit's second operand.
Index packed_numbers(int rows, int slices) {
  return elements(squares_for(rows), 2 * slice_numbers * slices);
}

TALVIK_AMX_INLINE __m512 widened(__m256i numbers) {
  return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_cvtepu16_epi32(numbers), 16));
}

// Splits 32 floats into three bf16 parts, one tile apart.  Floats beyond `count` are not read and
// count as zero.
TALVIK_AMX_INLINE void split(const float* numbers, int count, std::uint16_t* to) {
  const auto mask = [](int n) { return static_cast<__mmask16>((1u << std::clamp(n, 0, 16)) - 1); };
  __m512 low = _mm512_maskz_loadu_ps(mask(count), numbers);
  __m512 high = _mm512_maskz_loadu_ps(mask(count - 16), numbers + 16);
  for (int p = 0; p < parts; ++p) {
    const __m512i part = __builtin_bit_cast(__m512i, _mm512_cvtne2ps_pbh(high, low));
    _mm512_store_si512(to + p * tile_numbers, part);
    low = _mm512_sub_ps(low, widened(_mm512_castsi512_si256(part)));
    high = _mm512_sub_ps(high, widened(_mm512_extracti64x4_epi64(part, 1)));
  }
}

// Components [first, first + depth) of rows of m.
struct Round {
  int m, first, depth;
};

// Packs the rows of a square, at most square_side of them.
TALVIK_AMX void pack_rows(const float* rows, int num_rows, const Round& round,
                          std::uint16_t* packed) {
  const int slices = slices_for(round.depth);
  for (int r = 0; r < square_side; ++r) {
    std::uint16_t* const band = packed + elements(r / tile_rows, slices * slice_numbers);
    std::uint16_t* const row = band + elements(r % tile_rows, tile_depth);
    for (int c = 0; c < slices; ++c) {
      const int component = c * tile_depth;
      const int count = r < num_rows ? round.depth - component : 0;
      const float* numbers =
          count > 0 ? rows + elements(r, round.m) + round.first + component : rows;
      split(numbers, count, row + c * slice_numbers);
    }
  }
}

// Pairs of components of 16 rows become rows of 16 pairs.
void transpose_pairs(const std::uint16_t* from, std::uint16_t* to) {
  for (int pair = 0; pair < tile_rows; ++pair) {
    for (int r = 0; r < tile_rows; ++r) {
      std::copy_n(from + elements(r, tile_depth) + Index{2} * pair, 2,
                  to + elements(pair, tile_depth) + Index{2} * r);
    }
  }
}

TALVIK_AMX void pack_words(const float* words, int num_words, const Round& round,
                           std::uint16_t* packed) {
  const Index square_numbers = 2 * slice_numbers * slices_for(round.depth);
  alignas(line_bytes) std::uint16_t as_rows[2 * slice_numbers * slices_most];
  for (int w = 0; w < num_words; w += square_side) {
    pack_rows(words + elements(w, round.m), std::min(square_side, num_words - w), round, as_rows);
    for (Index tile = 0; tile < square_numbers; tile += tile_numbers) {
      transpose_pairs(as_rows + tile, packed + tile);
    }
    packed += square_numbers;
  }
}

// Two bands of packed rows or words, one after the other.
struct Bands {
  const std::uint16_t* first;
  Index numbers;  // of a band
};

// The unit has eight registers: 0 to 3 hold the sums of rows x words, 4 and 5 rows, 6 and 7 words.
TALVIK_AMX_INLINE void load_rows(const Bands& rows, Index at) {
  _tile_loadd(4, rows.first + at, line_bytes);
  _tile_loadd(5, rows.first + rows.numbers + at, line_bytes);
}
TALVIK_AMX_INLINE void load_words(const Bands& words, Index at) {
  _tile_loadd(6, words.first + at, line_bytes);
  _tile_loadd(7, words.first + words.numbers + at, line_bytes);
}
// Compiler barrier: tile intrinsics hide their memory operands.  Without it a compiler may move
// stores past a tile load, or use an old value of memory that the unit has written.
inline void settle_memory() { asm volatile("" ::: "memory"); }

TALVIK_AMX_INLINE void add_products() {
  _tile_dpbf16ps(0, 4, 6);
  _tile_dpbf16ps(1, 4, 7);
  _tile_dpbf16ps(2, 5, 6);
  _tile_dpbf16ps(3, 5, 7);
}
TALVIK_AMX_INLINE void prefetch_tile(const std::uint16_t* tile) {
  for (Index i = 0; i < tile_numbers; i += tile_depth) {
    _mm_prefetch(reinterpret_cast<const char*>(tile + i), _MM_HINT_T0);
  }
}

// The rows of the next square come from main memory.  They are fetched into the second-level cache
// a few lines per slice, while the rows before them are multiplied.
struct RowsAhead {
  const char* line;
  int lines_per_slice;
};

RowsAhead rows_ahead(const float* rows, int m, int squares, int slices) {
  const Index lines = elements(square_side, m) * Index{sizeof(float)} / Index{line_bytes};
  const Index steps = elements(squares, slices);
  return {reinterpret_cast<const char*>(rows), static_cast<int>((lines + steps - 1) / steps)};
}

TALVIK_AMX_INLINE void prefetch(RowsAhead& ahead) {
  for (int i = 0; i < ahead.lines_per_slice; ++i, ahead.line += line_bytes) {
    _mm_prefetch(ahead.line, _MM_HINT_T1);
  }
}

// The scores of 32 rows and 32 words.
struct Square {
  Bands rows, words;
  int slices;
  bool go_on;  // adds to the scores; else they are written anew
  float* scores;
  Index stride;
};

TALVIK_AMX_INLINE void multiply_square(const Square& square, RowsAhead& ahead) {
  settle_memory();
  const auto& [rows, words, slices, go_on, scores, stride] = square;
  float* lower = scores + tile_rows * stride;
  const Index stride_bytes = stride * Index{sizeof(float)};
  if (go_on) {
    _tile_loadd(0, scores, stride_bytes);
    _tile_loadd(1, scores + tile_rows, stride_bytes);
    _tile_loadd(2, lower, stride_bytes);
    _tile_loadd(3, lower + tile_rows, stride_bytes);
  } else {
    _tile_zero(0);
    _tile_zero(1);
    _tile_zero(2);
    _tile_zero(3);
  }
  // From product to product only one side changes.
  for (int slice = 0; slice < slices; ++slice) {
    const Index part0 = slice * slice_numbers;
    const Index part1 = part0 + tile_numbers, part2 = part1 + tile_numbers;
    prefetch(ahead);
    load_rows(rows, part0);
    for (const Index words_part : {part2, part1, part0}) {
      load_words(words, words_part);
      add_products();
      // The words of the next slice come from the second-level cache.
      prefetch_tile(words.first + words_part + slice_numbers);
      prefetch_tile(words.first + words.numbers + words_part + slice_numbers);
    }
    load_rows(rows, part1);
    add_products();
    load_words(words, part1);
    add_products();
    load_rows(rows, part2);
    load_words(words, part0);
    add_products();
  }
  _tile_stored(0, scores, stride_bytes);
  _tile_stored(1, scores + tile_rows, stride_bytes);
  _tile_stored(2, lower, stride_bytes);
  _tile_stored(3, lower + tile_rows, stride_bytes);
  settle_memory();
}

// Where fewer rows or words are left than a square has: computes a whole square beside the scores.
TALVIK_AMX void multiply_rest(const Square& square, int num_rows, int num_words, RowsAhead& ahead) {
  alignas(line_bytes) float whole[square_side * square_side] = {};
  Square padded = square;
  padded.scores = whole;
  padded.stride = square_side;
  for (int r = 0; r < num_rows && square.go_on; ++r) {
    std::copy_n(square.scores + r * square.stride, num_words, whole + elements(r, square_side));
  }
  multiply_square(padded, ahead);
  for (int r = 0; r < num_rows; ++r) {
    std::copy_n(whole + elements(r, square_side), num_words, square.scores + r * square.stride);
  }
}

// All registers hold 16 rows of 64 bytes.
TALVIK_AMX void configure_tiles() {
  struct alignas(line_bytes) {
    std::uint8_t palette = 1, start_row = 0, reserved[14] = {};
    std::uint16_t row_bytes[16] = {};
    std::uint8_t rows[16] = {};
  } config;
  for (int tile = 0; tile < 8; ++tile) {
    config.row_bytes[tile] = line_bytes;
    config.rows[tile] = tile_rows;
  }
  asm volatile("" : : "r"(&config) : "memory");  // the whole of config, as settle_memory
  _tile_loadconfig(&config);
}

bool processor_has_unit() {
  constexpr unsigned features_leaf = 7, amx_bf16 = 1u << 22, amx_tile = 1u << 24;
  constexpr unsigned bf16_subleaf = 1, avx512_bf16 = 1u << 5;
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid_count(features_leaf, 0, &eax, &ebx, &ecx, &edx)) return false;
  if (!(edx & amx_bf16) || !(edx & amx_tile)) return false;
  if (!__get_cpuid_count(features_leaf, bf16_subleaf, &eax, &ebx, &ecx, &edx)) return false;
  return (eax & avx512_bf16) != 0;
}

// The unit's registers are large, so the operating system grants them on request only.
bool system_allows_unit() {
  constexpr long request_permission = 0x1023, tile_data = 18;  // ARCH_REQ_XCOMP_PERM, XTILEDATA
  return syscall(SYS_arch_prctl, request_permission, tile_data) == 0;
}

// Multiplies the components of one round.
TALVIK_AMX void multiply_round(const DenseOperands& operands, const Round& round,
                               std::uint16_t* packed_words, std::uint16_t* packed_rows) {
  const auto& [words, num_words, rows, num_rows, m, scores, stride] = operands;
  const int slices = slices_for(round.depth);
  const Index band = slices * slice_numbers;
  pack_words(words, num_words, round, packed_words);
  for (int r = 0; r < num_rows; r += square_side) {
    const int rows_left = std::min(square_side, num_rows - r);
    pack_rows(rows + elements(r, m), rows_left, round, packed_rows);
    RowsAhead ahead{nullptr, 0};
    if (num_rows - r > square_side) {
      ahead = rows_ahead(rows + elements(r + square_side, m), m, squares_for(num_words), slices);
    }
    for (int w = 0; w < num_words; w += square_side) {
      const int words_left = std::min(square_side, num_words - w);
      const Square square{.rows = {packed_rows, band},
                          .words = {packed_words + elements(w / tile_rows, band), band},
                          .slices = slices,
                          .go_on = round.first > 0,
                          .scores = scores + r * stride + w,
                          .stride = stride};
      if (rows_left == square_side && words_left == square_side) {
        multiply_square(square, ahead);
      } else {
        multiply_rest(square, rows_left, words_left, ahead);
      }
    }
  }
}

}  // namespace

bool amx_usable() {
  static const bool here = processor_has_unit() && system_allows_unit();
  return here && (hwy::SupportedTargets() & HWY_AVX3_DL) != 0;
}

TALVIK_AMX void amx_product(const DenseOperands& operands, AmxScratch& scratch) {
  constexpr int depth_most = slices_most * tile_depth;
  const int slices_held = slices_for(std::min(operands.m, depth_most));
  const Index words_numbers = packed_numbers(operands.num_words, slices_held);
  const Index numbers = words_numbers + packed_numbers(square_side, slices_held) + line_numbers;
  if (std::ssize(scratch) < numbers) scratch.resize(numbers);
  std::uint16_t* const packed_words = line_start(scratch.data());
  std::uint16_t* const packed_rows = packed_words + words_numbers;
  configure_tiles();
  for (int first = 0; first < operands.m; first += depth_most) {
    const int depth = std::min(depth_most, operands.m - first);
    multiply_round(operands, {.m = operands.m, .first = first, .depth = depth}, packed_words,
                   packed_rows);
  }
  _tile_release();
}

#undef TALVIK_AMX
#undef TALVIK_AMX_INLINE

}  // namespace talvik::internal

#ifndef __clang__
#pragma GCC diagnostic pop
#endif

#else  // processors without such a unit

namespace talvik::internal {

bool amx_usable() { return false; }
void amx_product(const DenseOperands&, AmxScratch&) {}

}  // namespace talvik::internal

#endif
