// CPythonFunction: calls with positional host arguments, and describes the
// Python callable (name, documentation, signature, result type, defaults)
// through Python's own introspection. Signature and result type are computed
// once and cached in hidden fields.

#include "proxies/native_protocols.hpp"
#include "proxies/cpython_function.hpp"

#include "convert/from_python.hpp"
#include "convert/python_classes.hpp"
#include "convert/to_python.hpp"
#include "host/names.hpp"
#include "language/module_dictionary.hpp"
#include "proxies/annotation_type.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/python_call.hpp"
#include "proxies/python_entry.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

#include <cctype>

namespace sarvode {

using kest::internal::result_unwrap_lazy;

namespace {
const kest::meta_field_untyped &independent_field() {
  static const kest::meta_field_untyped name("$_independent");
  return name;
}

kest::Any call(const kest::Any &self, const kest::Any &arguments) {
  auto sequence = kest::I_Sequence::checkedCast(arguments);
  if (sequence.isError())
    return kest::Error::unsafeFrom(sequence);
  auto length = sequence.unsafeAs<kest::I_Sequence>().length();
  if (length.isError())
    return kest::Error::unsafeFrom(length);
  std::vector<kest::Any> args;
  args.reserve(static_cast<std::size_t>(length.unsafeAs<kest::Integer>().value()));
  for (std::int64_t i = 0; i < length.unsafeAs<kest::Integer>().value(); ++i) {
    auto item = result_unwrap_lazy(sequence.unsafeAs<kest::I_Sequence>().at(i));
    if (kest::Error::isInstance(item))
      return item;
    args.push_back(item);
  }
  PythonEntry entry(self);
  PyObject *fn = entry.object();
  if (!fn)
    return {}; // a wrapper without a function: no result
  return callPythonLocked(fn, args);
}

/// A text attribute of the wrapped object; empty when it is missing or no text.
kest::String text_attribute(const kest::Any &self, const char *name) {
  PythonEntry entry(self);
  PyObject *fn = entry.object();
  if (!fn)
    return {};
  auto value = py::object::steal(PyObject_GetAttrString(fn, name));
  if (!value) {
    PyErr_Clear();
    return {};
  }
  auto converted = fromPython(value.get());
  return kest::String::isInstance(converted) ? kest::String::unsafeFrom(converted) : kest::String();
}

kest::String name_of(const kest::Any &self) {
  auto name = text_attribute(self, "__name__");
  if (!name.empty())
    return name;
  // A callable without a name of its own (a partial, an instance with
  // __call__) goes by its Python type's name.
  PythonEntry entry(self);
  PyObject *fn = entry.object();
  if (!fn)
    return kest::String(u"function");
  auto type_name = py::object::steal(PyType_GetName(Py_TYPE(fn)));
  if (!type_name) {
    PyErr_Clear();
    return kest::String(u"function");
  }
  return kest::String::fromUtf8(py::utf8(type_name.get()));
}

kest::Any defaults_of(const kest::Any &self) {
  kest::List list = kest::I_Iterable::createInstance(kest::Type());
  PythonEntry entry(self);
  PyObject *fn = entry.object();
  if (!fn)
    return list;
  auto defaults = py::object::steal(PyObject_GetAttrString(fn, "__defaults__"));
  if (!defaults) {
    PyErr_Clear();
    return list;
  }
  if (PyTuple_Check(defaults.get()))
    for (Py_ssize_t i = 0; i < PyTuple_Size(defaults.get()); ++i)
      (void)list.append(fromPython(PyTuple_GetItem(defaults.get(), i)));
  return list;
}

kest::Any set_defaults(const kest::Any &self, const kest::Any &values) {
  std::vector<kest::Any> items;
  if (kest::List::isInstance(values)) {
    items = kest::List::unsafeFrom(values).copyItems();
  } else {
    auto iterable = kest::I_Iterable::checkedCast(values);
    if (iterable.isError())
      return kest::Error::unsafeFrom(iterable);
    auto collected = iterable.unsafeAs<kest::I_Iterable>().collectImpl();
    if (collected.isError())
      return kest::Error::unsafeFrom(collected);
    items = collected.unsafeAs<kest::List>().copyItems();
  }
  PythonEntry entry(self);
  PyObject *fn = entry.object();
  if (!fn)
    return nullObjectError();
  kest::Any error;
  auto tuple = py::object::steal(pythonArguments(items, error));
  if (!tuple)
    return error;
  if (PyObject_SetAttrString(fn, "__defaults__", tuple.get()) < 0)
    return pythonErrorOr(kest::Error(kest::String(u"Unable to set the defaults.")));
  return kest::None(); // a signature read before keeps the defaults it had
}

/// The result type from the type hints, else from __annotations__.
kest::Type introspected_result_type(PyObject *fn) {
  if (PyObject *hints_of = python_classes::get_type_hints()) {
    auto hints = py::object::steal(PyObject_CallFunctionObjArgs(hints_of, fn, nullptr));
    if (hints && PyDict_Check(hints.get())) {
      PyObject *result = PyDict_GetItemString(hints.get(), "return"); // borrowed
      return result ? typeOfAnnotation(result) : kest::Type();
    }
    PyErr_Clear();
  }
  auto annotations = py::object::steal(PyObject_GetAttrString(fn, "__annotations__"));
  kest::Type type;
  if (annotations && PyDict_Check(annotations.get()))
    if (PyObject *result = PyDict_GetItemString(annotations.get(), "return"))
      type = typeOfAnnotation(result);
  PyErr_Clear();
  return type;
}

kest::Any cached_field(const kest::Any &self, const kest::meta_field_untyped &name) {
  return result_unwrap_lazy(self.fieldValue(name));
}

kest::Any result_type(const kest::Any &self) {
  if (auto cached = cached_field(self, names::result_type()); kest::Type::isInstance(cached))
    return cached;
  if (auto sign = cached_field(self, names::sign()); kest::Signature::isInstance(sign))
    return kest::Signature::unsafeFrom(sign).resultType();
  kest::Type type;
  {
    PythonEntry entry(self);
    if (PyObject *fn = entry.object())
      type = introspected_result_type(fn);
  }
  (void)self.setFieldValue(names::result_type(), type);
  return type;
}

kest::Any signature(const kest::Any &self) {
  if (auto cached = cached_field(self, names::sign()); kest::Signature::isInstance(cached))
    return cached;
  std::vector<kest::Parameter> parameters;
  std::size_t required = 0;
  bool variadic = false, optional_seen = false;
  {
    PythonEntry entry(self);
    PyObject *fn = entry.object();
    if (!fn)
      return kest::Error(kest::String(u"Unable to find the function."));
    PyObject *signature_of = python_classes::inspect_signature();
    if (!signature_of)
      return kest::Error(kest::String(u"Unable to access 'inspect.signature' function."));
    auto sig = py::object::steal(PyObject_CallFunctionObjArgs(signature_of, fn, nullptr));
    if (!sig)
      return pythonErrorOr(kest::Error(kest::String(u"Unable to fetch signature.")));
    auto params = py::object::steal(PyObject_GetAttrString(sig.get(), "parameters"));
    auto values = params ? py::object::steal(PyObject_CallMethod(params.get(), "values", nullptr)) : py::object();
    auto it = values ? py::object::steal(PyObject_GetIter(values.get())) : py::object();
    if (!it)
      return pythonErrorOr(kest::Error(kest::String(u"Unable to fetch signature.")));
    while (auto p = py::object::steal(PyIter_Next(it.get()))) {
      auto name = py::object::steal(PyObject_GetAttrString(p.get(), "name"));
      const auto host_name = name ? kest::String::fromUtf8(py::utf8(name.get())) : kest::String();
      PyErr_Clear();
      auto annotation = py::object::steal(PyObject_GetAttrString(p.get(), "annotation"));
      PyErr_Clear();
      // inspect.Parameter kinds: 2 is *args, 4 is **kwargs.
      auto kind = py::object::steal(PyObject_GetAttrString(p.get(), "kind"));
      const long kind_value = kind ? PyLong_AsLong(kind.get()) : 0;
      auto default_value = py::object::steal(PyObject_GetAttrString(p.get(), "default"));
      auto empty = py::object::steal(PyObject_GetAttrString(p.get(), "empty"));
      PyErr_Clear();
      const bool has_default = default_value && empty && default_value.get() != empty.get();
      if (kind_value == 2 || kind_value == 4)
        variadic = true;
      else if (!has_default && !optional_seen)
        ++required;
      if (has_default || kind_value == 2 || kind_value == 4)
        optional_seen = true;
      if (annotation)
        parameters.emplace_back(host_name, typeOfAnnotation(annotation.get()));
    }
    if (PyErr_Occurred())
      return pythonErrorOr(kest::Error(kest::String(u"Unable to fetch signature.")));
  }
  auto result = kest::Type::unsafeFrom(result_type(self)); // computed by introspection: no cached signature yet
  kest::Signature sig(std::move(parameters), result, required, variadic);
  (void)self.setFieldValue(names::sign(), sig);
  return sig;
}

kest::Any signature_count(const kest::Any &self, std::int64_t (kest::Signature::*count)() const) {
  auto sig = signature(self);
  if (!kest::Signature::isInstance(sig))
    return sig;
  return kest::Integer((kest::Signature::unsafeFrom(sig).*count)());
}

kest::Any is_same(const kest::Any &self, const kest::Any &other) {
  if (!kest::internal::instance_of(other) || !kest::raw_class_of(other).derivesFrom(cpythonFunctionClass()))
    return kest::Boolean(false);
  return kest::Boolean(pythonObjectOf(self) == pythonObjectOf(other));
}

void build(kest::internal::class_builder_base &b) {
  using builder = kest::internal::class_builder_base;
  using A = kest::Any;
  auto property = [&](const char *name, kest::I_Callable_Generic getter, const char *doc,
                      kest::I_Callable_Generic setter = {}) {
    b.add_entry(kest::internal::declared_property(kest::String::fromUtf8(name), std::move(getter),
                                                  kest::String::fromUtf8(doc), std::move(setter)));
  };
  auto method = [&](const char *name, kest::I_Callable_Generic fn, const char *params) {
    const auto text = kest::String::fromUtf8(name);
    b.add_entry(builder::method_entry(kest::meta_method_untyped(text),
                                      kest::internal::declared_function(text, std::move(fn),
                                                                        kest::String::fromUtf8(params), {}, {})));
  };
  b.add_entry(builder::name_entry(kest::String(u"CPythonFunction")));
  b.add_entry(builder::module_entry(kest::String(u"kest.cpython")));
  b.add_entry(builder::doc_entry(kest::String(u"Invokable wrapper around of a Python function.")));
  b.add_entry(builder::base_entry(cpythonObjectClass()));
  b.add_entry(builder::base_entry(kest::I_HasDoc::getClass()));
  b.add_entry(builder::base_entry(kest::I_HasName::getClass()));
  b.add_entry(builder::base_entry(kest::I_Callable_Generic::getClass()));
  method("$__isSame__", kest::make_method([](A self, A other) { return is_same(self, other); }), "self, other");
  method("$call", kest::make_method([](A self, A args) { return call(self, args); }), "self, arguments");
  property("$$doc", kest::make_method([](A self) { return text_attribute(self, "__doc__"); }),
           "Returns description of a function.");
  property("$$name", kest::make_method([](A self) { return name_of(self); }), "");
  property("$$signature", kest::make_method([](A self) { return signature(self); }), "");
  property("$$resultType", kest::make_method([](A self) { return result_type(self); }), "");
  property("$$requiredParameterCount",
           kest::make_method([](A self) { return signature_count(self, &kest::Signature::requiredParameterCount); }), "");
  property("$$parameterCount",
           kest::make_method([](A self) { return signature_count(self, &kest::Signature::parameterCount); }), "");
  property("$$hasVariadicParameters", kest::make_method([](A self) -> A {
             auto sig = signature(self);
             return kest::Signature::isInstance(sig) ? A(kest::Boolean(kest::Signature::unsafeFrom(sig).hasVariadicParameters()))
                                                     : sig;
           }),
           "");
  property("$$defaults", kest::make_method([](A self) { return defaults_of(self); }),
           "Default values for arguments, can be overriden.",
           kest::make_method([](A self, A values) { return set_defaults(self, values); }));
  b.add_entry(builder::field_entry(names::sign().string(), 0, &kest::Signature::getType));
  b.add_entry(builder::field_entry(names::result_type().string(), 0, &kest::Type::getType));
  b.add_entry(builder::field_entry(independent_field().string(), 0, &kest::Boolean::getType));
}

kest::internal::class_declaration g_declaration("CPythonFunction", &build);

/// The name of a "def" text, or empty when the text is no definition.
std::string def_name(std::string_view text) {
  if (text.size() < 4 || text.substr(0, 3) != "def" || !std::isspace(static_cast<unsigned char>(text[3])))
    return {};
  const auto colon = text.find(':', 4);
  if (colon == std::string_view::npos)
    return {};
  auto name = text.substr(4, colon - 4);
  if (const auto paren = name.find('('); paren != std::string_view::npos && paren >= 1)
    name = name.substr(0, paren);
  const auto first = name.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos)
    return {};
  const auto last = name.find_last_not_of(" \t\r\n");
  return std::string(name.substr(first, last - first + 1));
}
} // namespace

