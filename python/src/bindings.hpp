// What the parts of the extension module share.
#ifndef TALVIK_PYTHON_BINDINGS_HPP
#define TALVIK_PYTHON_BINDINGS_HPP

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "talvik/collection.hpp"

namespace talvik::python {

namespace py = pybind11;

void bind_vectors(py::module_& module);
void bind_collection(py::module_& module);
void bind_search(py::module_& module);

/// A collection as Python holds it.  What `held` points to never changes: an append makes another
/// one and puts it here.  So a search that runs in another thread, without the interpreter's lock,
/// goes on with the documents that it began with.
struct SharedCollection {
  std::shared_ptr<const Collection> held;
};

/// An array of a C-contiguous shape, over numbers that `owner` keeps alive.
template <class T, class Owner>
py::array_t<T> array_over(const T* data, std::vector<py::ssize_t> shape, Owner&& owner) {
  using Kept = std::decay_t<Owner>;
  auto kept = std::make_unique<Kept>(std::forward<Owner>(owner));
  const py::capsule capsule(kept.get(), [](void* it) { delete static_cast<Kept*>(it); });
  static_cast<void>(kept.release());
  return py::array_t<T>(std::move(shape), data, capsule);
}

/// The numbers move; they are not copied.
template <class T>
py::array_t<T> array_of(std::vector<T>&& values, std::vector<py::ssize_t> shape) {
  const T* const data = values.data();
  return array_over<T>(data, std::move(shape), std::move(values));
}

template <class T>
py::array_t<T> array_of(std::vector<T>&& values) {
  const auto size = static_cast<py::ssize_t>(values.size());
  return array_of<T>(std::move(values), {size});
}

/// An array that cannot be written to.
template <class T, class Owner>
py::array_t<T> read_only_array(std::span<const T> values, std::vector<py::ssize_t> shape,
                               const Owner& owner) {
  py::array_t<T> array = array_over<T>(values.data(), std::move(shape), owner);
  array.attr("setflags")(py::arg("write") = false);
  return array;
}

/// A place for a file in a directory of its own, which goes with the object.
class TemporaryFile {
 public:
  TemporaryFile() : directory_(py::module_::import("tempfile").attr("TemporaryDirectory")()) {}
  ~TemporaryFile() {
    try {
      directory_.attr("cleanup")();
    } catch (...) {
      // Its own finaliser tries again.
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  py::object path() const {  ///< a pathlib.Path
    return py::module_::import("pathlib").attr("Path")(directory_.attr("name"), "collection");
  }
  std::string name() const { return py::str(path()).cast<std::string>(); }

 private:
  py::object directory_;
};

/// The bytes of the file that saves a collection, and back.
py::bytes bytes_of(const Collection& collection);
Collection collection_from_bytes(const py::bytes& bytes);

}  // namespace talvik::python

#endif
