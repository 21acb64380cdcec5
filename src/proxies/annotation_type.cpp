// Mapping annotations to host types: by origin for generics, by name for
// strings and for the well-known classes, and through the Python type mapping
// for any other class.

#include "proxies/annotation_type.hpp"

#include "convert/python_classes.hpp"
#include "convert/type_mapping.hpp"

#include <kest/kest.hpp>

#include <string>

namespace sarvode {

namespace {
std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos)
    return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

std::string_view cut_before(std::string_view text, char mark) {
  const auto at = text.find(mark);
  return trimmed(at == std::string_view::npos ? text : text.substr(0, at));
}

/// The attribute as UTF-8 text, or empty.
std::string text_attribute(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  if (!value) {
    PyErr_Clear();
    return {};
  }
  return std::string(py::utf8(value.get()));
}

std::string name_of(PyObject *annotation) {
  if (PyUnicode_Check(annotation))
    return std::string(py::utf8(annotation));
  for (const char *attribute : {"__qualname__", "__name__"})
    if (auto name = text_attribute(annotation, attribute); !name.empty())
      return name;
  auto text = py::object::steal(PyObject_Str(annotation));
  if (!text) {
    PyErr_Clear();
    return {};
  }
  return std::string(py::utf8(text.get()));
}
} // namespace

kest::Type typeOfAnnotationName(std::string_view name) {
  name = cut_before(cut_before(trimmed(name), '['), '|');
  if (const auto dot = name.rfind('.'); dot != std::string_view::npos)
    name = trimmed(name.substr(dot + 1));
  struct row {
    std::initializer_list<std::string_view> names;
    kest::Type (*type)();
  };
  static const row table[] = {
      {{"Any", "_empty"}, [] { return kest::Type(); }},
      {{"None", "NoneType"}, [] { return kest::None::getType(); }},
      {{"bool"}, [] { return kest::Boolean::getType(); }},
      {{"bytearray", "bytes", "memoryview"}, [] { return kest::ByteArray::getType(); }},
      {{"dict", "Mapping", "MutableMapping"}, [] { return kest::HashMap::getType(); }},
      {{"float"}, [] { return kest::Float::getType(); }},
      {{"int"}, [] { return kest::Integer::getType(); }},
      {{"list", "Sequence", "MutableSequence"}, [] { return kest::List::getType(); }},
      {{"set", "Set", "MutableSet"}, [] { return kest::HashSet::getType(); }},
      {{"str"}, [] { return kest::String::getType(); }},
      {{"tuple"}, [] { return kest::Tuple::getType(); }},
      {{"Callable"}, [] { return kest::I_Callable_Generic::getType(); }},
  };
  for (const auto &r : table)
    for (auto n : r.names)
      if (n == name)
        return r.type();
  auto found = kest::find_type(kest::String::fromUtf8(name));
  if (!found.is<kest::Type>()) // types go by qualified name: "List" is the host's own "kest.List"
    found = kest::find_type(kest::String::fromUtf8(std::string("kest.").append(name)));
  return found.is<kest::Type>() ? found.unsafeAs<kest::Type>() : kest::Type();
}

kest::Type typeOfAnnotation(PyObject *annotation) {
  if (!annotation)
    return kest::Type();
  if (annotation == Py_None)
    return kest::None::getType();
  if (PyObject *origin_of = python_classes::get_origin()) {
    auto origin = py::object::steal(PyObject_CallFunctionObjArgs(origin_of, annotation, nullptr));
    if (!origin)
      PyErr_Clear();
    else if (origin.get() != Py_None)
      return typeOfAnnotation(origin.get()); // list[int] is a list
  }
  if (PyType_Check(annotation)) {
    const auto name = name_of(annotation);
    auto by_name = typeOfAnnotationName(name);
    if (!by_name.isUntyped() || name == "Any" || name == "_empty")
      return by_name;
    if (name == "NoneType")
      return kest::None::getType();
    auto cls = typeFromPython(annotation);
    PyErr_Clear();
    return kest::Class_Generic::isInstance(cls) ? kest::Type(kest::Class_Generic::unsafeFrom(cls)) : kest::Type();
  }
  return typeOfAnnotationName(name_of(annotation));
}

} // namespace sarvode