kest::Class_Generic cpythonFunctionClass() {
  static const kest::Class_Generic cls = withNativeProtocol(g_declaration.get(), native::function());
  return cls;
}

kest::Any newCPythonFunction(PyObject *callable) {
  if (!callable || !PyCallable_Check(callable))
    return kest::Error(kest::String(u"The source object isn't a function."));
  auto instance = cpythonFunctionClass().allocateInstance();
  if (instance.isError())
    return instance;
  kest::Any wrapper(instance);
  (void)wrapper.setFieldValue(independent_field(), kest::Boolean(true));
  initialisePythonWrapper(wrapper, callable);
  return wrapper;
}

kest::Any compileHelperFunction(const kest::String &source) {
  ensurePythonReady();
  py::gil lock;
  const auto text = source.trimmed().toUtf8();
  auto globals = py::object::steal(PyDict_New());
  if (!globals)
    return pythonErrorOr(kest::Error(kest::String(u"Unable to compile the function.")));
  // The host modules, so that a helper can use them.
  if (PyObject *modules = hostModuleDictionary())
    if (PyDict_Update(globals.get(), modules) < 0)
      PyErr_Clear();
  if (text.rfind("lambda ", 0) == 0) {
    auto fn = py::object::steal(runWithBuiltin("eval", text.c_str(), globals.get(), globals.get()));
    if (!fn) {
      PyErr_Clear();
      return kest::Error(kest::String(u"Unable to compile the function."));
    }
    return newCPythonFunction(fn.get());
  }
  std::string name = def_name(text);
  std::string code = text;
  if (name.empty()) {
    // A bare body becomes the body of "func".
    code = "def func(*args):";
    std::size_t start = 0;
    while (start <= text.size()) {
      const auto end = text.find('\n', start);
      code += "\n\t" + text.substr(start, end == std::string::npos ? std::string::npos : end - start);
      if (end == std::string::npos)
        break;
      start = end + 1;
    }
    name = "func";
  }
  auto ran = py::object::steal(runWithBuiltin("exec", code.c_str(), globals.get(), globals.get()));
  if (!ran) {
    PyErr_Clear();
    return kest::Error(kest::String(u"Unable to compile the function."));
  }
  PyObject *fn = PyDict_GetItemString(globals.get(), name.c_str()); // borrowed
  if (!fn || !PyCallable_Check(fn)) {
    PyErr_Clear();
    return kest::Error(kest::String::fromUtf8(fmt::format("Unable to find the function: {}.", name)));
  }
  return newCPythonFunction(fn);
}

} // namespace sarvode
