// Python type stubs of the host modules. Each module's classes and functions
// are read through reflection and written as Python declarations, with every
// host type given as the Python type that its values are in Python.

#include "stub_writer.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <system_error>

namespace sarvode {

namespace {

// --- names --------------------------------------------------------------------------

bool is_python_keyword(std::string_view name) {
  static const std::set<std::string_view> keywords{
      "False", "None",     "True",  "and",    "as",   "assert", "async",  "await",    "break",
      "class", "continue", "def",   "del",    "elif", "else",   "except", "finally",  "for",
      "from",  "global",   "if",    "import", "in",   "is",     "lambda", "nonlocal", "not",
      "or",    "pass",     "raise", "return", "try",  "while",  "with",   "yield"};
  return keywords.count(name) != 0;
}

/// True for a name a stub can declare: an ASCII identifier that is no keyword.
/// (Python allows other letters too; host names seldom use them, and a stub
/// that skips one is still correct.)
bool is_identifier(std::string_view name) {
  if (name.empty() || is_python_keyword(name) || (name.front() >= '0' && name.front() <= '9'))
    return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  });
}

/// Only these modules import in Python (the extension's importer takes no others).
bool is_importable(std::string_view module) {
  return module == "kest" || module.starts_with("kest.");
}

std::string parent_of(const std::string &module) {
  auto dot = module.rfind('.');
  return dot == std::string::npos ? std::string() : module.substr(0, dot);
}

// --- the module being written -------------------------------------------------------

/// Where a written class is found: its module and the name it has there.
struct class_place {
  std::string module, name;
};

/// The modules that get a stub and the classes written in them, by class object.
struct stub_catalogue {
  std::set<std::string> modules;
  std::map<const void *, class_place> classes;
};

/// What the text of one module refers to: its own name decides how host
/// classes are named, and the other host modules it names are imported.
struct module_context {
  std::string name;
  const stub_catalogue *catalogue = nullptr;
  std::set<std::string> imports;

  [[nodiscard]] bool is_package_of(const std::string &module) const { return module.starts_with(name + "."); }
};

const std::string any_type = "_typing.Any";

/// How a module's text names a written class: bare in its own module, through
/// the sub-module attribute below it, qualified (and imported) anywhere else.
std::optional<std::string> class_reference(const kest::Class_Generic &cls, module_context &m) {
  auto it = m.catalogue->classes.find(cls.get());
  if (it == m.catalogue->classes.end())
    return std::nullopt;
  const auto &[module, name] = it->second;
  if (module == m.name)
    return name;
  if (m.is_package_of(module))
    return module.substr(m.name.size() + 1) + "." + name;
  m.imports.insert(module);
  return module + "." + name;
}

// --- types --------------------------------------------------------------------------

std::string python_type(const kest::Type &type, module_context &m, bool parameter);

/// The `index`th generic argument of a class as a Python type; Any when absent.
std::string argument(const std::vector<kest::Type> &arguments, std::size_t index, module_context &m, bool parameter) {
  return index < arguments.size() ? python_type(arguments[index], m, parameter) : any_type;
}

std::string union_of(const std::vector<std::string> &alternatives) {
  std::vector<std::string> distinct;
  for (auto &alternative : alternatives) {
    if (alternative == any_type)
      return any_type; // Any absorbs the others
    if (std::find(distinct.begin(), distinct.end(), alternative) == distinct.end())
      distinct.push_back(alternative);
  }
  if (distinct.empty())
    return any_type;
  return fmt::format("{}", fmt::join(distinct, " | "));
}

/// The Python forms of the host's value classes (converted, not wrapped).
std::optional<std::string> value_type(const kest::Class_Generic &cls) {
  static const std::array<std::pair<const kest::Class_Generic &(*)(), const char *>, 10> table{{
      {&kest::None::getClass, "None"},
      {&kest::Boolean::getClass, "bool"},
      {&kest::Integer::getClass, "int"},
      {&kest::Float::getClass, "float"},
      {&kest::String::getClass, "str"},
      {&kest::ByteArray::getClass, "bytes"},
      {&kest::Decimal::getClass, "_decimal.Decimal"},
      {&kest::Date::getClass, "_datetime.date"},
      {&kest::Time::getClass, "_datetime.time"},
      {&kest::DateTime::getClass, "_datetime.datetime"},
  }};
  for (auto &[get, text] : table)
    if (cls.isSame(get()))
      return text;
  return std::nullopt;
}

/// The host's protocol interfaces and the abstract collections that Python code
/// uses for them: what a host function that takes an I_MutableMap accepts is
/// any mutable mapping (a dict is wrapped for it).
struct protocol {
  const kest::Class_Generic &(*interface)();
  const char *abc;
  std::size_t arity; // element types: 1, or 2 for key and value
};
const std::array<protocol, 8> &protocols() {
  // Narrowest first: a class takes the first that it implements.
  static const std::array<protocol, 8> table{{
      {&kest::I_MutableSequence::getClass, "MutableSequence", 1},
      {&kest::I_Sequence::getClass, "Sequence", 1},
      {&kest::I_MutableMap::getClass, "MutableMapping", 2},
      {&kest::I_Map::getClass, "Mapping", 2},
      {&kest::I_MutableSet::getClass, "MutableSet", 1},
      {&kest::I_Set::getClass, "AbstractSet", 1},
      {&kest::I_Iterator::getClass, "Iterator", 1},
      {&kest::I_Iterable::getClass, "Iterable", 1},
  }};
  return table;
}

