// The module talvik._core: the search library on arrays of NumPy.
#include <exception>

#include "bindings.hpp"
#include "talvik/error.hpp"

namespace talvik::python {
namespace {

void translate(std::exception_ptr thrown) {
  try {
    if (thrown) std::rethrow_exception(thrown);
  } catch (const ArgumentError& error) {
    PyErr_SetString(PyExc_ValueError, error.what());
  } catch (const FileError& error) {
    PyErr_SetString(PyExc_OSError, error.what());
  } catch (const Cancelled&) {
    PyErr_SetString(PyExc_KeyboardInterrupt, "the search was ended by another process");
  }
}

}  // namespace

PYBIND11_MODULE(_core, module) {
  module.doc() = "The search library on arrays of NumPy; the package talvik stands on it.";
  py::register_exception_translator(translate);
  bind_vectors(module);
  bind_collection(module);
  bind_search(module);
}

}  // namespace talvik::python
