// Fuzz targets, one per reader.  A reader refuses bytes the way its contract says, or hands over
// what the contract promises, and two readers of one format agree.  libFuzzer calls the target that
// the option --target names; --list prints all names.
#include <fcntl.h>     // open
#include <sys/mman.h>  // memfd_create
#include <sys/stat.h>  // mkdir
#include <unistd.h>    // access, close, ftruncate, getpid, pwrite, write

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commands/convert.hpp"
#include "commands/prepare.hpp"
#include "corpus_writer.hpp"
#include "idx_input.hpp"
#include "parse/embedding_file.hpp"
#include "parse/idx_file.hpp"
#include "parse/text_document.hpp"
#include "parse/tokens.hpp"
#include "run_error.hpp"
#include "talvik.hpp"
#include "talvik/error.hpp"
#include "texts/embedding_input.hpp"
#include "texts/stop_words.hpp"
#include "texts/text_sources.hpp"
#include "texts/tokenizer.hpp"
#include "texts/vector_rows.hpp"
#include "texts/word_set.hpp"

namespace talvik {

int myid = 0;  // the process group, which defines it, is not linked

namespace tool {
namespace {

namespace fs = std::filesystem;
using internal::Index;
using texts::is_valid_utf8;
using texts::Labels;
using texts::Tokenizer;
using texts::WordSet;

void check(bool kept, const char* promise) {
  if (kept) return;
  std::fprintf(stderr, "broken promise: %s\n", promise);
  std::abort();
}

// A file that lives in memory, for readers that take a path.
class MemoryFile {
 public:
  MemoryFile() : path_("/proc/self/fd/" + std::to_string(file_)) {}
  const std::string& holding(std::string_view bytes) const {
    const auto size = static_cast<off_t>(bytes.size());
    check(ftruncate(file_, 0) == 0 && pwrite(file_, bytes.data(), bytes.size(), 0) == size,
          "memory can be had");
    return path_;
  }
  const std::string& path() const { return path_; }

 private:
  int file_ = memfd_create("talvik-fuzz", 0);
  std::string path_;
};

const std::string& file_of(std::string_view bytes) {
  static const MemoryFile file;
  return file.holding(bytes);
}

// An empty directory, below TMPDIR or else in memory, where that can be.
const fs::path& scratch() {
  static const struct Scratch {
    Scratch() { fs::create_directory(path); }
    ~Scratch() { fs::remove_all(path); }
    static fs::path parent() {
      const char* const memory = "/dev/shm";
      const bool found = access(memory, W_OK) == 0 && !std::getenv("TMPDIR");
      return found ? memory : fs::temp_directory_path();
    }
    fs::path path = parent() / ("talvik-fuzz-" + std::to_string(getpid()));
  } directory;
  return directory.path;
}

// Files below a directory.  What was made is removed by its name, without a walk over it.
class FileTree {
 public:
  explicit FileTree(fs::path root) : root_(std::move(root)) { make_directory(root_); }
  ~FileTree() {
    for (; !made_.empty(); made_.pop_back()) std::remove(made_.back().c_str());
  }
  FileTree(const FileTree&) = delete;
  FileTree& operator=(const FileTree&) = delete;

  const fs::path& root() const { return root_; }

  // Nothing happens where the name is none for a file.
  void add(const fs::path& name, std::string_view bytes) {
    fs::path directory = root_;
    for (const fs::path& part : name.parent_path()) make_directory(directory /= part);
    const fs::path path = root_ / name;
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0) return;
    made_.push_back(path);
    check(write(file, bytes.data(), bytes.size()) == std::ssize(bytes), "memory can be had");
    close(file);
  }

 private:
  void make_directory(const fs::path& path) {
    if (mkdir(path.c_str(), 0700) == 0) made_.push_back(path);
  }