const protocol *protocol_named_by(const kest::Class_Generic &cls) {
  for (auto &p : protocols())
    if (cls.isSame(p.interface()))
      return &p;
  return nullptr;
}

std::string abc_of(const protocol &p, const std::vector<kest::Type> &arguments, module_context &m, bool parameter) {
  if (p.arity == 2)
    return fmt::format("_typing.{}[{}, {}]", p.abc, argument(arguments, 0, m, parameter),
                       argument(arguments, 1, m, parameter));
  return fmt::format("_typing.{}[{}]", p.abc, argument(arguments, 0, m, parameter));
}

/// `cls` with the generic arguments `arguments` when the stub declares it generic.
std::string generic_reference(const kest::Class_Generic &cls, const std::vector<kest::Type> &arguments,
                              std::size_t arity, module_context &m, bool parameter) {
  auto reference = class_reference(cls, m);
  if (!reference)
    return any_type;
  if (arity == 2)
    return fmt::format("{}[{}, {}]", *reference, argument(arguments, 0, m, parameter),
                       argument(arguments, 1, m, parameter));
  return fmt::format("{}[{}]", *reference, argument(arguments, 0, m, parameter));
}

/// The Python type of values of a host type. `parameter` is true for what a
/// function takes: a host List parameter takes any iterable (the host copies
/// it), so it is written as one.
std::string python_type(const kest::Type &type, module_context &m, bool parameter) {
  if (!kest::Class_Generic::isInstance(type) || type.isUntyped())
    return any_type;
  auto cls = kest::Class_Generic::unsafeFrom(type);
  if (cls.hasFlag(kest::class_flags::top_type))
    return any_type;
  if (cls.hasFlag(kest::class_flags::union_type)) { // the alternatives are its bases
    std::vector<std::string> alternatives;
    for (auto &alternative : cls.bases())
      alternatives.push_back(python_type(kest::Type(alternative), m, parameter));
    return union_of(alternatives);
  }
  std::vector<kest::Type> arguments;
  if (cls.hasFlag(kest::class_flags::generic_instance)) {
    arguments = cls.genericArguments();
    if (auto definition = cls.genericDefinition(); kest::Class_Generic::isInstance(definition))
      cls = kest::Class_Generic::unsafeFrom(definition);
  }
  if (auto value = value_type(cls))
    return *value;
  if (cls.isSame(kest::Tuple::getClass())) {
    if (arguments.empty())
      return "tuple[_typing.Any, ...]";
    std::vector<std::string> items;
    for (auto &item : arguments)
      items.push_back(python_type(item, m, parameter));
    return fmt::format("tuple[{}]", fmt::join(items, ", "));
  }
  if (cls.isSame(kest::List::getClass()))
    return parameter ? fmt::format("_typing.Iterable[{}]", argument(arguments, 0, m, parameter))
                     : generic_reference(cls, arguments, 1, m, parameter);
  if (cls.isSame(kest::HashMap::getClass()))
    return generic_reference(cls, arguments, 2, m, parameter);
  if (cls.isSame(kest::HashSet::getClass()))
    return generic_reference(cls, arguments, 1, m, parameter);
  if (cls.isSame(kest::I_Callable_Generic::getClass()))
    return "_typing.Callable[..., _typing.Any]";
  if (auto *p = protocol_named_by(cls))
    return abc_of(*p, arguments, m, parameter);
  return class_reference(cls, m).value_or(any_type);
}

/// What a call gives: an error class there means the call always raises.
std::string result_type(const kest::Type &type, module_context &m) {
  if (!kest::Class_Generic::isInstance(type))
    return any_type;
  auto cls = kest::Class_Generic::unsafeFrom(type);
  const auto &error = kest::Error::getClass();
  if (cls.hasFlag(kest::class_flags::union_type)) {
    std::vector<std::string> alternatives;
    for (auto &alternative : cls.bases())
      if (!alternative.derivesFrom(error))
        alternatives.push_back(python_type(kest::Type(alternative), m, false));
    return alternatives.empty() ? "_typing.NoReturn" : union_of(alternatives);
  }
  if (!cls.hasFlag(kest::class_flags::top_type) && cls.derivesFrom(error))
    return "_typing.NoReturn";
  return python_type(type, m, false);
}

// --- text ---------------------------------------------------------------------------

/// A docstring at `indent`: backslashes and quotes escaped, so that no text
/// can end it early.
std::string docstring(const kest::String &doc, const std::string &indent) {
  std::string text;
  for (char c : doc.toUtf8()) {
    if (c == '\\' || c == '"')
      text += '\\';
    text += c;
    if (c == '\n')
      text += indent;
  }
  return fmt::format("{}\"\"\"{}\"\"\"\n", indent, text);
}

/// The end of a `def` line and its body: the docstring when there is one,
/// else "..."; `comment` ends the line.
std::string body(const kest::String &doc, const std::string &indent, std::string_view comment = {}) {
  const auto end = comment.empty() ? std::string("\n") : fmt::format("  {}\n", comment);
  return doc.empty() ? " ..." + end : end + docstring(doc, indent);
}

// --- functions ----------------------------------------------------------------------

