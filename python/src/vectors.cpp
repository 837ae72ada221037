// Words and their vectors.
#include "talvik/vectors.hpp"

#include <fmt/core.h>
#include <pybind11/stl.h>

#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bindings.hpp"
#include "talvik/error.hpp"
#include "talvik/texts.hpp"

namespace talvik::python {
namespace {

using Rows = py::array_t<float, py::array::c_style>;

Vectors read(const std::string& path, bool unit_length) {
  const py::gil_scoped_release released;
  return Vectors::read(path, {.unit_length = unit_length});
}

Vectors from_arrays(std::vector<std::string> words, const Rows& rows, bool unit_length) {
  if (rows.ndim() != 2) throw ArgumentError("rows", "an array of two dimensions is needed");
  constexpr py::ssize_t most = std::numeric_limits<int>::max();
  if (rows.shape(0) > most || rows.shape(1) > most) {
    throw ArgumentError("rows", "more rows or columns than a number of 32 bits counts");
  }
  const std::span<const float> numbers(rows.data(), static_cast<std::size_t>(rows.size()));
  const auto dimensions = static_cast<int>(rows.shape(1));
  const py::gil_scoped_release released;
  return Vectors::from_arrays(std::move(words), numbers, dimensions, unit_length);
}

std::vector<std::string> words_of(const Vectors& vectors) {
  std::vector<std::string> words;
  if (!vectors.has_words()) return words;
  words.reserve(static_cast<std::size_t>(vectors.size()));
  for (int v = 0; v < vectors.size(); ++v) words.emplace_back(vectors.word(v));
  return words;
}

py::array_t<float> rows_of(const Vectors& vectors) {
  return read_only_array(vectors.rows(), {vectors.size(), vectors.dimensions()}, vectors);
}

std::string word_at(const Vectors& vectors, int number) {
  if (!vectors.has_words() || number < 0 || number >= vectors.size()) {
    throw py::index_error("number: no word has it");
  }
  return std::string(vectors.word(number));
}

// A collection without documents keeps the rows bit by bit; scaled again they would change.
py::tuple to_state(const Vectors& vectors) {
  Collection collection({.all_words = true});
  collection.append(DocumentArrays{.offsets = std::vector<Count>{0}, .words = {}, .weights = {}},
                    vectors);
  return py::make_tuple(bytes_of(collection));
}

}  // namespace

void bind_vectors(py::module_& module) {
  py::class_<Vectors>(module, "Vectors",
                      "Words and their vectors, a table that never changes; see load_vectors.\n\n"
                      "Copies share the rows; a pickle holds them.")
      .def_static("read", &read, py::arg("path"), py::arg("unit_length") = true,
                  "Read a file in any of the forms that load_vectors takes.")
      .def_static("from_arrays", &from_arrays, py::arg("words"), py::arg("rows"),
                  py::arg("unit_length") = true,
                  "Take float32 rows, shape (n_words, n_dimensions), over by a copy; words may be "
                  "empty.")
      .def("__len__", &Vectors::size)
      .def("__contains__",
           [](const Vectors& self, const std::string& word) { return self.find(word).has_value(); })
      .def("find", &Vectors::find, py::arg("word"), "The word's number, or None.")
      .def("word", &word_at, py::arg("number"), "The word with a number; IndexError without one.")
      .def_property_readonly("dimensions", &Vectors::dimensions, "Floats in a row.")
      .def_property_readonly("has_words", &Vectors::has_words,
                             "False where rows are known by number alone.")
      .def_property_readonly("unit_length", &Vectors::unit_length,
                             "Whether the rows were scaled to length 1.")
      .def_property_readonly("words", &words_of, "All words, by number: a new list.")
      .def_property_readonly("rows", &rows_of,
                             "Array of float32, shape (n_words, n_dimensions): the table itself, "
                             "which cannot be written to.")
      .def("__repr__",
           [](const Vectors& self) {
             return fmt::format("<Vectors: {} {}, {} dimensions>", self.size(),
                                self.has_words() ? "words" : "rows", self.dimensions());
           })
      .def("__copy__", [](const Vectors& self) { return self; })
      .def("__deepcopy__", [](const Vectors& self, const py::dict&) { return self; })
      .def(py::pickle(&to_state, [](const py::tuple& state) {
        return collection_from_bytes(state[0].cast<py::bytes>()).vocabulary();
      }));
  module.def("english_stop_words", &english_stop_words, "The list that \"english\" stands for.");
  module.def("read_stop_words", &read_stop_words, py::arg("path"), "One word a line.");
}

}  // namespace talvik::python
