// Saved collections: what is read is what was written, or the file is refused.
#include <gtest/gtest.h>
#include <hdf5.h>
#include <sys/resource.h>  // setrlimit
#include <sys/stat.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <thread>

#include "support/collections.hpp"

using namespace talvik;
using namespace talvik::test;
namespace fs = std::filesystem;

// HDF5 1.10 loses about 400 bytes wherever it meets damaged metadata.
extern "C" const char* __lsan_default_suppressions() { return "leak:libhdf5"; }

namespace {

class CollectionFiles : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "collection-XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name;
    path_ = (directory_ / "saved.h5").string();
  }
  void TearDown() override { fs::remove_all(directory_); }

  static std::string bytes_of(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void write(const std::string& bytes) const {
    std::ofstream(path_, std::ios::binary).write(bytes.data(), std::ssize(bytes));
  }
  Count num_files() const {
    return std::distance(fs::directory_iterator(directory_), fs::directory_iterator());
  }

  fs::path directory_;
  std::string path_;
};

std::vector<Text> some_texts(bool labels) {
  std::vector<Text> texts = {{"1", "ant bee bee", {}, ""},
                             {"zwei", "", {}, ""},
                             {std::string("a\0b", 3), "eel cat dog", {}, ""},
                             {"\xff", "well-known bee", {}, ""}};
  for (size_t i = 0; labels && i < texts.size(); ++i) texts[i].label = i % 2 ? "odd" : "";
  return texts;
}

Collection collection_of(const CollectionOptions& options, bool labels, bool unit_length) {
  Collection collection(options);
  collection.append(some_texts(labels), six_words(unit_length));
  return collection;
}

// Several chunks of rows, entries and offsets.
Collection large_collection() {
  constexpr int num_words = 3000, dimensions = 100, documents = 1500;
  std::mt19937 random(11);
  std::vector<float> rows(num_words * dimensions);
  for (float& x : rows) x = static_cast<float>(random() % 100);
  std::vector<Count> offsets = {0};
  std::vector<int> words;
  std::vector<float> weights;
  for (int i = 0; i < documents; ++i) {
    for (unsigned e = random() % 500; e > 0; --e) {
      words.push_back(static_cast<int>(random() % num_words));
      weights.push_back(static_cast<float>(1 + random() % 9));
    }
    offsets.push_back(std::ssize(words));
  }
  Collection collection;
  collection.append({.offsets = offsets, .words = words, .weights = weights},
                    Vectors::from_arrays({}, rows, dimensions));
  return collection;
}

TEST_F(CollectionFiles, WhatIsReadIsWhatWasWritten) {
  CollectionOptions all;
  all.rules = {.stop_words = {"the", "", "of"}, .keep_case = true, .min_length = 2, .max_words = 9};
  all.keep_texts = true;
  all.all_words = true;
  std::vector<Collection> collections = {Collection(), Collection(all),
                                         collection_of({}, false, true),
                                         collection_of(all, true, false), large_collection()};
  Collection without_words;
  without_words.append(std::vector<Text>{{"x", "", {}, ""}, {"y", "fox", {}, ""}}, six_words());
  collections.push_back(without_words);
  for (const Collection& collection : collections) {
    collection.save(path_);
    const Collection whole = Collection::load(path_);
    expect_same(whole, collection);
    for (int rank = 0; rank < 3; ++rank) {
      expect_same(Collection::load(path_, rank, 3), collection.slice(rank, 3));
    }
    const std::string bytes = bytes_of(path_);
    whole.save(path_);
    EXPECT_TRUE(bytes_of(path_) == bytes);
  }
  EXPECT_THROW(Collection::load(path_, 3, 3), ArgumentError);
}

// Bits flip, and files end early: either nothing is lost by it, or the file is refused.
TEST_F(CollectionFiles, DamageIsNoticed) {
  CollectionOptions options;
  options.keep_texts = true;
  options.rules.stop_words = {"the"};
  const Collection collection = collection_of(options, true, true);
  collection.save(path_);
  const std::string bytes = bytes_of(path_);
  size_t refused = 0, read = 0;
  const auto try_to_load = [&](const std::string& damaged) {
    write(damaged);
    try {
      expect_same(Collection::load(path_), collection);
      ++read;
    } catch (const FileError& error) {
      EXPECT_EQ(error.where(), path_);
      ++refused;
    }
  };
  constexpr size_t step = 3;  // all bits take their turn
  for (size_t at = 0; at < bytes.size(); at += step) {
    std::string damaged = bytes;
    damaged[at] = static_cast<char>(damaged[at] ^ (1 << at % 8));
    try_to_load(damaged);
    if (HasFailure()) FAIL() << "a bit of byte " << at;
  }
  EXPECT_GT(refused, bytes.size() / (4 * step));  // the rest is space that HDF5 keeps for later
  read = 0;
  for (size_t length = 0; length < bytes.size(); length += 41) {
    try_to_load(bytes.substr(0, length));
    if (read > 0) FAIL() << "cut after " << length << " of " << bytes.size() << " bytes";
  }
}