/// The parameter list of a signature as Python declares it. `skip` leaves out
/// the instance parameter of a method, for which `self` is written instead.
std::string parameter_list(const kest::Signature &signature, std::size_t skip, const char *self, module_context &m) {
  const auto parameters = signature.parameters();
  const auto required = static_cast<std::size_t>(std::max<std::int64_t>(signature.requiredParameterCount(), 0));
  std::vector<std::string> out;
  if (self)
    out.emplace_back(self);
  std::set<std::string> taken{self ? self : ""};
  std::size_t positional_only = 0; // a name that is no identifier can only be given by position
  for (std::size_t i = skip; i < parameters.size(); ++i) {
    auto name = parameters[i].name().toUtf8();
    if (!is_identifier(name) || taken.count(name)) {
      name = fmt::format("_p{}", i);
      positional_only = out.size() + 1;
    }
    taken.insert(name);
    auto text = fmt::format("{}: {}", name, python_type(parameters[i].type(), m, true));
    if (i >= required)
      text += " = ...";
    out.push_back(std::move(text));
  }
  if (positional_only > 0)
    out.insert(out.begin() + static_cast<std::ptrdiff_t>(positional_only), "/");
  if (signature.hasVariadicParameters())
    out.emplace_back("*args: _typing.Any");
  return fmt::format("{}", fmt::join(out, ", "));
}

/// `def name(...) -> result:` with the callable's docstring, at `indent`.
/// A method that takes its instance declares `self`; any other is static.
std::string function_text(const std::string &name, const kest::I_Callable_Generic &fn, const std::string &indent,
                          bool method, module_context &m, std::string_view comment = {}) {
  const bool takes_instance = method && !fn.isIndependent();
  std::string out;
  if (method && !takes_instance)
    out += indent + "@staticmethod\n";
  const auto signature = fn.signature();
  out += fmt::format("{}def {}({}) -> {}:", indent, name,
                     parameter_list(signature, takes_instance ? 1 : 0, takes_instance ? "self" : nullptr, m),
                     result_type(signature.resultType(), m));
  return out + body(fn.doc(), indent + "    ", comment);
}

// --- classes ------------------------------------------------------------------------

/// The members a class declares itself (its bases' are not repeated), in
/// declaration order, with the names they have in Python.
std::vector<std::pair<std::string, kest::Any>>
own_members(const kest::Class_Generic &cls, kest::internal::member_table kest::internal::object_value_class::*table) {
  std::vector<std::pair<std::string, kest::Any>> out;
  if (!cls)
    return out;
  std::lock_guard guard(cls->lock);
  for (auto &[name, member] : ((*cls.value()).*table).entries)
    out.emplace_back(name->utf8, member);
  return out;
}

/// The first protocol that a class implements, by derivation or by its flags.
const protocol *protocol_of(const kest::Class_Generic &cls) {
  for (auto &p : protocols())
    if (cls.derivesFrom(p.interface()))
      return &p;
  if (cls.hasFlag(kest::class_flags::sequence))
    return &protocols()[0];
  if (cls.hasFlag(kest::class_flags::map))
    return &protocols()[2];
  if (cls.hasFlag(kest::class_flags::set))
    return &protocols()[4];
  return nullptr;
}

/// The abstract members of a collection, so that the stub class can be made:
/// the host answers each of them (len, [], iteration, ...) through the
/// interface it implements.
std::vector<std::string> collection_members(const protocol &p, const std::string &item, const std::string &key,
                                            const std::string &value) {
  const std::string abc = p.abc;
  if (abc == "Iterable")
    return {fmt::format("def __iter__(self) -> _typing.Iterator[{}]: ...", item)};
  if (abc == "Iterator")
    return {fmt::format("def __next__(self) -> {}: ...", item),
            fmt::format("def __iter__(self) -> _typing.Iterator[{}]: ...", item)};
  std::vector<std::string> out{"def __len__(self) -> int: ..."};
  // copy (and a list's sort) are Python's on every host collection.
  if (abc == "Mapping" || abc == "MutableMapping")
    out.push_back(fmt::format("def copy(self) -> _typing.{}[{}, {}]: ...", abc, key, value));
  else if (abc != "Iterable" && abc != "Iterator")
    out.push_back(fmt::format("def copy(self) -> _typing.{}[{}]: ...", abc, item));
  if (abc == "MutableSequence")
    out.push_back(fmt::format(
        "def sort(self, *, key: _typing.Callable[[{}], _typing.Any] | None = ..., reverse: bool = ...) -> None: ...",
        item));
  if (abc == "Sequence" || abc == "MutableSequence") {
    out.insert(out.end(), {"@_typing.overload", fmt::format("def __getitem__(self, index: int) -> {}: ...", item),
                           "@_typing.overload",
                           fmt::format("def __getitem__(self, index: slice) -> _typing.{}[{}]: ...", abc, item)});
    if (abc == "MutableSequence")
      out.insert(out.end(),
                 {"@_typing.overload", fmt::format("def __setitem__(self, index: int, value: {}) -> None: ...", item),
                  "@_typing.overload",
                  fmt::format("def __setitem__(self, index: slice, value: _typing.Iterable[{}]) -> None: ...", item),
                  "def __delitem__(self, index: int | slice) -> None: ...",
                  fmt::format("def insert(self, index: int, value: {}) -> None: ...", item)});
  } else if (abc == "Mapping" || abc == "MutableMapping") {
    out.insert(out.end(), {fmt::format("def __getitem__(self, key: {}) -> {}: ...", key, value),
                           fmt::format("def __iter__(self) -> _typing.Iterator[{}]: ...", key)});
    if (abc == "MutableMapping")
      out.insert(out.end(), {fmt::format("def __setitem__(self, key: {}, value: {}) -> None: ...", key, value),
                             fmt::format("def __delitem__(self, key: {}) -> None: ...", key)});
  } else { // the sets
    out.insert(out.end(), {"def __contains__(self, value: object) -> bool: ...",
                           fmt::format("def __iter__(self) -> _typing.Iterator[{}]: ...", item)});
    if (abc == "MutableSet")
      out.insert(out.end(), {fmt::format("def add(self, value: {}) -> None: ...", item),
                             fmt::format("def discard(self, value: {}) -> None: ...", item)});
  }
  return out;
}

