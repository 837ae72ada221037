// What a distance block on a GPU has to move and to multiply, from its sizes alone.
#ifndef TALVIK_BENCH_GPU_PREDICTIONS_HPP
#define TALVIK_BENCH_GPU_PREDICTIONS_HPP

#include <string>
#include <vector>

#include "libwmd/gpu/engine.hpp"
#include "worlds.hpp"

namespace talvik::bench {

/// What a device does in a second.
struct DeviceRates {
  double device_bytes;      ///< read or written in its memory
  double multiply_adds;     ///< of a dense product
  double upload, download;  ///< bytes between pageable host memory and the device
};

/// The least that a step asks of the device.
struct Work {
  internal::GpuStep step;
  std::string name;
  double device_bytes = 0, multiply_adds = 0, upload = 0, download = 0;
};

/// Seconds, the larger of memory's and arithmetic's, and the copies'.
double floor_of(const Work& work, const DeviceRates& rates);

/// The steps of the world's block, in their order.
std::vector<Work> predict_block(const World& world, int steps);

/// Distinct rows that the block multiplies, counted again in every section.
double rows_of_block(const World& world, int steps);

}  // namespace talvik::bench

#endif