// Changes a file as another program might, with checksums that are right.
class Editor {
 public:
  explicit Editor(const std::string& path)
      : file_(H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT)) {}
  ~Editor() { H5Fclose(file_); }
  Editor(const Editor&) = delete;
  Editor& operator=(const Editor&) = delete;

  template <class T>
  void set(const char* name, hid_t type, hsize_t at, T value) const {
    const hid_t array = H5Dopen2(file_, name, H5P_DEFAULT);
    const hid_t from = H5Screate(H5S_SCALAR), to = H5Dget_space(array);
    if (H5Sget_simple_extent_ndims(to) == 1) H5Sselect_elements(to, H5S_SELECT_SET, 1, &at);
    if (H5Sget_simple_extent_ndims(to) == 2) {
      const hsize_t place[] = {at, 0};
      H5Sselect_elements(to, H5S_SELECT_SET, 1, place);
    }
    EXPECT_GE(H5Dwrite(array, type, from, to, H5P_DEFAULT, &value), 0) << name;
    H5Sclose(from), H5Sclose(to), H5Dclose(array);
  }
  void set_number(const char* name, int value) const {
    const hid_t attribute = H5Aopen(file_, name, H5P_DEFAULT);
    EXPECT_GE(H5Awrite(attribute, H5T_NATIVE_INT, &value), 0) << name;
    H5Aclose(attribute);
  }
  // Nothing of the array is in the file.
  void replace(const char* name, hid_t type, std::vector<hsize_t> shape,
               const std::function<void(hid_t)>& set_layout) const {
    EXPECT_GE(H5Ldelete(file_, name, H5P_DEFAULT), 0) << name;
    const hid_t space = H5Screate_simple(static_cast<int>(shape.size()), shape.data(), nullptr);
    const hid_t layout = H5Pcreate(H5P_DATASET_CREATE);
    set_layout(layout);
    const hid_t made = H5Dcreate2(file_, name, type, space, H5P_DEFAULT, layout, H5P_DEFAULT);
    EXPECT_GE(made, 0) << name;
    H5Dclose(made), H5Pclose(layout), H5Sclose(space);
  }
  void remove(const char* name) const { H5Ldelete(file_, name, H5P_DEFAULT); }
  void remove_attribute(const char* name) const { H5Adelete(file_, name); }

 private:
  hid_t file_;
};

void checked_chunk(hid_t layout) {
  const hsize_t chunk = 4;
  H5Pset_chunk(layout, 1, &chunk);
  H5Pset_fletcher32(layout);
}

TEST_F(CollectionFiles, ContentsThatMakeNoCollectionAreRefused) {
  struct Case {
    std::function<void(const Editor&)> edit;
    const char* message;
  };
  const hid_t i32 = H5T_NATIVE_INT, i64 = H5T_NATIVE_INT64, f32 = H5T_NATIVE_FLOAT;
  const Count many = Count{1} << 60;
  const Case cases[] = {
      {[&](const Editor& e) { e.remove_attribute("format"); }, "is no collection"},
      {[&](const Editor& e) { e.set_number("version", 2); }, "has version 2 of the format, newer"},
      {[&](const Editor& e) { e.set_number("keep_case", 2); }, "keep_case is 2"},
      {[&](const Editor& e) { e.set_number("used_words", 7); }, "7 words occur"},
      {[&](const Editor& e) { e.set_number("used_words", 5); }, "document 3 has words that do not"},
      {[&](const Editor& e) { e.remove_attribute("max_words"); }, "max_words cannot be read"},
      {[&](const Editor& e) { e.remove("documents/ids"); }, "documents/ids/offsets cannot be read"},
      {[&](const Editor& e) { e.set("documents/words", i32, 0, -1); }, "document 0 has words that"},
      {[&](const Editor& e) { e.set("documents/words", i32, 1, 0); }, "document 0 has words that"},
      {[&](const Editor& e) { e.set("documents/weights", f32, 0, NAN); }, "documents/weights has"},
      {[&](const Editor& e) { e.set("documents/offsets", i64, 1, many); },
       "documents/offsets does"},
      {[&](const Editor& e) { e.set("documents/offsets", i64, 0, Count{-1}); },
       "documents/offsets does"},
      {[&](const Editor& e) { e.set("documents/offsets", i64, 4, Count{6}); },
       "documents/offsets does"},
      {[&](const Editor& e) { e.set("documents/ids/offsets", i64, 1, many); }, "documents/ids has"},
      {[&](const Editor& e) { e.set("documents/ids/offsets", i64, 4, Count{8}); },
       "documents/ids has"},
      {[&](const Editor& e) { e.set("documents/labels/offsets", i64, 0, Count{-1}); },
       "documents/labels"},
      {[&](const Editor& e) { e.set("documents/ids/bytes", H5T_NATIVE_CHAR, 8, '1'); },
       "documents 0 and 3 have the same id, '1'"},
      {[&](const Editor& e) {
         e.set("vocabulary/words/offsets", i64, 1, Count{0});
         e.set("vocabulary/words/offsets", i64, 2, Count{0});
       },
       "words: '' comes twice, as number 0 and number 1"},
      {[&](const Editor& e) { e.set("vocabulary/rows", f32, 2, INFINITY); }, "vocabulary/rows has"},
      {[&](const Editor& e) { e.replace("documents/words", H5T_STD_I32LE, {1000}, checked_chunk); },
       "1000 words of entries and 7 weights"},
      {[&](const Editor& e) {
         e.replace("documents/words", H5T_STD_I32LE, {hsize_t{1} << 60}, checked_chunk);
       },
       "documents/words has 1152921504606846976 x 1 elements, more than"},
      {[&](const Editor& e) { e.replace("documents/words", H5T_STD_I64LE, {8}, checked_chunk); },
       "documents/words has another type"},
      {[&](const Editor& e) { e.replace("documents/words", H5T_STD_I32LE, {8}, [](hid_t) {}); },
       "documents/words is not in chunks"},
      {[&](const Editor& e) { e.replace("vocabulary/rows", H5T_IEEE_F32LE, {6}, checked_chunk); },
       "vocabulary/rows has another number of dimensions"},
  };
  const Collection collection = collection_of({}, true, false);
  collection.save(path_);
  const std::string bytes = bytes_of(path_);
  for (const Case& c : cases) {
    write(bytes);
    c.edit(Editor(path_));
    const std::string message = message_of<FileError>([&] { Collection::load(path_); });
    EXPECT_EQ(message.substr(0, path_.size() + 2 + std::string(c.message).size()),
              path_ + ": " + c.message);
  }
}