/// The host's operator methods ("$__add__", ...) and the Python operators
/// that the extension calls them for.
const std::vector<std::pair<std::string_view, std::vector<std::string_view>>> &operator_methods() {
  static const std::vector<std::pair<std::string_view, std::vector<std::string_view>>> table{
      {"__add__", {"__add__"}},
      {"__sub__", {"__sub__"}},
      {"__mul__", {"__mul__"}},
      {"__div__", {"__truediv__"}},
      {"__not__", {"__invert__"}},
      {"__and__", {"__and__"}},
      {"__or__", {"__or__"}},
      {"__xor__", {"__xor__"}},
      {"__iadd__", {"__iadd__"}},
      {"__isub__", {"__isub__"}},
      {"__imul__", {"__imul__"}},
      {"__idiv__", {"__itruediv__"}},
      {"__compare__", {"__lt__", "__le__", "__gt__", "__ge__"}},
  };
  return table;
}

/// A Python operator from a host operator method: its operand and result as
/// the host method declares them (a comparison always gives a bool).
std::string operator_text(std::string_view python, const kest::I_Callable_Generic &fn, bool comparison,
                          module_context &m) {
  const auto signature = fn.signature();
  const auto parameters = signature.parameters();
  const std::size_t skip = fn.isIndependent() ? 0 : 1;
  std::string operand;
  if (parameters.size() > skip)
    operand = fmt::format(", other: {}", python_type(parameters[skip].type(), m, true));
  return fmt::format("def {}(self{}) -> {}: ...", python, operand,
                     comparison ? "bool" : result_type(signature.resultType(), m));
}

/// An error class: Python raises host errors as exceptions derived from
/// RuntimeError, and the host error itself is their attribute `kest`.
std::string error_class_text(const std::string &name, const kest::Class_Generic &cls, module_context &m) {
  if (cls.isSame(kest::Error::getClass()))
    return fmt::format("# A plain host error is raised as RuntimeError itself.\n{} = RuntimeError\n", name);
  std::vector<std::string> bases;
  for (auto &base : cls.bases())
    if (base.derivesFrom(kest::Error::getClass()))
      if (auto reference = class_reference(base, m))
        bases.push_back(*reference);
  if (bases.empty())
    bases.emplace_back("RuntimeError");
  auto out = fmt::format("class {}({}):\n", name, fmt::join(bases, ", "));
  if (!cls.doc().empty())
    out += docstring(cls.doc(), "    ");
  return out + "    kest: _typing.Any  # the host error\n";
}

/// Writes the members of one class; `lines` gathers them, each name once.
struct class_body {
  std::vector<std::string> lines;
  std::set<std::string> names;

  /// Adds `text` (lines at one indent) for `name`, unless it was declared already.
  bool add(const std::string &name, const std::string &text) {
    if (!names.insert(name).second)
      return false;
    lines.push_back(text);
    return true;
  }
};

std::string indented(const std::string &text) {
  std::string out = "    ";
  for (std::size_t i = 0; i < text.size(); ++i) {
    out += text[i];
    if (text[i] == '\n' && i + 1 < text.size() && text[i + 1] != '\n')
      out += "    ";
  }
  return out;
}

// --- overrides ----------------------------------------------------------------------
//
// A host class may replace a member of its base with one of another signature,
// and a host collection's own "get" or "pop" differs from Python's. A checker
// reports such a stub member as an incompatible override; it is marked to be
// ignored, and only when it is one (a needless mark is itself reported under
// --strict).

/// A method of Python's abstract collections, as far as an override decides:
/// how many arguments it takes, those that must be int, and what it gives
/// (empty: any type fits).
struct abc_method {
  std::string_view name;
  std::size_t required, total;
  std::vector<std::string_view> types;
  std::string_view result;
};

