// Forwarding members of the proxy classes.

#include "proxies/proxy_members.hpp"

#include "convert/from_python.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/proxy_classes.hpp"
#include "proxies/python_entry.hpp"

namespace sarvode::proxy {

using kest::internal::result_unwrap_lazy;

kest::Any cast_result(const kest::Any &result, result_as as) {
  if (kest::Error::isInstance(result))
    return result;
  switch (as) {
  case result_as::none:
    return kest::None();
  case result_as::boolean:
    return kest::internal::result_unwrap_lazy(kest::Boolean::checkedCast(result));
  case result_as::integer:
    return kest::internal::result_unwrap_lazy(kest::Integer::checkedCast(result));
  case result_as::any:
    break;
  }
  return result;
}

namespace {
/// The parameters named in "self, key, value", all untyped.
std::vector<kest::Parameter> parameters_of(const char *params) {
  std::vector<kest::Parameter> out;
  const std::string text(params);
  std::size_t start = 0;
  while (start < text.size()) {
    auto end = text.find(", ", start);
    out.emplace_back(kest::String::fromUtf8(text.substr(start, end - start)), kest::Type());
    if (end == std::string::npos)
      break;
    start = end + 2;
  }
  return out;
}
} // namespace

kest::Any method(const char *name, kest::I_Callable_Generic fn, const char *params, std::vector<kest::Any> defaults) {
  const auto text = kest::String::fromUtf8(name);
  return builder::method_entry(kest::meta_method_untyped(text),
                               kest::internal::declared_function(text, std::move(fn), kest::String::fromUtf8(params),
                                                                 {}, std::move(defaults)));
}

kest::Any forwarding_method(const char *name, const char *python, const char *params, result_as as,
                            std::vector<kest::Any> defaults) {
  auto parameters = parameters_of(params);
  const auto count = parameters.size();
  const auto required = count - std::min(defaults.size(), count);
  auto fn = kest::internal::make_callable(
      [python, as](std::span<const kest::Any> args) -> kest::Any {
        return cast_result(callPythonMethod(args[0], python, args.subspan(1)), as);
      },
      kest::Signature(std::move(parameters), kest::Type(), required), false);
  return method(name, std::move(fn), params, std::move(defaults));
}

kest::Any property(const char *name, kest::I_Callable_Generic getter) {
  return kest::internal::declared_property(kest::String::fromUtf8(name), std::move(getter));
}

std::vector<kest::Any> class_head(const char *name, const char *doc, std::vector<kest::Class_Generic> interfaces) {
  std::vector<kest::Any> entries{builder::name_entry(kest::String::fromUtf8(name)),
                                 builder::module_entry(kest::String(u"kest.cpython")),
                                 builder::doc_entry(kest::String::fromUtf8(doc)),
                                 builder::base_entry(cpythonObjectClass())};
  for (auto &interface : interfaces)
    entries.push_back(builder::base_entry(interface));
  return entries;
}

kest::Any iter_method() {
  return method("iter", kest::make_method([](kest::Any self) { return iterateProxy(self); }), "self");
}

kest::Any listed_view(const kest::Any &self, const char *python) {
  kest::List list = kest::I_Iterable::createInstance(kest::Type());
  PythonEntry entry(self);
  PyObject *object = entry.object();
  if (!object)
    return nullObjectError();
  auto view = py::object::steal(PyObject_CallMethod(object, python, nullptr));
  auto it = view ? py::object::steal(PyObject_GetIter(view.get())) : py::object();
  if (!it)
    return pythonErrorOr(kest::Error(kest::String(u"Unable to iterate the view.")));
  while (auto item = py::object::steal(PyIter_Next(it.get())))
    (void)list.append(fromPython(item.get()));
  if (PyErr_Occurred())
    return pythonErrorOr(kest::Error(kest::String(u"Unable to iterate the view.")));
  return list;
}

} // namespace sarvode::proxy
