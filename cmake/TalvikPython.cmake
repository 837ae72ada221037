# Whether the Python package is built, and for which interpreter.
if(TALVIK_SANITIZE)
  set(talvik_python_default OFF)  # the sanitizer wants to be in the interpreter, too
else()
  set(talvik_python_default ${PROJECT_IS_TOP_LEVEL})
endif()
option(TALVIK_BUILD_PYTHON "Build the Python package, where pybind11 and NumPy are found"
  ${talvik_python_default})
if(NOT TALVIK_BUILD_PYTHON)
  return()
endif()

# The distribution's interpreter, whose packages scripts/setup installs, before others in the path.
if(NOT Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3)
endif()
find_package(Python3 COMPONENTS Interpreter Development.Module NumPy)
find_package(pybind11 2.10 QUIET CONFIG)
if(Python3_Development.Module_FOUND AND Python3_NumPy_FOUND AND pybind11_FOUND)
  message(STATUS "Python package: for ${Python3_EXECUTABLE}, ${Python3_VERSION}")
  add_subdirectory(python)
else()
  message(STATUS "Python package: not built; it needs python3-dev, python3-numpy and pybind11-dev")
endif()