const std::vector<abc_method> &abc_methods(std::string_view abc) {
  static const std::vector<abc_method> none;
  static const std::vector<abc_method> mapping{
      {"get", 1, 2, {}, ""}, {"keys", 0, 0, {}, ""}, {"items", 0, 0, {}, ""}, {"values", 0, 0, {}, ""}};
  static const std::vector<abc_method> mutable_mapping{{"get", 1, 2, {}, ""},
                                                       {"keys", 0, 0, {}, ""},
                                                       {"items", 0, 0, {}, ""},
                                                       {"values", 0, 0, {}, ""},
                                                       {"pop", 1, 2, {}, ""},
                                                       {"popitem", 0, 0, {}, ""},
                                                       {"clear", 0, 0, {}, "None"},
                                                       {"update", 0, 99, {}, "None"}, // it takes keyword arguments as
                                                                                      // well: no host method fits
                                                       {"setdefault", 1, 2, {}, ""}};
  static const std::vector<abc_method> sequence{{"index", 1, 3, {"", "int", "int"}, "int"}, {"count", 1, 1, {}, "int"}};
  static const std::vector<abc_method> mutable_sequence{{"index", 1, 3, {"", "int", "int"}, "int"},
                                                        {"count", 1, 1, {}, "int"},
                                                        {"append", 1, 1, {}, "None"},
                                                        {"extend", 1, 1, {}, "None"},
                                                        {"reverse", 0, 0, {}, "None"},
                                                        {"pop", 0, 1, {"int"}, ""},
                                                        {"remove", 1, 1, {}, "None"},
                                                        {"clear", 0, 0, {}, "None"},
                                                        {"insert", 2, 2, {"int"}, "None"}};
  static const std::vector<abc_method> set{{"isdisjoint", 1, 1, {}, "bool"}};
  static const std::vector<abc_method> mutable_set{
      {"isdisjoint", 1, 1, {}, "bool"}, {"add", 1, 1, {}, "None"}, {"discard", 1, 1, {}, "None"},
      {"remove", 1, 1, {}, "None"},     {"pop", 0, 0, {}, ""},     {"clear", 0, 0, {}, "None"}};
  if (abc == "Mapping")
    return mapping;
  if (abc == "MutableMapping")
    return mutable_mapping;
  if (abc == "Sequence")
    return sequence;
  if (abc == "MutableSequence")
    return mutable_sequence;
  if (abc == "AbstractSet")
    return set;
  if (abc == "MutableSet")
    return mutable_set;
  return none;
}

/// True when a type written in place of `wanted` is accepted for it both ways
/// the checker asks (the same type, or Any on either side).
bool same_or_any(const std::string &written, std::string_view wanted) {
  return wanted.empty() || written == wanted || written == any_type || wanted == any_type;
}

/// The Python types of a method's parameters (the instance left out) and its result.
struct method_shape {
  std::vector<std::string> parameters;
  std::size_t required = 0;
  bool variadic = false;
  std::string result;
};

method_shape shape_of(const kest::I_Callable_Generic &fn, module_context &m) {
  method_shape shape;
  const auto signature = fn.signature();
  const auto parameters = signature.parameters();
  const std::size_t skip = fn.isIndependent() ? 0 : 1;
  for (std::size_t i = skip; i < parameters.size(); ++i)
    shape.parameters.push_back(python_type(parameters[i].type(), m, true));
  const auto required = static_cast<std::size_t>(std::max<std::int64_t>(signature.requiredParameterCount(), 0));
  shape.required = required > skip ? required - skip : 0;
  shape.variadic = signature.hasVariadicParameters();
  shape.result = result_type(signature.resultType(), m);
  return shape;
}

/// True when every call the base allows is one the override takes, and what
/// it gives is what the base gives.
bool fits(const method_shape &own, std::size_t required, std::size_t total, const std::vector<std::string> &types,
          const std::string &result) {
  if (own.required > required || (own.parameters.size() < total && !own.variadic))
    return false;
  for (std::size_t i = 0; i < types.size() && i < own.parameters.size(); ++i)
    if (!same_or_any(own.parameters[i], types[i]))
      return false;
  return own.result == "_typing.NoReturn" || same_or_any(own.result, result);
}

/// True when the method `name` of `cls` would be an incompatible override of
/// its abstract collection's method or of a host base's member.
bool incompatible_method(const kest::Class_Generic &cls, const std::string &name, const kest::I_Callable_Generic &fn,
                         const protocol *p, module_context &m) {
  const auto own = shape_of(fn, m);
  if (p)
    for (auto &base : abc_methods(p->abc))
      if (base.name == name &&
          !fits(own, base.required, base.total, std::vector<std::string>(base.types.begin(), base.types.end()),
                std::string(base.result)))
        return true;
  for (auto &base : cls.bases()) {
    if (!kest::is_none(base.definedProperty(kest::meta_property_untyped(name))) ||
        !kest::is_none(base.definedField(kest::meta_field_untyped(name))))
      return true; // a method in place of an attribute
    if (auto method = base.definedMethod(kest::meta_method_untyped(name)); method.is<kest::I_Callable_Generic>()) {
      const auto inherited = shape_of(method.as<kest::I_Callable_Generic>(), m);
      if (!fits(own, inherited.required, inherited.parameters.size(), inherited.parameters, inherited.result))
        return true;
    }
  }
  return false;
}

/// True when an attribute `name` of type `type` would be an incompatible
/// override: the bases have a method of that name, or another type for it.
bool incompatible_attribute(const kest::Class_Generic &cls, const std::string &name, const std::string &type,
                            const protocol *p, module_context &m) {
  if (p)
    for (auto &base : abc_methods(p->abc))
      if (base.name == name)
        return true;
  for (auto &base : cls.bases()) {
    if (!kest::is_none(base.definedMethod(kest::meta_method_untyped(name))))
      return true;
    if (auto property = base.definedProperty(kest::meta_property_untyped(name)); property.is<kest::Property>())
      if (!same_or_any(type, result_type(property.as<kest::Property>().getter().signature().resultType(), m)))
        return true;
    if (auto field = base.definedField(kest::meta_field_untyped(name)); field.is<kest::Field>())
      if (!same_or_any(type, python_type(field.as<kest::Field>().type(), m, false)))
        return true;
  }
  return false;
}