TEST_F(CollectionFiles, OtherFilesAreRefusedAndNothingIsPrinted) {
  static int calls;
  calls = 0;
  const auto count = [](hid_t, void*) -> herr_t { return ++calls, 0; };
  H5Eset_auto2(H5E_DEFAULT, count, &calls);
  const auto message = [&] { return message_of<FileError>([&] { Collection::load(path_); }); };
  EXPECT_EQ(message(), path_ + ": cannot be read: No such file or directory");
  fs::create_directory(path_);
  EXPECT_EQ(message(), path_ + ": is no regular file");
  EXPECT_EQ(message_of<FileError>([&] { Collection().save(path_); }),
            path_ + ": exists and is no regular file");
  fs::remove(path_);
  for (const char* bytes : {"", "cat 1 2 3\n", "\x89HDF\r\n"}) {
    write(bytes);
    EXPECT_EQ(message(), path_ + ": is no collection") << bytes;
  }
  H5Fclose(H5Fcreate(path_.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT));
  EXPECT_EQ(message(), path_ + ": is no collection");
  EXPECT_EQ(calls, 0);
  H5E_auto2_t function = nullptr;
  void* data = nullptr;
  H5Eget_auto2(H5E_DEFAULT, &function, &data);
  EXPECT_EQ(function, static_cast<H5E_auto2_t>(count));
  EXPECT_EQ(data, &calls);
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
}

// The limit on the size of files stands for a device that is full.
TEST_F(CollectionFiles, AFullDeviceLeavesTheOldFile) {
  const Collection old = collection_of({}, true, true), larger = large_collection();
  old.save(path_);
  const std::string bytes = bytes_of(path_);
  const fs::path other = directory_ / "other.h5";
  larger.save(other.string());
  const auto size = static_cast<rlim_t>(fs::file_size(other));
  fs::remove(other);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  for (const rlim_t room : {rlim_t{0}, rlim_t{1}, rlim_t{100}, rlim_t{5000}, size / 2, size - 1}) {
    const rlimit lower{.rlim_cur = room, .rlim_max = limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &lower);
    const std::string message = message_of<FileError>([&] { larger.save(path_); });
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(message, path_ + ": cannot be written: File too large") << room;
    EXPECT_EQ(bytes_of(path_), bytes);
    EXPECT_EQ(num_files(), 1);
  }
  std::signal(SIGXFSZ, handler);
  larger.save(path_);
  EXPECT_EQ(num_files(), 1);
}

TEST_F(CollectionFiles, LinksAndPermissionsStay) {
  const Collection collection = collection_of({}, false, true);
  const fs::path real = directory_ / "below" / "real.h5";
  fs::create_directory(real.parent_path());
  fs::create_symlink("below/real.h5", path_);
  collection.save(path_);  // to where nothing is yet
  EXPECT_TRUE(fs::is_symlink(path_));
  constexpr auto owner = fs::perms::owner_read | fs::perms::owner_write;
  fs::permissions(real, owner);
  Collection().save(path_);
  EXPECT_TRUE(fs::is_symlink(path_));
  EXPECT_EQ(fs::status(real).permissions(), owner);
  EXPECT_EQ(Collection::load(real.string()).size(), 0);
}

TEST_F(CollectionFiles, ThreadsReadAndWriteAtTheSameTime) {
  const Collection collection = collection_of({}, true, true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, path = path_ + std::to_string(t)] {
      for (int i = 0; i < 20; ++i) {
        collection.save(path);
        expect_same(Collection::load(path), collection);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
