// Dense products on the processor's matrix unit (AMX).  The unit multiplies numbers of 8
// significant bits (bfloat16) and adds in single precision, sixteen times as many a cycle as the
// vector units. A float is the sum of three such numbers, x = x0 + x1 + x2, and
//   x*y = x0*y0 + x0*y1 + x1*y0 + x1*y1 + x0*y2 + x2*y0 + at most 2^-23 |x*y|
// so that six products on the unit give what one in single precision gives, up to its rounding.
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

#include "internal/index.hpp"
#include "libwmd/cpu/cache_line.hpp"

// The compiler's own intrinsics start from a register that is not set.
#ifndef __clang__
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace talvik::internal {
namespace {

// Only functions that carry this may use the unit's instructions; they run where amx_usable()
// holds.
#define TALVIK_AMX __attribute__((target("avx512f,avx512bw,avx512bf16,amx-tile,amx-bf16")))
#define TALVIK_AMX_INLINE TALVIK_AMX inline __attribute__((always_inline))

constexpr int tile_rows = 16;                         // of 64 bytes
constexpr int tile_depth = 32;                        // bfloat16 numbers in a row of a tile
constexpr int tile_numbers = tile_rows * tile_depth;  // 1 KiB
constexpr int parts = 3;                              // of a float
constexpr int group_chunk = parts * tile_numbers;     // 16 rows, tile_depth components
constexpr int block_rows = 2 * tile_rows;             // two tiles of rows by two of words are
                                                      // summed at a time

// Components per round: the packed words of a panel and a block of rows stay in the second-level
// cache.
constexpr int chunks_most = 12;

int chunks_for(int components) { return (components + tile_depth - 1) / tile_depth; }
int blocks_for(int rows) { return (rows + block_rows - 1) / block_rows; }

// Packed operands.  Part p of rows [16g, 16g+16), components [32c, 32c+32), is a tile at
// ((g*chunks + c)*parts + p) * tile_numbers.  In a tile of rows, row r has its components side by
// side; in a tile of words, row i has components 2i and 2i+1 of all 16 words, as the unit wants it.
std::size_t packed_numbers(int rows, int chunks) {
  return elements(2 * blocks_for(rows), chunks * group_chunk);
}

TALVIK_AMX_INLINE __m512 widened(__m256i numbers) {
  return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_cvtepu16_epi32(numbers), 16));
}

// The parts of up to 32 numbers, each where the last one lies plus a tile.
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

// Rows [0, num_rows), at most a block, components [first, first + depth) of m.
TALVIK_AMX void pack_rows(const float* rows, int num_rows, int m, int first, int depth,
                          std::uint16_t* packed) {
  const int chunks = chunks_for(depth);
  for (int r = 0; r < block_rows; ++r) {
    std::uint16_t* group = packed + r / tile_rows * chunks * group_chunk;
    for (int c = 0; c < chunks; ++c) {
      const int count = r < num_rows ? depth - c * tile_depth : 0;
      const float* numbers = count > 0 ? rows + elements(r, m) + first + c * tile_depth : rows;
      split(numbers, count, group + c * group_chunk + r % tile_rows * tile_depth);
    }
  }
}

// Pairs of components of 16 rows become rows of 16 pairs.
void transpose_pairs(const std::uint16_t* from, std::uint16_t* to) {
  for (int pair = 0; pair < tile_rows; ++pair) {
    for (int r = 0; r < tile_rows; ++r) {
      std::copy_n(from + r * tile_depth + 2 * pair, 2, to + pair * tile_depth + 2 * r);
    }
  }
}

TALVIK_AMX void pack_words(const float* words, int num_words, int m, int first, int depth,
                           std::uint16_t* packed) {
  const int chunks = chunks_for(depth);
  const int block_numbers = 2 * chunks * group_chunk;
  alignas(line_bytes) std::uint16_t as_rows[2 * chunks_most * group_chunk];
  for (int w = 0; w < num_words; w += block_rows) {
    pack_rows(words + elements(w, m), std::min(block_rows, num_words - w), m, first, depth,
              as_rows);
    for (int tile = 0; tile < block_numbers; tile += tile_numbers) {
      transpose_pairs(as_rows + tile, packed + tile);
    }
    packed += block_numbers;
  }
}

// Two groups of packed rows or words, one after the other.
struct Groups {
  const std::uint16_t* first;
  std::size_t numbers;  // of a group
};

// The unit's eight registers: 0 to 3 hold the sums of rows x words, 4 and 5 rows, 6 and 7 words.
TALVIK_AMX_INLINE void load_rows(const Groups& rows, int at) {
  _tile_loadd(4, rows.first + at, line_bytes);
  _tile_loadd(5, rows.first + rows.numbers + at, line_bytes);
}
TALVIK_AMX_INLINE void load_words(const Groups& words, int at) {
  _tile_loadd(6, words.first + at, line_bytes);
  _tile_loadd(7, words.first + words.numbers + at, line_bytes);
}
// What the unit reads and writes is no operand of its instructions to some compilers, which might
// move stores past a load of it, or take what it wrote for what was there before.
inline void settle_memory() { asm volatile("" ::: "memory"); }

TALVIK_AMX_INLINE void add_products() {
  _tile_dpbf16ps(0, 4, 6);
  _tile_dpbf16ps(1, 4, 7);
  _tile_dpbf16ps(2, 5, 6);
  _tile_dpbf16ps(3, 5, 7);
}
TALVIK_AMX_INLINE void prefetch_tile(const std::uint16_t* tile) {
  for (int i = 0; i < tile_numbers; i += tile_depth) {
    _mm_prefetch(reinterpret_cast<const char*>(tile + i), _MM_HINT_T0);
  }
}