const std::string ignore_override = "# type: ignore[override]";

/// True when `name` is a method that Python gives the host collections of
/// this protocol (its abstract collection's, and copy and sort): on the
/// Python side it wins over a host member of that name, so the stub leaves
/// the host's out.
bool python_method_wins(const protocol *p, const std::string &name) {
  if (!p)
    return false;
  const std::string_view abc = p->abc;
  if (abc != "Mapping" && abc != "MutableMapping" && abc != "Sequence" && abc != "MutableSequence" &&
      abc != "AbstractSet" && abc != "MutableSet")
    return false;
  const auto &methods = abc_methods(abc);
  return name == "copy" || (abc == "MutableSequence" && name == "sort") ||
         std::any_of(methods.begin(), methods.end(), [&](const abc_method &m) { return m.name == name; });
}

void add_fields(class_body &b, const kest::Class_Generic &cls, const protocol *p, module_context &m) {
  for (auto &[name, member] : own_members(cls, &kest::internal::object_value_class::fields)) {
    if (!kest::Field::isInstance(member) || name.starts_with('_') || !is_identifier(name) || python_method_wins(p, name))
      continue;
    auto field = kest::Field::unsafeFrom(member);
    if (field.flags() & kest::field_flags::hidden)
      continue;
    const auto type = python_type(field.type(), m, false);
    const auto suffix = incompatible_attribute(cls, name, type, p, m) ? "  " + ignore_override : std::string();
    if (field.flags() & kest::field_flags::read_only)
      b.add(name, fmt::format("@property\ndef {}(self) -> {}: ...{}\n", name, type, suffix));
    else
      b.add(name, fmt::format("{}: {}{}\n", name, type, suffix));
  }
}

void add_properties(class_body &b, const kest::Class_Generic &cls, const protocol *p, module_context &m) {
  for (auto &property : cls.ownDefinedProperties()) {
    const auto name = property.name().toUtf8();
    if (property.hidden() || name.starts_with('_') || !is_identifier(name) || python_method_wins(p, name))
      continue;
    const auto type = property.isValueProperty() // one value for the class
                          ? python_type(kest::Type(kest::class_of(property.storedValue())), m, false)
                          : result_type(property.getter().signature().resultType(), m);
    const auto comment = incompatible_attribute(cls, name, type, p, m) ? ignore_override : std::string();
    const auto suffix = comment.empty() ? std::string() : "  " + comment;
    if (property.isValueProperty()) {
      b.add(name, fmt::format("{}: {}{}\n", name, type, suffix));
      continue;
    }
    auto text = fmt::format("@property\ndef {}(self) -> {}:{}", name, type, body(property.doc(), "    ", comment));
    if (auto setter = property.setter(); setter.is<kest::I_Callable_Generic>()) {
      const auto parameters = setter.as<kest::I_Callable_Generic>().signature().parameters();
      const auto value = parameters.empty() ? any_type : python_type(parameters.back().type(), m, true);
      text += fmt::format("@{}.setter\ndef {}(self, value: {}) -> None: ...{}\n", name, name, value, suffix);
    }
    b.add(name, text);
  }
}

/// Methods, the constructor, the call and the operators of a class.
void add_methods(class_body &b, const kest::Class_Generic &cls, const protocol *p, module_context &m) {
  std::map<std::string, kest::I_Callable_Generic> meta; // "$"-named methods, by name
  std::vector<std::pair<std::string, kest::I_Callable_Generic>> plain;
  for (auto &[name, member] : own_members(cls, &kest::internal::object_value_class::methods)) {
    if (!kest::I_Callable_Generic::isInstance(member))
      continue;
    auto fn = kest::I_Callable_Generic::unsafeFrom(member);
    if (fn.name().startsWith(u"$") || name.starts_with('_'))
      meta.emplace(name, fn);
    else if (is_identifier(name) && !python_method_wins(p, name))
      plain.emplace_back(name, fn);
  }
  if (auto init = meta.find("__init__"); init != meta.end()) {
    // Calling the class runs "$__init__": a factory with all its parameters,
    // or an initialiser of a new instance, which is its first parameter.
    const auto &fn = init->second;
    const auto signature = fn.signature();
    b.add("__init__",
          fmt::format("def __init__({}) -> None:{}", parameter_list(signature, fn.isIndependent() ? 0 : 1, "self", m),
                      body(fn.doc(), "    ")));
  }
  // Calling an instance runs its "$call", with the arguments as one list.
  auto call = std::find_if(plain.begin(), plain.end(), [](auto &entry) { return entry.first == "call"; });
  if (cls.hasFlag(kest::class_flags::callable) && call != plain.end())
    b.add("__call__", fmt::format("def __call__(self, *args: _typing.Any) -> {}: ...\n",
                                  result_type(call->second.signature().resultType(), m)));
  for (auto &[name, fn] : plain)
    b.add(name, function_text(name, fn, "", true, m, incompatible_method(cls, name, fn, p, m) ? ignore_override : ""));
  for (auto &[host, python] : operator_methods())
    if (auto it = meta.find(std::string(host)); it != meta.end())
      for (auto name : python)
        b.add(std::string(name), operator_text(name, it->second, host == "__compare__", m) + "\n");
  if (auto it = std::find_if(plain.begin(), plain.end(), [](auto &entry) { return entry.first == "concat"; });
      it != plain.end())
    b.add("__add__", operator_text("__add__", it->second, false, m) + "\n"); // '+' falls back to concat
  if (auto len = cls.definedProperty(kest::meta_property_untyped("$$__len__")); len.is<kest::Property>())
    b.add("__len__", "def __len__(self) -> int: ...\n");
}

