// What the GPU engine prints when a call of the device or its libraries fails, and that it ends the
// process with status 1.  The emulated device fails on demand.
#include <gtest/gtest.h>
#include <unistd.h>  // dup2

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "libwmd/gpu/platform/hostdev_control.hpp"
#include "support/engine.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

enum class Scene { load, plain, steps, one_word, index_form, ground };

struct Failure {
  Scene scene;
  std::string call;
  int skip;  // successful calls before the failing one, counted from where the scene arms the plan
  int status;
  std::string text;
};

class FailingDevice : public testing::TestWithParam<Failure> {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Two query documents without a repeated word, so that the engine allocates what every run does.
World small_world() {
  World world = random_world({.num_resident = 2, .num_queries = 2, .max_words = 6});
  world.queries = {{{0, 0.5f}, {1, 0.25f}, {2, 0.25f}}, {{3, 0.5f}, {4, 0.25f}, {5, 0.25f}}};
  return world;
}

void arm(const Failure& failure) {
  hostdev::plan_fault({.call = failure.call, .skip = failure.skip, .status = failure.status});
}

// Gets through only if nothing fails.
void play(const Failure& failure) {
  dup2(2, 1);  // death tests match standard error
  World world = small_world();
  if (failure.scene == Scene::one_word) world.queries = {{{0, 1.0f}}};  // one entry: no step
  switch (failure.scene) {
    case Scene::load:
    case Scene::index_form:
      arm(failure);
      distance_block(world, 1, StepRule::powers_of_two, failure.scene == Scene::index_form);
      break;
    case Scene::plain:
    case Scene::steps:
    case Scene::one_word:
      distance_block(world, gpu_engine, false, [&](float* Z) {
        arm(failure);
        const int steps = failure.scene == Scene::plain ? 0 : 2;
        ed_min_vocab_multi(Z, steps, false);
      });
      break;
    case Scene::ground:
      copy_vocabulary(0, world.shape.voc_size, world.shape.vec_size, world.embeddings.data());
      arm(failure);
      compute_ground_distances(nullptr);
  }
  std::exit(0);
}

std::string escaped(const std::string& text) {
  std::string pattern;
  for (const char c : text) {
    if (std::string("()[].*+?{}|^$\\").find(c) != std::string::npos) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

TEST_P(FailingDevice, EndsTheProcessWithItsLine) {
  const Failure& failure = GetParam();
  EXPECT_EXIT(play(failure), testing::ExitedWithCode(1), "(^|\n)" + escaped(failure.text) + "\n");
}

// The n-th of these calls to fail: one for each name, in their order, after `skip` others.
void add(std::vector<Failure>& all, Scene scene, const char* call, int status,
         const std::string& text, int skip, const std::vector<const char*>& names) {
  for (const char* name : names) all.push_back({scene, call, skip++, status, text + name});
}

std::vector<Failure> failures() {
  const std::string no_memory = "Failed to allocate GPU memory for ";
  const std::vector<const char*> loaded{"ind", "weight", "start",   "W",
                                        "RW",  "X2",     "weight2", "Rn2"};
  std::vector<Failure> all;
  add(all, Scene::load, "cudaMalloc", 2, no_memory, 0, loaded);
  add(all, Scene::load, "cudaMemcpy", 1, "Failed to copy ", 0, loaded);
  // Before ind2: three arrays of the resident side, two of the vocabulary, then the ground matrix,
  // which is allocated to be computed and again to be uploaded, and copied both times.
  add(all, Scene::index_form, "cudaMalloc", 2, no_memory, 6, {"D_ground_dev", "ind2", "weight2"});
  add(all, Scene::index_form, "cudaMemcpy", 1, "Failed to copy ", 7, {"ind2", "weight2"});
  const std::vector<const char*> plain{"dp_dev", "Y_dev", "Y_dev_t", "weights_min_dev_t"};
  const std::vector<const char*> freed{"Y_dev", "Y_dev_t", "weights_min_dev_t", "dp_dev"};
  const std::vector<const char*> of_steps{"weight_updated", "weight_delta"};
  add(all, Scene::plain, "cudaMalloc", 2, no_memory, 0, plain);
  add(all, Scene::steps, "cudaMalloc", 2, no_memory, 4, of_steps);
  add(all, Scene::plain, "cudaFree", 1, "Failed to deallocate ", 0, freed);
  add(all, Scene::steps, "cudaFree", 1, "Failed to deallocate ", 4, of_steps);
  const std::string sparse = "Sparse matrix-matrix multiplication failed in ";
  const std::string group = "Sparse-matrix dense-matrix multiplication failed: ";
  const std::vector<Failure> others{
      {Scene::plain, "cusparseCreate", 0, 1, "CUSPARSE Library initialization failed"},
      {Scene::plain, "cusparseCreateMatDescr", 0, 2, "Matrix descriptor initialization failed"},
      {Scene::plain, "cublasSgemm_v2", 0, 13, "Dense matrix-matrix multiplication failed: 13"},
      {Scene::plain, "cusparseScsrmm2", 0, 7, group + "7\nInternal Error"},
      {Scene::plain, "cusparseScsrmm2", 0, 6, group + "6\nExecution Failed"},
      {Scene::plain, "cusparseScsrmm2", 0, 3, group + "3"},
      // 2 steps of a document of 3 entries: one step.
      {Scene::steps, "cusparseScsrmm", 0, 7, sparse + "iteration 0 7"},
      {Scene::steps, "cusparseScsrmm", 1, 6, sparse + "final iteration 6"},
      {Scene::one_word, "cusparseScsrmm", 0, 6, sparse + "final iteration 0 6"},
      {Scene::plain, "cudaMemcpy", 0, 1, "Failed to copy start2"},
      {Scene::plain, "cudaMemcpy", 1, 1, "Failed to copy row_of_entry"},
      {Scene::plain, "cudaMemcpy", 2, 1, "Failed to copy Z"},
      {Scene::plain, "cusparseDestroyMatDescr", 0, 1, "Matrix descriptor destruction failed"},
      {Scene::plain, "cusparseDestroy", 0, 1, "CUSPARSE Library release of resources failed"},
      {Scene::ground, "cudaMalloc", 0, 2, "Failed to allocate GPU memory for D_ground_dev"},
      {Scene::ground, "cublasSgemm_v2", 0, 14, "Dense matrix-matrix multiplication failed: 14"},
      {Scene::ground, "cudaFree", 0, 1, "Failed to deallocate D_ground_dev"}};
  all.insert(all.end(), others.begin(), others.end());
  return all;
}

INSTANTIATE_TEST_SUITE_P(Calls, FailingDevice, testing::ValuesIn(failures()));

TEST_F(FailingDevice, TellsHowMuchMemoryThereIs) {
  const auto run = [] {
    dup2(2, 1);
    hostdev::plan_fault({.memory_limit = 1000});
    std::vector<float> W(20), weight(300);
    std::vector<int> ind(300);
    copy_vocabulary(0, 10, 2, W.data());  // 80 bytes and 40 of norms
    copy_raw_data(300, ind.data(), weight.data(), 0, ind.data());
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(1),
              "Failed to allocate GPU memory for ind\n"
              "Size of memory requested: 1200\n"
              "Free mem = 880, Total = 1000\n");
}

TEST_F(FailingDevice, FailedConversionReachesTheCaller) {
  const auto run = [] {
    normalize_embeddings = true;
    try {
      distance_block(small_world(), gpu_engine, false, [&](float* Z) {
        hostdev::plan_fault({.call = "transform_in_place"});
        ed_min_vocab_multi(Z, 0, false);
      });
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      std::_Exit(3);  // what was held stays, and is not to be counted
    }
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(3), "transform: failed to synchronize");
}

}  // namespace
}  // namespace talvik::test
