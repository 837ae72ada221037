// Documents: from texts, from lists of words, from sparse rows.
#include "talvik/collection.hpp"

#include <fmt/core.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "bindings.hpp"
#include "talvik/error.hpp"

namespace talvik::python {
namespace {

using Strings = std::vector<std::string>;
using OptionalStrings = std::optional<Strings>;
template <class T>
using Flat = py::array_t<T, py::array::c_style>;

std::shared_ptr<const Collection> share(Collection&& collection) {
  return std::make_shared<const Collection>(std::move(collection));
}

// Half of a surrogate pair cannot be written as UTF-8; it becomes a gap between words.
std::string utf8(const py::handle& text) {
  Py_ssize_t size = 0;
  if (const char* bytes = PyUnicode_AsUTF8AndSize(text.ptr(), &size)) {
    return {bytes, static_cast<std::size_t>(size)};
  }
  PyErr_Clear();
  return text.attr("encode")("utf-8", "replace").cast<std::string>();
}

void require_text(const py::handle& item, const std::string& place) {
  if (PyUnicode_Check(item.ptr())) return;
  throw py::type_error(fmt::format("{}: a str is needed, not {}", place,
                                   std::string(py::str(py::type::handle_of(item)))));
}

void require_per_document(const char* name, const OptionalStrings& values, std::size_t documents) {
  if (!values || values->size() == documents) return;
  throw ArgumentError(name, fmt::format("{} of them for {} documents", values->size(), documents));
}

std::string id_at(const OptionalStrings& ids, std::size_t at, Count before) {
  return ids ? (*ids)[at] : std::to_string(before + static_cast<Count>(at));
}

py::dict to_dict(const AppendReport& report) {
  using namespace py::literals;
  return py::dict("documents"_a = report.documents, "tokens"_a = report.tokens,
                  "unknown_tokens"_a = report.unknown_tokens, "empty"_a = report.empty,
                  "empty_ids"_a = report.empty_ids);
}

constexpr std::size_t most_empty_ids = 10;  // as the library names of one append

void add(AppendReport& sum, AppendReport&& part) {
  sum.documents += part.documents;
  sum.tokens += part.tokens;
  sum.unknown_tokens += part.unknown_tokens;
  sum.empty += part.empty;
  for (std::string& id : part.empty_ids) {
    if (sum.empty_ids.size() < most_empty_ids) sum.empty_ids.push_back(std::move(id));
  }
}

// Changes a copy, which takes the collection's place.
template <class Change>
void replace(SharedCollection& self, const Change& change) {
  const std::shared_ptr<const Collection> before = self.held;
  Collection changed = [&] {
    const py::gil_scoped_release released;
    return Collection(*before);
  }();
  change(changed);
  if (self.held != before) throw ArgumentError("collection", "changed by another thread meanwhile");
  self.held = share(std::move(changed));
}

void raise_pending_signals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

// As many texts as are counted between two looks at the signals.
constexpr std::size_t texts_at_a_time = 65536, bytes_at_a_time = std::size_t{16} << 20;

std::vector<Text> take_texts(const py::list& list, std::size_t& at, const OptionalStrings& ids,
                             const OptionalStrings& labels, Count before) {
  std::vector<Text> texts;
  for (std::size_t bytes = 0;
       at < list.size() && texts.size() < texts_at_a_time && bytes < bytes_at_a_time; ++at) {
    const py::handle item = list[at];
    const std::string place = fmt::format("X[{}]", at);
    require_text(item, place);
    Text text{.id = id_at(ids, at, before), .text = utf8(item), .place = place};
    if (labels) text.label = (*labels)[at];
    bytes += text.text.size();
    texts.push_back(std::move(text));
  }
  return texts;
}

py::dict append_texts(SharedCollection& self, const py::list& list, const Vectors& vectors,
                      const OptionalStrings& ids, const OptionalStrings& labels) {
  require_per_document("ids", ids, list.size());
  require_per_document("y", labels, list.size());
  AppendReport report;
  replace(self, [&](Collection& collection) {
    const Count before = collection.size();
    std::size_t at = 0;
    do {
      const std::vector<Text> texts = take_texts(list, at, ids, labels, before);
      {
        const py::gil_scoped_release released;
        add(report, collection.append(texts, vectors));
      }
      raise_pending_signals();
    } while (at < list.size());
  });
  return to_dict(report);
}

struct Entries {
  std::vector<Count> offsets = {0};
  std::vector<int> words;
  Count tokens = 0;