/// The bases of a class as the stub writes them: its written host bases, and
/// the abstract collection of the protocol it implements unless a base brings it.
std::vector<std::string> class_bases(const kest::Class_Generic &cls, const protocol *p, bool &adds_collection,
                                     std::vector<kest::Type> &element_types, module_context &m) {
  std::vector<std::string> bases;
  bool inherited = false;
  for (auto base : cls.bases()) {
    if (base.hasFlag(kest::class_flags::generic_instance)) {
      auto arguments = base.genericArguments();
      if (auto definition = base.genericDefinition(); kest::Class_Generic::isInstance(definition))
        base = kest::Class_Generic::unsafeFrom(definition);
      if (p && base.isSame(p->interface()))
        element_types = arguments;
    }
    if (protocol_named_by(base))
      continue; // the abstract collection stands for it
    if (p && base.derivesFrom(p->interface()))
      inherited = true;
    if (auto reference = class_reference(base, m);
        reference && std::find(bases.begin(), bases.end(), *reference) == bases.end())
      bases.push_back(*reference);
  }
  adds_collection = p && !inherited;
  return bases;
}

/// The type variables of the generic host classes (List, HashMap, ...).
const char *type_variables =
    "_T = _typing.TypeVar(\"_T\")\n_K = _typing.TypeVar(\"_K\")\n_V = _typing.TypeVar(\"_V\")\n";

/// The constructors that Python code calls on the host's container classes:
/// kest.List(iterable), kest.HashSet(iterable), kest.HashMap(mapping or pairs, **kw).
std::optional<std::string> container_constructor(const kest::Class_Generic &cls) {
  if (cls.isSame(kest::List::getClass()) || cls.isSame(kest::HashSet::getClass()))
    return "def __init__(self, iterable: _typing.Iterable[_T] = ..., /) -> None: ...\n";
  if (cls.isSame(kest::HashMap::getClass()))
    return "@_typing.overload\n"
           "def __init__(self, /, **kwargs: _V) -> None: ...\n"
           "@_typing.overload\n"
           "def __init__(self, mapping: _typing.Mapping[_K, _V], /, **kwargs: _V) -> None: ...\n"
           "@_typing.overload\n"
           "def __init__(self, pairs: _typing.Iterable[tuple[_K, _V]], /, **kwargs: _V) -> None: ...\n";
  return std::nullopt;
}

std::string class_text(const std::string &name, const kest::Class_Generic &cls, module_context &m) {
  if (cls.derivesFrom(kest::Error::getClass()))
    return error_class_text(name, cls, m);
  // The host's plain values reach Python as Python's own (an Integer is an
  // int), so their classes stand for those types: kest.List[kest.Integer] is
  // a list of int to a checker as at run time.
  if (auto python = value_type(cls); python && *python != "None")
    return fmt::format("{} = {}\n", name, *python);
  const protocol *p = protocol_of(cls);
  bool adds_collection = false;
  std::vector<kest::Type> element_types;
  auto bases = class_bases(cls, p, adds_collection, element_types, m);
  std::string item = any_type, key = any_type, value = any_type;
  if (cls.hasFlag(kest::class_flags::generic_definition)) {
    item = "_T";
    key = "_K";
    value = "_V";
  } else if (!element_types.empty()) {
    item = key = argument(element_types, 0, m, false);
    value = argument(element_types, 1, m, false);
  }
  if (adds_collection)
    bases.push_back(p->arity == 2 ? fmt::format("_typing.{}[{}, {}]", p->abc, key, value)
                                  : fmt::format("_typing.{}[{}]", p->abc, item));

  class_body b;
  if (auto constructor = container_constructor(cls))
    b.add("__init__", *constructor);
  add_fields(b, cls, p, m);
  add_properties(b, cls, p, m);
  add_methods(b, cls, p, m);
  if (adds_collection)
    for (auto &line : collection_members(*p, item, key, value)) {
      // The host's own member of that name stays; an overload pair goes with its first line.
      auto open = line.find('(');
      auto def_name = line.starts_with("def ") ? line.substr(4, open - 4) : std::string();
      if (!def_name.empty() && b.names.count(def_name) && !b.lines.empty() &&
          !b.lines.back().starts_with("@_typing.overload"))
        continue;
      b.lines.push_back(line + "\n");
      if (!def_name.empty())
        b.names.insert(def_name);
    }
  if (cls.hasFlag(kest::class_flags::callable) && cls.hasFlag(kest::class_flags::interface))
    b.add("__call__", "def __call__(self, *args: _typing.Any, **kwargs: _typing.Any) -> _typing.Any: ...\n");

  auto out =
      fmt::format("class {}{}:\n", name, bases.empty() ? std::string() : fmt::format("({})", fmt::join(bases, ", ")));
  if (!cls.doc().empty())
    out += docstring(cls.doc(), "    ");
  if (b.lines.empty() && cls.doc().empty())
    out += "    ...\n";
  for (auto &line : b.lines)
    out += indented(line);
  return out;
}