  fs::path root_;
  std::vector<fs::path> made_;  // directories before what is in them
};

// Whether the program refuses its input: with one line that a terminal can show.
template <class Read>
bool refused(const Read& read) {
  try {
    read();
    return false;
  } catch (const std::runtime_error& error) {
    check(dynamic_cast<const RunError*>(&error) || dynamic_cast<const FileError*>(&error),
          "what is wrong with a file is told as such");
    const std::string_view line = error.what();
    const auto is_control = [](unsigned char c) { return c < ' ' || c == 0x7F; };
    check(!line.empty() && std::none_of(line.begin(), line.end(), is_control),
          "a message is one line without control characters");
    check(is_valid_utf8(line), "a message is valid UTF-8");
    return true;
  }
}

struct LoadedEmbeddings {
  bool taken = false;
  VocabularyMap vocabulary;
  std::unique_ptr<float[]> vectors;
  long long vec_size = -1, voc_size = -1;
};

LoadedEmbeddings load_embeddings(const std::string& path) {
  LoadedEmbeddings loaded;
  float* vectors = nullptr;
  const bool write_vocabulary = false;
  loaded.taken = parse_embedding_file(path.c_str(), write_vocabulary, nullptr, loaded.vocabulary,
                                      &vectors, loaded.vec_size, loaded.voc_size);
  loaded.vectors.reset(vectors);
  if (loaded.taken) return loaded;
  check(!vectors && loaded.vec_size == -1 && loaded.voc_size == -1 && loaded.vocabulary.empty(),
        "a refused embedding file changes no output");
  return loaded;
}

// The embedding file as the program reads it, which refuses more than the library does.
void embedding_file(std::string_view bytes) {
  const std::string& path = file_of(bytes);
  texts::WordVectors read;
  if (refused([&] { read = texts::read_word_vectors(path); })) return;
  const LoadedEmbeddings loaded = load_embeddings(path);
  check(loaded.taken && loaded.voc_size == read.voc_size && loaded.vec_size == read.vec_size,
        "the library reads what the program accepts, and finds the same counts");
  check(std::equal(loaded.vocabulary.begin(), loaded.vocabulary.end(),
                   VocabularyMap(read.vocabulary.begin(), read.vocabulary.end()).begin()) &&
            loaded.vocabulary.size() == read.vocabulary.size(),
        "library and program number the words alike");
  check(std::memcmp(loaded.vectors.get(), read.vectors.get(),
                    internal::elements(read.voc_size, read.vec_size) * sizeof(float)) == 0,
        "library and program scale the vectors alike");
}

void parse_embeddings(std::string_view bytes) {
  const auto header = internal::read_embedding_header(bytes);
  const std::string& path = file_of(bytes);
  if (!header) {
    check(!load_embeddings(path).taken, "without two integers there are no vectors");
    return;
  }
  check(header->end <= std::ssize(bytes), "a header ends within its file");
  // Larger matrices may end the process, as the contract says.
  constexpr __int128 most_floats = 1 << 20, most_bytes = std::numeric_limits<long long>::max();
  const __int128 floats = __int128{header->num_records} * header->vec_size;
  const bool no_array = floats < 0 || floats > most_bytes / internal::float_bytes;
  if (floats > most_floats && !no_array) return;
  LoadedEmbeddings loaded;
  try {
    loaded = load_embeddings(path);
  } catch (const std::bad_array_new_length&) {
    check(no_array, "what an array can hold is no wrong length");
    return;
  }
  check(!no_array, "what no array can hold is a wrong length");
  if (!loaded.taken) return;
  check(loaded.voc_size == header->num_records && loaded.vec_size == header->vec_size,
        "the sizes are the header's");

  static const MemoryFile words;
  float* vectors = nullptr;
  long long vec_size = 0, voc_size = 0;
  VocabularyMap none, read_back;
  const bool write_vocabulary = true;
  check(parse_embedding_file(path.c_str(), write_vocabulary, words.path().c_str(), none, &vectors,
                             vec_size, voc_size),
        "what loads without a vocabulary file loads with one");
  delete[] vectors;
  check(none.empty(), "words go to the file alone");
  parse_vocabulary(words.path().c_str(), read_back);
  const bool lines =
      std::none_of(loaded.vocabulary.begin(), loaded.vocabulary.end(),
                   [](const auto& word) { return word.first.find('\n') != std::string::npos; });
  check(!lines || read_back == loaded.vocabulary, "a written vocabulary reads back the same");
}

void vocabulary_file(std::string_view bytes) {
  VocabularyMap vocabulary;
  const int words = parse_vocabulary(file_of(bytes).c_str(), vocabulary);
  check(words == std::ssize(vocabulary) && (words == 0) == bytes.empty(),
        "the count is the map's size");
  std::vector<std::string_view> in_order(vocabulary.size());
  for (const auto& [word, index] : vocabulary) {
    check(index >= 0 && index < words, "indices are below the count");
    check(word.find('\n') == std::string::npos, "a word is a line");
    in_order[index] = word;
  }
  std::string text;
  for (const std::string_view word : in_order) text.append(word) += '\n';
  VocabularyMap again;
  parse_vocabulary(file_of(text).c_str(), again);
  check(again == vocabulary, "every index is given once");
}

double sum_of(const Document& doc) {
  double sum = 0;
  for (const auto& [word, weight] : doc) sum += weight;
  return sum;
}

bool is_one(double value) { return std::fabs(value - 1) < 1e-4; }

void idx_images(std::string_view bytes) {
  const std::string& path = file_of(bytes);
  long long images = -1;
  const bool refuses = refused([&] { images = check_idx_images(path); });
  DocumentSet docs(1);
  float* vectors = nullptr;
  long long vec_size = -1, voc_size = -1;
  const bool taken = parse_mnist_images(path.c_str(), docs, &vectors, vec_size, voc_size);
  const std::unique_ptr<float[]> owned(vectors);
  check(refuses || (taken && images == std::ssize(docs) - 1),
        "the library reads the images that the program counts");
  check(taken || (docs.size() == 1 && !vectors && vec_size == -1 && voc_size == -1),
        "refused images change no output");
  for (const Document& doc : docs) {
    check(doc.empty() || is_one(sum_of(doc)), "an image's weights sum to 1");
    for (size_t i = 0; i < doc.size(); ++i) {
      check(doc[i].first < internal::image_pixels && doc[i].second > 0 &&
                (i == 0 || doc[i - 1].first < doc[i].first),
            "entries are the pixels that are not zero, in order");
    }
  }
}

void idx_labels(std::string_view bytes) {
  const std::string& path = file_of(bytes);
  long long count = -1;
  const bool refuses = refused([&] { count = check_idx_labels(path); });
  LabelList ids, labels;
  const bool taken = parse_mnist_labels(path.c_str(), ids, labels);
  check(ids.size() == labels.size() && (taken || ids.empty()), "a label has an identifier");
  check(refuses || (taken && count == std::ssize(labels)),
        "the library reads the labels that the program counts");
}

// The text's rule in three bytes, the vocabulary in a line, then the text.
void corpus_text(std::string_view bytes) {
  constexpr size_t rule_bytes = 3;
  if (bytes.size() < rule_bytes) return;
  const internal::DocumentRule rule{.max_words = static_cast<signed char>(bytes[0]),
                                    .skip_index = static_cast<signed char>(bytes[1]),
                                    .norm_type = bytes[2] & 1};
  bytes.remove_prefix(rule_bytes);
  const std::string_view known = bytes.substr(0, bytes.find('\n'));
  const std::string text(bytes.substr(std::min(known.size() + 1, bytes.size())));
  VocabularyMap vocabulary;
  internal::for_each_part(known, ' ', [&](std::string_view word) {
    vocabulary.try_emplace(std::string(word), static_cast<int>(vocabulary.size()));
  });

  constexpr unsigned before = 1 << 20;  // a word of the document before the text is appended
  Document doc{{before, 3.0f}}, same = doc;
  const int entries =
      parse_single_doc(text, vocabulary, doc, rule.max_words, rule.skip_index, rule.norm_type);
  internal::WordLookup words{vocabulary};
  const auto find = [&](std::string_view word) { return internal::find_word(words, word); };
  check(internal::append_text(text, find, rule, same) == entries && same == doc,
        "remembered answers change nothing");
  check(std::ssize(doc) == entries + 1 && entries <= std::max(rule.max_words, 0) &&
            doc.front().first == before,
        "at most max_words entries are appended");
  double squares = 0;
  std::vector<unsigned> indices;
  for (const auto& [word, weight] : doc) {
    squares += double{weight} * weight;
    indices.push_back(word);
  }
  check(is_one(rule.norm_type == 1 ? sum_of(doc) : squares), "the weights are normalised");
  std::sort(indices.begin(), indices.end());
  check(std::adjacent_find(indices.begin(), indices.end()) == indices.end(),
        "a word has one entry");
  check(entries == 0 || (static_cast<long long>(indices.front()) > rule.skip_index &&
                         indices[entries - 1] < vocabulary.size()),
        "entries are words of the vocabulary that are not skipped");
}

// The format in one byte, then the file.
void text_vectors(std::string_view bytes) {
  if (bytes.empty()) return;
  constexpr VectorFormat formats[] = {VectorFormat::automatic, VectorFormat::with_header,
                                      VectorFormat::without_header};
  const ConvertOptions options{.input = file_of(bytes.substr(1)),
                               .output = scratch() / "vectors",
                               .format = formats[static_cast<unsigned char>(bytes[0]) % 3],
                               .words = ""};
  ConvertSummary summary;
  if (refused([&] { summary = convert_text_vectors(options); })) {
    check(fs::is_empty(scratch()), "a failed conversion leaves nothing");
    return;
  }
  const LoadedEmbeddings loaded = load_embeddings(options.output);
  fs::remove(options.output);
  check(loaded.taken && loaded.voc_size == summary.words && loaded.vec_size == summary.dimensions &&
            std::ssize(loaded.vocabulary) == summary.words,
        "the library reads what is converted");
}

std::vector<std::string> tokens_of(std::string_view text, const Tokenizer& rules) {
  Count replaced = 0;
  return rules.tokens(text, replaced);
}

void check_tokens(const std::vector<std::string>& tokens, const Tokenizer& rules) {
  std::string text;
  for (const std::string& token : tokens) {
    check(internal::clean_token(token) == token, "the corpus reader takes a token as it is");
    text.append(token) += ' ';
  }
  check(tokens_of(text, rules) == tokens, "a token is its own token");
}

// Writes the texts as a corpus, which the library reads.
void prepare_and_read(const PrepareOptions& options, VocabularyMap& vocabulary) {
  const PrepareSummary summary = prepare_corpus(options);
  constexpr int all = 1 << 20, none = -1;
  DocumentSet docs;
  LabelList ids, labels;
  int num_docs = 0, num_words = 0;
  parse_docs_20(options.output.c_str(), all, none, docs, ids, labels, num_docs, num_words,
                vocabulary);
  fs::remove_all(options.output);
  check(num_docs == summary.documents - summary.empty, "every text with a token is a document");
  std::sort(labels.begin(), labels.end());
  const auto classes = std::unique(labels.begin(), labels.end()) - labels.begin();
  check(classes <= summary.classes, "texts of one class are together");
}

// The input is a path that holds texts; the bits of choice pick the options.  One choice in eight
// writes a corpus, which takes several times as long.
void read_and_tokenize(const std::string& input, TextsFormat format, unsigned char choice) {
  static const WordSet compounds = {"well-known", "a-b"};
  PrepareOptions options{.input = input, .output = scratch() / "corpus", .format = format};
  options.keep_case = (choice & 1) != 0;
  options.min_length = (choice & 2) != 0 ? 2 : 1;
  options.limit = (choice & 4) != 0 ? 1 : 0;
  const int more = choice >> 3 & 7;
  const bool write = more == 1;
  const bool join = (more & 2) != 0;
  const Tokenizer rules({.keep_case = options.keep_case, .min_length = options.min_length},
                        [&](std::string_view word) { return join && compounds.contains(word); });
  VocabularyMap vocabulary;
  refused([&] {
    texts::read_texts(input, {.format = format}, Labels::required, [&](const Text& text) {
      const std::string label = text.label.value_or("");
      require_class_name(label, text.place);
      check(is_valid_utf8(label), "a class name is valid UTF-8");
      const std::vector<std::string> tokens = tokens_of(text.text, rules);
      check_tokens(tokens, rules);
      for (const std::string& token : tokens) {
        vocabulary.try_emplace(token, static_cast<int>(vocabulary.size()));
      }
    });
  });
  if (!write) return;
  if (refused([&] { prepare_and_read(options, vocabulary); })) {
    check(!fs::exists(options.output), "a failed preparation leaves nothing");
  }
}

// The options in one byte, then the file.
void lines_of_texts(std::string_view bytes, TextsFormat format) {
  if (bytes.empty()) return;
  read_and_tokenize(file_of(bytes.substr(1)), format, bytes[0]);
}

void tsv_texts(std::string_view bytes) { lines_of_texts(bytes, TextsFormat::tsv); }
void jsonl_texts(std::string_view bytes) { lines_of_texts(bytes, TextsFormat::jsonl); }
void csv_texts(std::string_view bytes) { lines_of_texts(bytes, TextsFormat::csv); }

// Two formats that differ in nothing but the label.
void plain_texts(std::string_view bytes) {
  std::vector<std::string> lines, fields;
  const auto read = [&](TextsFormat format, const std::string& file, auto& texts) {
    const auto take = [&](const Text& text) { texts.push_back(text.text); };
    return refused([&] { texts::read_texts(file, {.format = format}, Labels::optional, take); });
  };
  if (read(TextsFormat::lines, file_of(bytes), lines)) return;
  std::string labelled;
  for (const std::string& line : lines) labelled += "label\t" + line + "\r\n";
  check(!read(TextsFormat::tsv, file_of(labelled), fields) && fields == lines,
        "a text a line is a text with any label");
}

// Word vectors as the library reads them, the format told by the bytes.
void any_vectors(std::string_view bytes) {
  const std::string& path = file_of(bytes);
  texts::VectorRows read;
  if (refused([&] { read = texts::read_vectors(path, VectorFormat::automatic); })) return;
  check(std::ssize(read.words) == std::ssize(read.numbers) &&
            std::ssize(read.rows) == internal::elements(std::ssize(read.words), read.dimensions),
        "every word has a row");
  check(std::all_of(read.rows.begin(), read.rows.end(), [](float x) { return std::isfinite(x); }),
        "numbers are finite");
}

// The options in one byte, then the files: a path, a zero byte, the text, a zero byte.
void tree_of_texts(std::string_view bytes) {
  if (bytes.empty()) return;
  constexpr int most_files = 8;
  FileTree tree(scratch() / "tree");
  fs::path file;
  int parts = 0;
  internal::for_each_part(bytes.substr(1), '\0', [&](std::string_view part) {
    if (++parts > 2 * most_files) return;
    if (parts % 2 == 1) {
      file = fs::path(part).lexically_normal().relative_path();
      return;
    }
    if (!file.empty() && *file.begin() != "..") tree.add(file, part);
  });
  read_and_tokenize(tree.root(), TextsFormat::tree, bytes[0]);
}

void stop_words(std::string_view bytes) {
  std::vector<std::string> words;
  if (refused([&] { words = texts::stop_words_from(file_of(bytes)); })) return;
  check(!words.empty(), "a list holds a word");
  for (const std::string& word : words) check_tokens({word}, Tokenizer({}));
}

constexpr struct Target {
  const char* name;
  void (*read)(std::string_view bytes);
} targets[] = {{"embedding_file", embedding_file},
               {"parse_embeddings", parse_embeddings},
               {"vocabulary_file", vocabulary_file},
               {"idx_images", idx_images},
               {"idx_labels", idx_labels},
               {"corpus_text", corpus_text},
               {"text_vectors", text_vectors},
               {"any_vectors", any_vectors},
               {"tsv_texts", tsv_texts},
               {"jsonl_texts", jsonl_texts},
               {"csv_texts", csv_texts},
               {"plain_texts", plain_texts},
               {"tree_of_texts", tree_of_texts},
               {"stop_words", stop_words}};

const Target* chosen = nullptr;

}  // namespace
}  // namespace tool
}  // namespace talvik

// What was freed long ago is not kept for long, and whoever allocated it is told with fewer frames:
// a quarter of the time otherwise.  ASAN_OPTIONS goes before.
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=16:malloc_context_size=6";
}

// The option stays where it is: libFuzzer skips it, and hands it on to the processes that it
// starts.
extern "C" int LLVMFuzzerInitialize(const int* argc, char*** argv) {
  using namespace talvik::tool;
  for (int i = 1; i < *argc; ++i) {
    const std::string_view option = (*argv)[i];
    for (const Target& target : targets) {
      if (option == "--list") std::puts(target.name);
      if (option == std::string("--target=") + target.name) chosen = &target;
    }
    if (option == "--list") std::exit(0);
  }
  if (!chosen) {
    std::fputs("usage: fuzz_readers --list | --target=NAME [LIBFUZZER-OPTION...]\n", stderr);
    std::exit(status_usage);
  }
  std::cout.rdbuf(nullptr);  // the library's messages
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  talvik::tool::chosen->read({reinterpret_cast<const char*>(data), size});
  return 0;
}