  void end_document() { offsets.push_back(static_cast<Count>(words.size())); }
};

// The entries of documents that are lists of words already.
Entries look_up(const py::list& list, const Vectors& vectors, const TextRules& rules) {
  const std::unordered_set<std::string> stop_words(rules.stop_words.begin(),
                                                   rules.stop_words.end());
  Entries entries;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (PyUnicode_Check(py::handle(list[i]).ptr())) {  // a sequence, too, of letters
      throw py::type_error(
          fmt::format("X[{}]: a list of words is needed as before it, not str", i));
    }
    const auto tokens = py::reinterpret_steal<py::object>(
        PySequence_Fast(py::handle(list[i]).ptr(), "X: a sequence of words is needed"));
    if (!tokens) throw py::error_already_set();
    const Py_ssize_t count = PySequence_Fast_GET_SIZE(tokens.ptr());
    for (Py_ssize_t t = 0; t < count; ++t) {
      const py::handle token = PySequence_Fast_GET_ITEM(tokens.ptr(), t);
      require_text(token, fmt::format("X[{}][{}]", i, t));
      const std::string word = utf8(token);
      if (stop_words.contains(word)) continue;
      ++entries.tokens;
      if (const std::optional<int> number = vectors.find(word)) entries.words.push_back(*number);
    }
    entries.end_document();
  }
  return entries;
}

py::dict append_tokens(SharedCollection& self, const py::list& list, const Vectors& vectors,
                       const OptionalStrings& ids, const OptionalStrings& labels) {
  require_per_document("ids", ids, list.size());
  require_per_document("y", labels, list.size());
  if (!vectors.has_words() && vectors.size() > 0) {
    throw ArgumentError("vectors", "rows without words, in which no word can be looked up");
  }
  const Entries entries = look_up(list, vectors, self.held->options().rules);
  const std::vector<float> ones(entries.words.size(), 1);
  AppendReport report;
  replace(self, [&](Collection& collection) {
    const py::gil_scoped_release released;
    const DocumentArrays arrays{.offsets = entries.offsets,
                                .words = entries.words,
                                .weights = ones,
                                .ids = ids ? *ids : std::span<const std::string>(),
                                .labels = labels ? *labels : std::span<const std::string>()};
    report = collection.append(arrays, vectors);
  });
  report.tokens = entries.tokens;
  report.unknown_tokens = entries.tokens - static_cast<Count>(entries.words.size());
  return to_dict(report);
}

template <class T>
std::span<const T> span_of(const Flat<T>& array) {
  return {array.data(), static_cast<std::size_t>(array.size())};
}

py::dict append_arrays(SharedCollection& self, const Flat<Count>& offsets, const Flat<int>& words,
                       const Flat<float>& weights, const Vectors& vectors,
                       const OptionalStrings& ids, const OptionalStrings& labels, bool normalise) {
  const std::size_t documents =
      offsets.size() > 0 ? static_cast<std::size_t>(offsets.size()) - 1 : 0;
  require_per_document("ids", ids, documents);
  require_per_document("y", labels, documents);
  const DocumentArrays arrays{.offsets = span_of(offsets),
                              .words = span_of(words),
                              .weights = span_of(weights),
                              .ids = ids ? *ids : std::span<const std::string>(),
                              .labels = labels ? *labels : std::span<const std::string>(),
                              .normalise = normalise};
  AppendReport report;
  replace(self, [&](Collection& collection) {
    const py::gil_scoped_release released;
    report = collection.append(arrays, vectors);
  });
  return to_dict(report);
}

SharedCollection make(Strings stop_words, bool keep_case, int min_length,
                      std::optional<int> max_words, bool keep_texts, bool all_words) {
  return {
      share(Collection({.rules = {.stop_words = std::move(stop_words),
                                  .keep_case = keep_case,
                                  .min_length = min_length,
                                  .max_words = max_words.value_or(std::numeric_limits<int>::max())},
                        .keep_texts = keep_texts,
                        .all_words = all_words}))};
}

SharedCollection load(const std::string& path, int rank, int size) {
  const py::gil_scoped_release released;
  return {share(Collection::load(path, rank, size))};
}

void save(const SharedCollection& self, const std::string& path) {
  const std::shared_ptr<const Collection> held = self.held;
  const py::gil_scoped_release released;
  held->save(path);
}

void remove_documents(SharedCollection& self, const Flat<Count>& documents) {
  replace(self, [&](Collection& collection) { collection.remove(span_of(documents)); });
}

Strings copy_of(std::span<const std::string> strings) { return {strings.begin(), strings.end()}; }

template <class T>
py::array_t<T> view_of(const SharedCollection& self, std::span<const T> values) {
  return read_only_array(values, {static_cast<py::ssize_t>(values.size())}, self.held);
}

constexpr const char* append_help =
    R"(Append texts, which are cut into words by the collection's rules.

Parameters
----------
texts : list of str
vectors : Vectors
    Where words are looked up; of the same dimensions and scaling as before.
ids : list of str, optional
    Distinct and not empty; by default the documents' numbers.
labels : list of str, optional
    For all documents of the collection, or for none.

Returns
-------
dict
    documents, tokens, unknown_tokens (words without a vector), empty (documents without a known
    word) and empty_ids, the first few of these.

Raises
------
ValueError
    Where nothing was appended: ids that are there already, other vectors.
)";

