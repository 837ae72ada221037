// What the GPU engine prints when a call of the device or its libraries fails, and that it ends the
// process with status 1.  The emulated device fails on demand.
#include <gtest/gtest.h>
#include <unistd.h>  // dup2

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "libwmd/gpu/engine.hpp"
#include "libwmd/gpu/platform/hostdev_control.hpp"
#include "support/device.hpp"
#include "support/engine.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

// What runs, and from where on its calls are counted.
struct Scene {
  bool from_loading = false;  // else from the computation of the block on
  bool ground = false;
  int steps = 0;
  int entries = 3;  // of each document
};

constexpr Scene load{.from_loading = true}, load_indices{.from_loading = true, .ground = true};
constexpr Scene plain{}, pour{.steps = 2}, pour_one{.steps = 2, .entries = 1};

// Consecutive calls of a function, one for each name.  When one of them fails, the text and its
// name are printed.
struct Failures {
  Scene scene;
  std::string call;
  int status;
  int skip;  // calls before the first of them
  std::string text;
  std::vector<std::string> names = {""};
};

const std::string no_memory = "Failed to allocate GPU memory for ", no_copy = "Failed to copy ";
const std::string not_freed = "Failed to deallocate ", ground_dev = "D_ground_dev";
const std::string sparse = "Sparse matrix-matrix multiplication failed in ";
const std::string group = "Sparse-matrix dense-matrix multiplication failed: ";

const std::vector<std::string> loaded{"ind", "weight", "start", "W", "RW", "X2", "weight2", "Rn2"};

const std::vector<Failures> every_failure{
    {load, "cudaMalloc", 2, 0, no_memory, loaded},
    {load, "cudaMemcpy", 1, 0, no_copy, loaded},
    // The ground matrix is allocated to be computed, and again to be uploaded.
    {load_indices, "cudaMalloc", 2, 5, no_memory, {ground_dev, ground_dev, "ind2", "weight2"}},
    {load_indices, "cudaMemcpy", 1, 5, no_copy, {"D_ground"}},
    {load_indices, "cudaMemcpy", 1, 7, no_copy, {"ind2", "weight2"}},
    {load_indices, "cublasSgemm_v2", 14, 0, "Dense matrix-matrix multiplication failed: 14"},
    {load_indices, "cudaFree", 1, 0, not_freed, {ground_dev}},
    {plain, "cusparseCreate", 1, 0, "CUSPARSE Library initialization failed"},
    {plain, "cusparseCreateMatDescr", 2, 0, "Matrix descriptor initialization failed"},
    {plain, "cudaMalloc", 2, 0, no_memory, {"dp_dev", "Y_dev", "Y_dev_t", "weights_min_dev_t"}},
    {pour, "cudaMalloc", 2, 4, no_memory, {"weight_updated", "weight_delta"}},
    {plain, "cudaMemcpy", 1, 0, no_copy, {"start2", "row_of_entry", "equal_rows"}},
    {plain, "cudaMemcpy2D", 1, 0, no_copy + "Z"},
    {plain, "cublasSgemm_v2", 13, 0, "Dense matrix-matrix multiplication failed: 13"},
    {plain, "cusparseSpMM", 7, 0, group + "7\nInternal Error"},
    {plain, "cusparseSpMM", 6, 0, group + "6\nExecution Failed"},
    {plain, "cusparseSpMM", 3, 0, group + "3"},
    // Nothing of a product is left behind where a part of it fails.
    {plain, "cusparseCreateCsr", 3, 0, group + "3"},
    {plain, "cusparseCreateDnMat", 3, 0, group, {"3", "3"}},
    {plain, "cusparseSpMM_bufferSize", 7, 0, group + "7\nInternal Error"},
    {plain, "cudaMalloc", 2, 7, group + "2"},  // the workspace
    // 2 steps of a document of 3 entries: one step.
    {pour, "cusparseSpMM", 7, 0, sparse, {"iteration 0 7", "final iteration 7"}},
    {pour_one, "cusparseSpMM", 6, 0, sparse, {"final iteration 0 6"}},
    {plain, "cudaFree", 1, 0, not_freed, {"Y_dev", "Y_dev_t", "weights_min_dev_t", "dp_dev"}},
    {pour, "cudaFree", 1, 4, not_freed, {"weight_updated", "weight_delta"}},
    {plain, "cusparseDestroyMatDescr", 1, 0, "Matrix descriptor destruction failed"},
    {plain, "cusparseDestroy", 1, 0, "CUSPARSE Library release of resources failed"},
};