// The rows that are packed next, fetched into the second-level cache a few lines per chunk while
// those before them are multiplied: they come from main memory.
struct RowsAhead {
  const char* line;
  int lines_per_chunk;
};

RowsAhead rows_ahead(const float* rows, int num_rows, int m, int blocks, int chunks) {
  if (num_rows <= 0) return {nullptr, 0};
  const std::size_t lines = elements(block_rows, m) * sizeof(float) / line_bytes;
  const std::size_t steps = elements(blocks, chunks);
  return {reinterpret_cast<const char*>(rows), static_cast<int>((lines + steps - 1) / steps)};
}

TALVIK_AMX_INLINE void prefetch(RowsAhead& ahead) {
  for (int i = 0; i < ahead.lines_per_chunk; ++i, ahead.line += line_bytes) {
    _mm_prefetch(ahead.line, _MM_HINT_T1);
  }
}

// A block of 32 rows by 32 words into, or on top of, scores.
TALVIK_AMX_INLINE void multiply_block(const Groups& rows, const Groups& words, int chunks,
                                      bool go_on, RowsAhead& ahead, float* scores,
                                      std::size_t stride) {
  settle_memory();
  float* lower = scores + tile_rows * stride;
  const std::size_t stride_bytes = stride * sizeof(float);
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
  // In an order in which just one side changes from product to product.
  for (int chunk = 0; chunk < chunks; ++chunk) {
    const int part0 = chunk * group_chunk, part1 = part0 + tile_numbers,
              part2 = part1 + tile_numbers;
    prefetch(ahead);
    load_rows(rows, part0);
    for (const int words_part : {part2, part1, part0}) {
      load_words(words, words_part);
      add_products();
      // The words of the next chunk come from the second-level cache.
      prefetch_tile(words.first + words_part + group_chunk);
      prefetch_tile(words.first + words.numbers + words_part + group_chunk);
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

// The same where fewer rows or words than a block are left: by way of a whole block.
TALVIK_AMX void multiply_rest(const Groups& rows, const Groups& words, int chunks, bool go_on,
                              RowsAhead& ahead, int num_rows, int num_words, float* scores,
                              std::size_t stride) {
  alignas(line_bytes) float block[block_rows * block_rows] = {};
  for (int r = 0; r < num_rows && go_on; ++r) {
    std::copy_n(scores + static_cast<std::size_t>(r) * stride, num_words, block + r * block_rows);
  }
  multiply_block(rows, words, chunks, go_on, ahead, block, block_rows);
  for (int r = 0; r < num_rows; ++r) {
    std::copy_n(block + r * block_rows, num_words, scores + static_cast<std::size_t>(r) * stride);
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
  asm volatile("" : : "r"(&config) : "memory");  // all of it, as settle_memory
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

// The unit's registers are large, so the operating system hands them out to who asks for them.
bool system_allows_unit() {
  constexpr long request_permission = 0x1023, tile_data = 18;  // ARCH_REQ_XCOMP_PERM, XTILEDATA
  return syscall(SYS_arch_prctl, request_permission, tile_data) == 0;
}

}  // namespace

bool amx_usable() {
  static const bool here = processor_has_unit() && system_allows_unit();
  return here && (hwy::SupportedTargets() & HWY_AVX3_DL) != 0;
}

TALVIK_AMX void amx_product(const float* words, int num_words, const float* rows, int num_rows,
                            int m, float* scores, std::size_t stride, AmxScratch& scratch) {
  constexpr int depth_most = chunks_most * tile_depth;
  const int chunks_held = chunks_for(std::min(m, depth_most));
  const std::size_t words_numbers = packed_numbers(num_words, chunks_held);
  scratch.resize(std::max(scratch.size(), words_numbers + packed_numbers(block_rows, chunks_held) +
                                              line_bytes / sizeof(std::uint16_t)));  // line_start
  std::uint16_t* const packed_words = line_start(scratch.data());
  std::uint16_t* const packed_rows = packed_words + words_numbers;
  const int blocks = blocks_for(num_words);
  configure_tiles();
  for (int first = 0; first < m; first += depth_most) {
    const int depth = std::min(depth_most, m - first);
    const int chunks = chunks_for(depth);
    const std::size_t group = elements(chunks, group_chunk);
    const bool go_on = first > 0;
    pack_words(words, num_words, m, first, depth, packed_words);
    for (int r = 0; r < num_rows; r += block_rows) {
      const int rows_left = std::min(block_rows, num_rows - r);
      pack_rows(rows + elements(r, m), rows_left, m, first, depth, packed_rows);
      RowsAhead ahead = rows_ahead(rows + elements(r + block_rows, m), num_rows - r - block_rows, m,
                                   blocks, chunks);
      for (int w = 0; w < num_words; w += block_rows) {
        const int words_left = std::min(block_rows, num_words - w);
        const Groups block_of_rows{packed_rows, group};
        const Groups block_of_words{packed_words + elements(w / tile_rows, chunks * group_chunk),
                                    group};
        float* block = scores + static_cast<std::size_t>(r) * stride + w;
        if (rows_left == block_rows && words_left == block_rows) {
          multiply_block(block_of_rows, block_of_words, chunks, go_on, ahead, block, stride);
        } else {
          multiply_rest(block_of_rows, block_of_words, chunks, go_on, ahead, rows_left, words_left,
                        block, stride);
        }
      }
    }
  }
  _tile_release();
}

#undef TALVIK_AMX
#undef TALVIK_AMX_INLINE

}  // namespace talvik::internal

#ifndef __clang__
#pragma GCC diagnostic pop
#endif

#else  // no such unit

namespace talvik::internal {

bool amx_usable() { return false; }
void amx_product(const float*, int, const float*, int, int, float*, std::size_t, AmxScratch&) {}

}  // namespace talvik::internal

#endif