// --- modules ------------------------------------------------------------------------

std::vector<std::pair<std::string, kest::Any>> sorted_pairs(const kest::HashMap &map) {
  std::vector<std::pair<std::string, kest::Any>> out;
  for (auto &[key, value] : map.copyPairs())
    out.emplace_back(kest::display(key).toUtf8(), value);
  std::sort(out.begin(), out.end(), [](auto &a, auto &b) { return a.first < b.first; });
  return out;
}

/// True for the classes a stub declares: named classes, not unions or generic instances.
bool is_declarable(const kest::Class_Generic &cls) {
  return cls && !cls.hasFlag(kest::class_flags::union_type) && !cls.hasFlag(kest::class_flags::generic_instance) &&
         !cls.hasFlag(kest::class_flags::top_type);
}

std::string module_text(const kest::Module &module, const std::vector<std::string> &children, module_context &m) {
  std::string classes, functions, skipped;
  for (auto &[name, value] : sorted_pairs(module.classes())) {
    if (!m.catalogue->classes.count(value.get()))
      continue;
    classes += "\n\n" + class_text(name, kest::Class_Generic::unsafeFrom(value), m);
  }
  for (auto &[name, value] : sorted_pairs(module.callables())) {
    if (!is_identifier(name)) {
      skipped += fmt::format("# '{}' is no Python name: it is reached with getattr() only.\n", name);
      continue;
    }
    if (kest::I_Callable_Generic::isInstance(value))
      functions += "\n" + function_text(name, kest::I_Callable_Generic::unsafeFrom(value), "", false, m);
  }
  for (auto &[name, value] : sorted_pairs(module.classes()))
    if (!is_identifier(name))
      skipped += fmt::format("# '{}' is no Python name: it is reached with getattr() only.\n", name);

  std::string out = "# Written by 'sarvode --stubs' from the host's declarations.\n";
  if (!module.doc().empty())
    out += docstring(module.doc(), "");
  out += "\nimport datetime as _datetime\nimport decimal as _decimal\nimport typing as _typing\n";
  for (auto &imported : m.imports)
    out += fmt::format("import {}\n", imported);
  for (auto &child : children)
    out += fmt::format("from . import {} as {}\n", child, child);
  if (classes.find("_T]") != std::string::npos || classes.find("_V]") != std::string::npos)
    out += "\n" + std::string(type_variables);
  if (!skipped.empty())
    out += "\n" + skipped;
  return out + classes + (functions.empty() ? "" : "\n" + functions);
}

/// The modules that get a stub: importable, with a Python name for every part,
/// below a parent that gets one too; and the classes they declare.
stub_catalogue catalogue_of(const std::vector<kest::Module> &modules) {
  stub_catalogue c;
  std::vector<std::string> names;
  for (auto &module : modules)
    names.push_back(module.name().toUtf8());
  std::sort(names.begin(), names.end()); // a parent before its children
  for (auto &name : names) {
    if (!is_importable(name))
      continue;
    const auto parent = parent_of(name);
    const auto last = name.substr(parent.empty() ? 0 : parent.size() + 1);
    if (is_identifier(last) && (parent.empty() || c.modules.count(parent)))
      c.modules.insert(name);
  }
  for (auto &module : modules) {
    const auto name = module.name().toUtf8();
    if (!c.modules.count(name))
      continue;
    for (auto &[key, value] : sorted_pairs(module.classes()))
      if (kest::Class_Generic::isInstance(value) && is_declarable(kest::Class_Generic::unsafeFrom(value)) &&
          is_identifier(key))
        c.classes.emplace(value.get(), class_place{name, key}); // the first module that has it names it
  }
  return c;
}

std::optional<std::string> write_file(const std::filesystem::path &path, const std::string &text) {
  std::error_code error;
  std::filesystem::create_directories(path.parent_path(), error);
  if (error)
    return fmt::format("cannot create the folder {}: {}", path.parent_path().string(), error.message());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (file)
    file << text;
  if (file)
    file.close();
  if (!file)
    return fmt::format("cannot write {}: {}", path.string(), std::strerror(errno));
  return std::nullopt;
}

} // namespace

stub_result write_stubs(const std::filesystem::path &folder) {
  stub_result result;
  const auto modules = kest::modules();
  const auto catalogue = catalogue_of(modules);
  for (auto &module : modules) {
    const auto name = module.name().toUtf8();
    if (!catalogue.modules.count(name))
      continue;
    std::vector<std::string> children;
    for (auto &other : catalogue.modules)
      if (parent_of(other) == name)
        children.push_back(other.substr(name.size() + 1));
    // A module with sub-modules is a package; "kest" is one whatever it holds.
    auto path = folder;
    std::string rest = name;
    for (auto dot = rest.find('.'); dot != std::string::npos; dot = rest.find('.')) {
      path /= rest.substr(0, dot);
      rest = rest.substr(dot + 1);
    }
    path = children.empty() && name != "kest" ? path / (rest + ".pyi") : path / rest / "__init__.pyi";
    module_context context{name, &catalogue, {}};
    if (auto error = write_file(path, module_text(module, children, context))) {
      result.error = std::move(error);
      return result;
    }
    result.files.push_back(path);
  }
  return result;
}

} // namespace sarvode