// Gets through only if nothing fails.
void play(const Scene& scene, const hostdev::FaultPlan& fault) {
  dup2(2, 1);  // death tests match standard error
  // Of so many words none comes twice, so that the engine allocates what every run does.
  WorldShape shape{.voc_size = 1000, .num_resident = 2, .num_queries = 2};
  shape.min_words = shape.max_words = scene.entries;
  const World world = random_world(shape);
  if (scene.from_loading) hostdev::plan_fault(fault);
  distance_block(world, gpu_engine, scene.ground, [&](float* Z) {
    if (!scene.from_loading) hostdev::plan_fault(fault);
    ed_min_vocab_multi(Z, scene.steps, scene.ground);
  });
  std::exit(0);
}

TEST(FailingDevice, EndsTheProcessWithItsLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const auto& [scene, call, status, skip, text, names] : every_failure) {
    hostdev::FaultPlan fault{.call = call, .skip = skip, .status = status};
    for (const std::string& name : names) {
      EXPECT_EXIT(play(scene, fault), testing::ExitedWithCode(1),
                  "(^|\n)" + text + name + "\n(Size|\n=|$)");
      ++fault.skip;
    }
  }
  // 6 indices, then 6 weights.
  EXPECT_EXIT(play(load, {.memory_limit = 40}), testing::ExitedWithCode(1),
              "for weight\nSize of memory requested: 24\nFree mem = 16, Total = 40\n");
}

// Whichever launch a device refuses, and whatever Thrust would make of it: every document is by
// itself, so that Thrust comes after launches.
TEST(FailingDevice, RefusesALaunchWithALine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [](const hostdev::FaultPlan& fault, bool normalise, int steps) {
    dup2(2, 1);
    normalize_embeddings = normalise;
    const World world = random_world({.num_queries = 40});
    distance_block(world, gpu_engine, false, [&](float* Z) {
      hostdev::plan_fault(fault);
      if (steps >= 0) internal::compute_gpu_block(Z, steps, false, {.table_floats = 1});
      if (steps < 0) compute_ground_distances(nullptr);
    });
    std::exit(0);
  };
  constexpr int no_code = 209, any_step = 3, ground = -1;
  for (const int steps : {0, any_step, ground}) {
    for (const bool normalise : {false, true}) {
      const hostdev::FaultPlan first_launch{.call = "launch", .status = no_code};
      EXPECT_EXIT(run(first_launch, normalise, steps), testing::ExitedWithCode(1),
                  "(^|\n)GPU kernels failed: CUDA status 209\n")
          << steps << ' ' << normalise;
    }
  }
}

// What Thrust itself fails with is the caller's, and the engine goes on after it.  Thrust converts
// the products of a document by itself, and of a ground matrix.
TEST(FailingDevice, LetsTheExceptionOfThrustThrough) {
  const World world = random_world({.num_queries = 1});
  normalize_embeddings = true;
  for (const bool cosine : {false, true}) {
    use_cosine = cosine;
    for (const bool ground : {false, true}) {
      const auto compute = [&](float* Z) {
        if (ground) compute_ground_distances(nullptr);
        if (!ground) ed_min_vocab_multi(Z, 3, false);
      };
      distance_block(world, gpu_engine, false, [&](float* Z) {
        hostdev::plan_fault({.call = "transform_in_place", .status = 209});
        EXPECT_THROW(compute(Z), std::runtime_error);
        hostdev::plan_fault({});
        compute(Z);
      });
      remove_ground_distances();
      EXPECT_TRUE(nothing_is_held());
    }
  }
  normalize_embeddings = use_cosine = false;
}

TEST(FailingDevice, HasNoNormsOfVectorsThatWereNormalised) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    dup2(2, 1);
    normalize_embeddings = true;
    distance_block(random_world({}), gpu_engine, false, [](float* Z) {
      normalize_embeddings = false;
      ed_min_vocab_multi(Z, 0, false);
    });
    std::exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(1), "Vectors were normalised when they were copied");
}

// 40 documents at a time would need 160,000 bytes of tables.
TEST(DeviceMemory, HoldsTheTablesOfAsManyDocumentsAsTheBudgetSays) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    const World world = random_world({.voc_size = 1000, .num_queries = 40});
    distance_block(world, gpu_engine, false, [](float* Z) {
      hostdev::plan_fault({.memory_limit = 250'000});
      internal::compute_gpu_block(
          Z, 0, false, {.block_floats = 20'000, .table_floats = 2'000, .tile_words = 10});
    });
    std::exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace talvik::test