void bind_contents(py::class_<SharedCollection>& type) {
  using Self = const SharedCollection&;
  type.def("__len__", [](Self self) { return self.held->size(); })
      .def("__repr__",
           [](Self self) { return fmt::format("<Collection: {} documents>", self.held->size()); })
      .def_property_readonly(
          "total_documents", [](Self self) { return self.held->total_documents(); },
          "Documents of the whole, of which a slice holds a part.")
      .def_property_readonly(
          "first_document", [](Self self) { return self.held->first_document(); },
          "The number of a slice's first document in the whole; else 0.")
      .def_property_readonly(
          "vocabulary", [](Self self) { return self.held->vocabulary(); },
          "Vectors of the words, by the numbers in `words`.")
      .def_property_readonly(
          "used_words", [](Self self) { return self.held->used_words(); },
          "How many words, the first of the vocabulary, may occur in documents.")
      .def_property_readonly(
          "offsets", [](Self self) { return view_of(self, self.held->offsets()); },
          "Array of int64, one more than documents, over the collection's own memory.")
      .def_property_readonly(
          "words", [](Self self) { return view_of(self, self.held->words()); },
          "Array of int32, a word's number per entry, over the collection's own memory.")
      .def_property_readonly(
          "weights", [](Self self) { return view_of(self, self.held->weights()); },
          "Array of float32, per entry, over the collection's own memory.")
      .def_property_readonly(
          "ids", [](Self self) { return copy_of(self.held->ids()); }, "A new list, of text.")
      .def_property_readonly(
          "labels", [](Self self) { return copy_of(self.held->labels()); },
          "A new list, of text; empty where documents have none.")
      .def_property_readonly(
          "texts", [](Self self) { return copy_of(self.held->texts()); },
          "A new list; empty where texts are not kept.")
      .def_property_readonly(
          "stop_words", [](Self self) { return self.held->options().rules.stop_words; },
          "Words that are left out of texts.")
      .def(
          "find", [](Self self, const std::string& id) { return self.held->find(id); },
          py::arg("id"), "The number of the document with an id, or None.");
}

}  // namespace

py::bytes bytes_of(const Collection& collection) {
  const TemporaryFile file;
  collection.save(file.name());
  return file.path().attr("read_bytes")();
}

Collection collection_from_bytes(const py::bytes& bytes) {
  const TemporaryFile file;
  file.path().attr("write_bytes")(bytes);
  return Collection::load(file.name());
}

void bind_collection(py::module_& module) {
  py::class_<SharedCollection> type(
      module, "Collection",
      "Documents in compressed sparse rows over the words that occur, with ids and labels.\n\n"
      "The estimators make and search it; a saved one is opened by `Collection.load` or by their "
      "`load`.\nAny number of threads may search it; of two appends at once one fails.");
  type.def(py::init(&make), py::kw_only(), py::arg("stop_words") = Strings(),
           py::arg("keep_case") = false, py::arg("min_length") = 1,
           py::arg("max_words") = py::none(), py::arg("keep_texts") = false,
           py::arg("all_words") = false)
      .def("append_texts", &append_texts, py::arg("texts"), py::arg("vectors"),
           py::arg("ids") = py::none(), py::arg("labels") = py::none(), append_help)
      .def("append_tokens", &append_tokens, py::arg("documents"), py::arg("vectors"),
           py::arg("ids") = py::none(), py::arg("labels") = py::none(),
           "Append lists of words, which are looked up as they are, less the stop words; see "
           "append_texts.")
      .def("append_arrays", &append_arrays, py::arg("offsets"), py::arg("words"),
           py::arg("weights"), py::arg("vectors"), py::arg("ids") = py::none(),
           py::arg("labels") = py::none(), py::arg("normalise") = true,
           "Append rows of a CSR matrix: document i has the entries [offsets[i], offsets[i + "
           "1]).\n\n"
           "Words are row numbers of the vectors; a row is scaled to the sum 1 if `normalise`.")
      .def(
          "for_queries",
          [](const SharedCollection& self) {
            return SharedCollection{share(self.held->for_queries())};
          },
          "An empty collection with the same rules, for queries.")
      .def(
          "slice",
          [](const SharedCollection& self, int rank, int size) {
            return SharedCollection{share(self.held->slice(rank, size))};
          },
          py::arg("rank"), py::arg("size"),
          "The part of process `rank` of `size`: contiguous, of about as many entries as the "
          "others.")
      .def("remove", &remove_documents, py::arg("documents"),
           "Take documents out, by number; those behind move up.")
      .def(
          "copy", [](const SharedCollection& self) { return self; },
          "A collection that appends to this one do not change.  Costs nothing.")
      .def("save", &save, py::arg("path"),
           "Write one file, which appears whole or not at all; OSError where that fails.")
      .def_static("load", &load, py::arg("path"), py::arg("rank") = 0, py::arg("size") = 1,
                  "Open a saved collection, or a process's part of it; OSError for a file that is "
                  "missing, damaged or no collection.")
      .def(py::pickle(
          [](const SharedCollection& self) { return py::make_tuple(bytes_of(*self.held)); },
          [](const py::tuple& state) {
            return SharedCollection{share(collection_from_bytes(state[0].cast<py::bytes>()))};
          }));
  bind_contents(type);
}

}  // namespace talvik::python
