// Python objects into host values and back. Values with a natural host form
// (None, bool, int, float, str, bytes, Decimal, dates and times) convert as
// convert/from_python.cpp says; every other object comes back from the host
// as the very same object; an object without a form gives a host error.
// Nothing crashes, no Python error is left pending, and when the host values
// are gone every generated object has the reference count it started with.

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "fuzz_support.hpp"
#include "language/python_error.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <vector>

using namespace sarvode;
using fuzz::describe;
using fuzz::fail;
using fuzz::make_decimal_text;
using fuzz::make_double;
using fuzz::make_int64;

namespace {

constexpr int max_depth = 3;
constexpr int max_iterated = 8;

/// Classes whose instances misbehave in the ways a conversion meets: methods
/// that raise, numbers that are too big, zones with odd offsets and names.
constexpr const char* helper_code = R"(
import datetime, decimal

class Plain: pass
class Callable:
    def __call__(self, *args): return args
class BadIter:
    def __iter__(self): raise ValueError('no iteration')
class EndlessIter:
    def __iter__(self): return self
    def __next__(self): return 1
class Sequence:
    def __getitem__(self, i):
        if i < 3: return i
        raise IndexError(i)
    def __len__(self): return 3
class BadLen:
    def __getitem__(self, i): raise KeyError(i)
    def __len__(self): raise ValueError('no length')
class BadIndex:
    def __index__(self): raise ValueError('no index')
class HugeIndex:
    def __index__(self): return 1 << 100
class BadInt:
    def __int__(self): raise OverflowError('no int')
class BadFloat:
    def __float__(self): raise ValueError('no float')
class Int(int): pass
class Float(float): pass
class Str(str): pass
class Bytes(bytes): pass
class Dec(decimal.Decimal): pass
class BadDec(decimal.Decimal):
    def __str__(self): raise ValueError('no text')
class BadStr:
    def __str__(self): raise ValueError('no str')
    def __repr__(self): raise ValueError('no repr')
class BadEq:
    def __eq__(self, other): raise ValueError('no eq')
    __hash__ = None
class BadGetattr:
    def __getattr__(self, name): raise RuntimeError(name)
class Error(Exception): pass
class BadError(Exception):
    def __str__(self): raise ValueError('no str')
class Dict(dict): pass
class List(list): pass

class Zone(datetime.tzinfo):
    def __init__(self, minutes, name, fail):
        self.minutes, self.name, self.fail = minutes, name, fail
    def utcoffset(self, dt):
        if self.fail: raise ValueError('no offset')
        return datetime.timedelta(minutes=self.minutes)
    def tzname(self, dt):
        if self.fail: raise ValueError('no name')
        return self.name
    def dst(self, dt): return None

def generator(n):
    yield from range(n)

helpers = [Plain, Callable, BadIter, EndlessIter, Sequence, BadLen, BadIndex, HugeIndex, BadInt, BadFloat,
           BadStr, BadEq, BadGetattr, lambda: Error('raised'), lambda: BadError(), lambda: Int(1 << 70),
           lambda: Int(-5), lambda: Float(2.5), lambda: Float(-0.0), lambda: Str('sub'), lambda: Bytes(b'sub'),
           lambda: Dec('1.50'), lambda: Dec('sNaN'), lambda: BadDec('2'), lambda: Dict(a=1), lambda: List([1]),
           lambda: generator(3), lambda: iter([1, 2]), lambda: range(5), lambda: complex(1, 2),
           lambda: memoryview(b'abc'), lambda: datetime.timedelta(days=-1, microseconds=5),
           lambda: datetime.timezone.utc, lambda: Zone(90, 'Z', False), lambda: int, lambda: Error,
           lambda: len, lambda: generator, lambda: datetime, lambda: Plain().__init__, lambda: ..., lambda: object(),
           lambda: frozenset({1, 'a'}), lambda: {1: 2}.keys(), lambda: ValueError('v'),
           lambda: StopIteration(5), lambda: SystemExit(3), lambda: KeyboardInterrupt()]
)";

struct helpers {
  py::object list;      // the constructors of the misbehaving objects
  py::object zone;      // Zone
  py::object timedelta; // datetime.timedelta
  py::object timezone;  // datetime.timezone
  py::object date, time, datetime, decimal, date_min, date_max, datetime_min, datetime_max;
};

/// Made once and never destroyed: the interpreter outlives every input.
helpers& the_helpers() {
  static helpers* const h = [] {
    auto* made = new helpers;
    auto globals = py::object::steal(PyDict_New());
    auto builtins = py::object::steal(PyImport_ImportModule("builtins"));
    if (!globals || !builtins ||
        PyDict_SetItemString(globals.get(), "__builtins__", builtins.get()) < 0)
      fail("cannot make the helpers' globals");
    auto ran = py::object::steal(runWithBuiltin("exec", helper_code, globals.get(), globals.get()));
    if (!ran)
      fuzz::expect_no_pending_error("defining the helper classes");
    auto get = [&](const char* name) {
      auto value = py::object::borrow(PyDict_GetItemString(globals.get(), name));
      if (!value)
        fail("a helper is missing", name);
      return value;
    };
    auto attribute = [](const py::object& of, const char* name) {
      auto value = py::object::steal(PyObject_GetAttrString(of.get(), name));
      if (!value)
        fuzz::expect_no_pending_error(name);
      return value;
    };
    auto datetime_module = get("datetime");
    made->list = get("helpers");
    made->zone = get("Zone");
    made->timedelta = attribute(datetime_module, "timedelta");
    made->timezone = attribute(datetime_module, "timezone");
    made->date = attribute(datetime_module, "date");
    made->time = attribute(datetime_module, "time");
    made->datetime = attribute(datetime_module, "datetime");
    made->decimal = attribute(get("decimal"), "Decimal");
    made->date_min = attribute(made->date, "min");
    made->date_max = attribute(made->date, "max");
    made->datetime_min = attribute(made->datetime, "min");
    made->datetime_max = attribute(made->datetime, "max");
    return made;
  }();
  return *h;
}

// --- generating Python objects ------------------------------------------------------------

/// Calls `callable` with `args` (a new tuple, stolen); on an error the error is
/// cleared and `fallback` (borrowed) is used instead.
py::object call_or(PyObject* callable, PyObject* args, PyObject* kwargs, PyObject* fallback) {
  auto a = py::object::steal(args);
  auto made = py::object::steal(a ? PyObject_Call(callable, a.get(), kwargs) : nullptr);
  if (made)
    return made;
  PyErr_Clear();
  return py::object::borrow(fallback);
}

py::object make_int(FuzzedDataProvider& in) {
  if (in.ConsumeBool())
    return py::object::steal(PyLong_FromLongLong(make_int64(in)));
  // Any size: up to 40 bytes as a signed little-endian number.
  const auto bytes = in.ConsumeBytes<char>(in.ConsumeIntegralInRange<std::size_t>(0, 40));
  auto from_bytes = py::object::steal(
      PyObject_GetAttrString(reinterpret_cast<PyObject*>(&PyLong_Type), "from_bytes"));
  auto data = py::object::steal(
      PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size())));
  auto kwargs =
      py::object::steal(Py_BuildValue("{s:O}", "signed", in.ConsumeBool() ? Py_True : Py_False));
  if (!from_bytes || !data || !kwargs)
    fuzz::expect_no_pending_error("preparing int.from_bytes");
  auto args = py::object::steal(Py_BuildValue("(Os)", data.get(), "little"));
  return py::object::steal(args ? PyObject_Call(from_bytes.get(), args.get(), kwargs.get())
                                : nullptr);
}

py::object make_str(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange(0, 2)) {
  case 0: { // UTF-8, surrogates encoded in it included; what is not even that escapes to
            // U+DC80..U+DCFF
    const auto bytes = in.ConsumeRandomLengthString(48);
    const auto size = static_cast<Py_ssize_t>(bytes.size());
    if (auto text =
            py::object::steal(PyUnicode_Decode(bytes.data(), size, "utf-8", "surrogatepass")))
      return text;
    PyErr_Clear();
    return py::object::steal(PyUnicode_Decode(bytes.data(), size, "utf-8", "surrogateescape"));
  }
  case 1: { // any UTF-16 code units, lone surrogates too
    const auto bytes = in.ConsumeBytes<char>(in.ConsumeIntegralInRange<std::size_t>(0, 24) * 2);
    return py::object::steal(PyUnicode_Decode(bytes.data(), static_cast<Py_ssize_t>(bytes.size()),
                                              "utf-16-le", "surrogatepass"));
  }
  default: { // any code points
    std::vector<std::uint32_t> points(in.ConsumeIntegralInRange<std::size_t>(0, 8));
    for (auto& p : points)
      p = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::uint32_t>(0xD7F0, 0xE010)
                           : in.ConsumeIntegralInRange<std::uint32_t>(0, 0x10FFFF);
    return py::object::steal(PyUnicode_Decode(reinterpret_cast<const char*>(points.data()),
                                              static_cast<Py_ssize_t>(points.size() * 4),
                                              "utf-32-le", "surrogatepass"));
  }
  }
}

py::object make_zone(FuzzedDataProvider& in) {
  auto& h = the_helpers();
  switch (in.ConsumeIntegralInRange(0, 3)) {
  case 0:
    return py::object::borrow(Py_None);
  case 1: { // a fixed offset; anything beyond a day is refused by timezone()
    const auto minutes = in.ConsumeIntegralInRange(-1500, 1500);
    auto name = make_str(in);
    auto delta = py::object::steal(PyObject_CallFunction(h.timedelta.get(), "ii", 0, minutes * 60));
    if (!delta || !name) {
      PyErr_Clear();
      return py::object::borrow(Py_None);
    }
    return call_or(h.timezone.get(), Py_BuildValue("(OO)", delta.get(), name.get()), nullptr,
                   Py_None);
  }
  default: { // a zone of our own: any offset, any name, or errors
    auto name = in.ConsumeBool()
                    ? make_str(in)
                    : py::object::steal(PyLong_FromLong(in.ConsumeIntegral<std::int8_t>()));
    PyErr_Clear(); // a name that could not be decoded is None
    const auto minutes = in.ConsumeBool() ? in.ConsumeIntegralInRange(-1440, 1440)
                                          : in.ConsumeIntegral<std::int32_t>();
    return call_or(h.zone.get(),
                   Py_BuildValue("(iOO)", minutes, name ? name.get() : Py_None,
                                 in.ConsumeBool() ? Py_True : Py_False),
                   nullptr, Py_None);
  }
  }
}

py::object make_date_time(FuzzedDataProvider& in) {
  auto& h = the_helpers();
  const int year =
      in.ConsumeBool() ? in.ConsumeIntegralInRange(1, 9999) : in.ConsumeIntegralInRange(-2, 10001);
  const int month = in.ConsumeIntegralInRange(0, 13), day = in.ConsumeIntegralInRange(0, 32);
  const int hour = in.ConsumeIntegralInRange(0, 24), minute = in.ConsumeIntegralInRange(0, 60),
            second = in.ConsumeIntegralInRange(0, 60),
            micro = in.ConsumeIntegralInRange(0, 1'000'000);
  auto kwargs = py::object::steal(Py_BuildValue("{s:i}", "fold", in.ConsumeBool() ? 1 : 0));
  switch (in.ConsumeIntegralInRange(0, 5)) {
  case 0:
    return call_or(h.date.get(), Py_BuildValue("(iii)", year, month, day), nullptr,
                   h.date_max.get());
  case 1: {
    auto zone = make_zone(in);
    return call_or(h.time.get(), Py_BuildValue("(iiiiO)", hour, minute, second, micro, zone.get()),
                   kwargs.get(), Py_None);
  }
  case 2: {
    auto zone = make_zone(in);
    return call_or(
        h.datetime.get(),
        Py_BuildValue("(iiiiiiiO)", year, month, day, hour, minute, second, micro, zone.get()),
        kwargs.get(), h.datetime_min.get());
  }
  case 3: { // the limits, with a zone
    auto zone = make_zone(in);
    auto limit = in.ConsumeBool() ? py::object::borrow(h.datetime_min.get())
                                  : py::object::borrow(h.datetime_max.get());
    auto replace = py::object::steal(PyObject_GetAttrString(limit.get(), "replace"));
    auto zone_kwargs = py::object::steal(
        Py_BuildValue("{s:O,s:i}", "tzinfo", zone.get(), "fold", in.ConsumeBool() ? 1 : 0));
    if (!replace || !zone_kwargs)
      fuzz::expect_no_pending_error("preparing datetime.replace");
    return call_or(replace.get(), PyTuple_New(0), zone_kwargs.get(), limit.get());
  }
  case 4:
    return py::object::borrow(in.ConsumeBool() ? h.date_min.get() : h.date_max.get());
  default:
    return call_or(h.timedelta.get(),
                   Py_BuildValue("(iii)", in.ConsumeIntegral<int>() % 999'999'999, second, micro),
                   nullptr, Py_None);
  }
}

py::object make_object(FuzzedDataProvider& in, int depth);

py::object make_container(FuzzedDataProvider& in, int depth) {
  const int n = depth < max_depth ? in.ConsumeIntegralInRange(0, 4) : 0;
  std::vector<py::object> items;
  for (int i = 0; i < n; ++i) {
    auto item = make_object(in, depth + 1);
    if (item)
      items.push_back(std::move(item));
    else
      PyErr_Clear(); // a generator's own failure: one item fewer
  }
  const int kind = in.ConsumeIntegralInRange(0, 4);
  py::object made;
  if (kind == 0 || kind == 1) {
    made = py::object::steal(kind == 0 ? PyList_New(0)
                                       : PyTuple_New(static_cast<Py_ssize_t>(items.size())));
    for (std::size_t i = 0; made && i < items.size(); ++i) {
      if (kind == 0
              ? PyList_Append(made.get(), items[i].get()) < 0
              : PyTuple_SetItem(made.get(), static_cast<Py_ssize_t>(i), items[i].release()) < 0)
        made = {};
    }
  } else if (kind == 2) {
    made = py::object::steal(PyDict_New());
    for (std::size_t i = 0; made && i + 1 < items.size(); i += 2)
      if (PyDict_SetItem(made.get(), items[i].get(), items[i + 1].get()) < 0)
        PyErr_Clear(); // an unhashable key is left out
  } else {
    made = py::object::steal(kind == 3 ? PySet_New(nullptr) : PyFrozenSet_New(nullptr));
    for (auto& item : items)
      if (PySet_Add(made.get(), item.get()) < 0)
        PyErr_Clear();
  }
  if (!made)
    fuzz::expect_no_pending_error("building a container");
  return made;
}

py::object make_object(FuzzedDataProvider& in, int depth) {
  auto& h = the_helpers();
  switch (in.ConsumeIntegralInRange(0, 14)) {
  case 0:
  case 1:
    return make_int(in);
  case 2:
    return py::object::steal(PyFloat_FromDouble(make_double(in)));
  case 3:
  case 4:
    return make_str(in);
  case 5: {
    const auto bytes = in.ConsumeRandomLengthString(48);
    const auto size = static_cast<Py_ssize_t>(bytes.size());
    return py::object::steal(in.ConsumeBool() ? PyBytes_FromStringAndSize(bytes.data(), size)
                                              : PyByteArray_FromStringAndSize(bytes.data(), size));
  }
  case 6: {
    const auto text = make_decimal_text(in);
    auto nan = py::object::steal(PyUnicode_FromString("NaN"));
    auto made = py::object::steal(PyObject_CallFunction(h.decimal.get(), "s#", text.data(),
                                                        static_cast<Py_ssize_t>(text.size())));
    if (made)
      return made;
    PyErr_Clear(); // not decimal text
    return py::object::steal(PyObject_CallFunctionObjArgs(h.decimal.get(), nan.get(), nullptr));
  }
  case 7:
  case 8:
    return make_date_time(in);
  case 9: {
    PyObject* singletons[] = {Py_None, Py_True, Py_False, Py_NotImplemented, Py_Ellipsis};
    return py::object::borrow(
        singletons[in.ConsumeIntegralInRange<std::size_t>(0, std::size(singletons) - 1)]);
  }
  case 10:
  case 11:
    return make_container(in, depth);
  default: {
    const auto n = PyList_Size(h.list.get());
    PyObject* maker =
        PyList_GetItem(h.list.get(), in.ConsumeIntegralInRange<Py_ssize_t>(0, n - 1)); // borrowed
    return py::object::steal(PyObject_CallNoArgs(maker));
  }
  }
}

// --- what must come back -----------------------------------------------------------------

bool python_equal(PyObject* a, PyObject* b, const char* what) {
  const int r = PyObject_RichCompareBool(a, b, Py_EQ);
  if (r < 0)
    fuzz::expect_no_pending_error(std::string("comparing ") + what);
  return r == 1;
}

long long_attribute(PyObject* object, const char* name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  const long v = value ? PyLong_AsLong(value.get()) : -1;
  fuzz::expect_no_pending_error(std::string("reading ") + name);
  return v;
}

/// The UTF-16 code units of a str, lone surrogates kept.
std::u16string units_of(PyObject* text) {
  auto encoded = py::object::steal(PyUnicode_AsEncodedString(text, "utf-16-le", "surrogatepass"));
  if (!encoded)
    fuzz::expect_no_pending_error("encoding a str as UTF-16");
  std::u16string units(static_cast<std::size_t>(PyBytes_Size(encoded.get())) / 2, u'\0');
  std::memcpy(units.data(), PyBytes_AsString(encoded.get()), units.size() * 2);
  return units;
}

/// True when a code point of the str is a surrogate (two of them in a row are
/// no pair in Python: the str still has no UTF-8 form).
bool has_surrogate(PyObject* text) {
  const Py_ssize_t n = PyUnicode_GetLength(text);
  for (Py_ssize_t i = 0; i < n; ++i) {
    const Py_UCS4 c = PyUnicode_ReadChar(text, i);
    if (c >= 0xD800 && c <= 0xDFFF)
      return true;
  }
  fuzz::expect_no_pending_error("reading a str");
  return false;
}

void check_time_fields(PyObject* object, const kest::Time& t) {
  // An aware value keeps its offset in whole seconds; a zone that fails makes it naive.
  std::optional<std::int32_t> offset;
  if (auto delta = py::object::steal(PyObject_CallMethod(object, "utcoffset", nullptr));
      delta && delta.get() != Py_None) {
    auto seconds = py::object::steal(PyObject_CallMethod(delta.get(), "total_seconds", nullptr));
    if (seconds)
      offset = static_cast<std::int32_t>(std::trunc(PyFloat_AsDouble(seconds.get())));
  }
  PyErr_Clear();
  if (t.offsetSeconds() != offset)
    fail("a time's offset changed", kest::display(t).toUtf8());
  if (t.hour() != long_attribute(object, "hour") ||
      t.minute() != long_attribute(object, "minute") ||
      t.second() != long_attribute(object, "second") ||
      t.nanoSeconds() !=
          static_cast<std::uint32_t>(long_attribute(object, "microsecond")) * 1000u ||
      t.fold() != (long_attribute(object, "fold") != 0))
    fail("a time changed", kest::display(t).toUtf8());
}

void check_date_fields(PyObject* object, const kest::Date& d) {
  if (d.year() != long_attribute(object, "year") || d.month() != long_attribute(object, "month") ||
      d.day() != long_attribute(object, "day"))
    fail("a date changed", kest::display(d).toUtf8());
}

/// Checks the host form of `object` where the conversion has a rule for it;
/// true when it has, false when the object stays in Python.
bool check_natural_form(PyObject* object, const kest::Any& value) {
  auto& h = the_helpers();
  if (object == Py_None) {
    if (!value.empty())
      fail("None became a value", describe(value));
    return true;
  }
  if (object == Py_True || object == Py_False) {
    if (!kest::Boolean::isInstance(value) ||
        kest::Boolean::unsafeFrom(value).value() != (object == Py_True))
      fail("a bool changed", describe(value));
    return true;
  }
  if (object == Py_NotImplemented) {
    if (value.empty() || value.kind() != kest::internal::ObjectType::NotImplemented)
      fail("NotImplemented changed", describe(value));
    return true;
  }
  if (PyLong_Check(object)) {
    const long long v = PyLong_AsLongLong(object);
    if (v == -1 && PyErr_Occurred()) {
      PyErr_Clear(); // beyond 64 bits: an overflow error
      if (!kest::Error::isInstance(value))
        fail("an int beyond 64 bits did not give an error", describe(value));
      return true;
    }
    if (!kest::Integer::isInstance(value) || kest::Integer::unsafeFrom(value).value() != v)
      fail("an int changed", std::to_string(v) + " -> " + describe(value));
    return true;
  }
  if (PyFloat_Check(object)) {
    const double d = PyFloat_AsDouble(object);
    double whole = 0;
    if (!std::isnan(d) && std::modf(d, &whole) == 0.0) {
      constexpr double limit = 9223372036854775808.0;
      const auto expected = d >= -limit && d < limit ? static_cast<std::int64_t>(d)
                                                     : std::numeric_limits<std::int64_t>::min();
      if (!kest::Integer::isInstance(value) || kest::Integer::unsafeFrom(value).value() != expected)
        fail("a whole float did not become the integer", describe(value));
    } else if (!kest::Float::isInstance(value) ||
               (std::isnan(d)
                    ? !std::isnan(kest::Float::unsafeFrom(value).value())
                    : std::bit_cast<std::uint64_t>(kest::Float::unsafeFrom(value).value()) !=
                          std::bit_cast<std::uint64_t>(d))) {
      fail("a float changed", describe(value));
    }
    return true;
  }
  if (PyUnicode_Check(object)) {
    // A str with a lone surrogate has no UTF-8 form: it gives the empty String.
    const auto units = units_of(object);
    const auto expected = has_surrogate(object) ? std::u16string() : units;
    if (!kest::String::isInstance(value) || kest::String::unsafeFrom(value).view() != expected)
      fail("a str changed", describe(value) + " from " + describe(kest::String(units)));
    return true;
  }
  if (PyBytes_Check(object) || PyByteArray_Check(object)) {
    const char* data =
        PyBytes_Check(object) ? PyBytes_AsString(object) : PyByteArray_AsString(object);
    const auto size = PyBytes_Check(object) ? PyBytes_Size(object) : PyByteArray_Size(object);
    if (!kest::ByteArray::isInstance(value) ||
        kest::ByteArray::unsafeFrom(value).asChars() !=
            std::string_view(data, static_cast<std::size_t>(size)))
      fail("bytes changed", describe(value));
    return true;
  }
  const int is_decimal = PyObject_IsInstance(object, h.decimal.get());
  if (is_decimal > 0) {
    auto text = py::object::steal(PyObject_Str(object));
    if (!text) {
      PyErr_Clear(); // a subclass whose str() raises: the error comes to the host
      if (!kest::Error::isInstance(value))
        fail("a decimal without text did not give an error", describe(value));
      return true;
    }
    if (!kest::Decimal::isInstance(value) ||
        kest::Decimal::unsafeFrom(value).toUtf8() != py::utf8(text.get()))
      fail("a decimal changed", std::string(py::utf8(text.get())) + " -> " + describe(value));
    return true;
  }
  fuzz::expect_no_pending_error("isinstance(Decimal)");
  if (PyObject_IsInstance(object, h.datetime.get()) > 0) {
    if (!kest::DateTime::isInstance(value))
      fail("a datetime became something else", describe(value));
    check_date_fields(object, kest::DateTime::unsafeFrom(value).date());
    check_time_fields(object, kest::DateTime::unsafeFrom(value).time());
    return true;
  }
  if (PyObject_IsInstance(object, h.time.get()) > 0) {
    if (!kest::Time::isInstance(value))
      fail("a time became something else", describe(value));
    check_time_fields(object, kest::Time::unsafeFrom(value));
    return true;
  }
  if (PyObject_IsInstance(object, h.date.get()) > 0) {
    if (!kest::Date::isInstance(value))
      fail("a date became something else", describe(value));
    check_date_fields(object, kest::Date::unsafeFrom(value));
    return true;
  }
  fuzz::expect_no_pending_error("isinstance(date)");
  return false;
}

/// Walks a few elements of what the host sees as iterable, through the host's iteration.
void iterate(const kest::Any& value) {
  if (!kest::I_Iterable::isInstance(value))
    return;
  int seen = 0;
  kest::internal::iterator_iterable it(value), end;
  fuzz::expect_no_pending_error("starting a host iteration");
  for (; it != end && seen < max_iterated; ++it, ++seen) {
    fuzz::expect_no_pending_error("a step of a host iteration");
    auto item = py::object::steal(toPythonLocked(*it));
    if (!item)
      (void)currentPythonError();
    fuzz::expect_no_pending_error("converting an iterated element");
  }
  fuzz::expect_no_pending_error("ending a host iteration");
}

void convert(PyObject* object) {
  const auto references = Py_REFCNT(object);
  {
    auto value = fromPython(object);
    fuzz::expect_no_pending_error("fromPython");
    const bool natural = check_natural_form(object, value);
    auto back = py::object::steal(toPythonLocked(value));
    if (!back) {
      if (!PyErr_Occurred())
        fail("toPython gave null without an exception", describe(value));
      if (!kest::Error::isInstance(value))
        fuzz::expect_no_pending_error(std::string("toPython of ") + describe(value));
      (void)currentPythonError(); // an error value is raised as its exception
    }
    fuzz::expect_no_pending_error("toPython");
    if (back && natural) {
      // Naive dates and times, numbers, text and bytes compare equal to what they came from.
      const bool comparable =
          !PyFloat_Check(object) && !PyObject_IsInstance(object, the_helpers().decimal.get()) &&
          !PyObject_IsInstance(object, the_helpers().time.get()) &&
          !PyObject_IsInstance(object, the_helpers().datetime.get()) && !PyUnicode_Check(object);
      if (comparable && !python_equal(object, back.get(), "a round trip"))
        fail("an object did not come back equal", describe(value));
    } else if (back && !PyType_Check(object) && !kest::Error::isInstance(value) &&
               back.get() != object) {
      fail("a wrapped object did not come back as itself", describe(value));
    }
    if (!kest::Error::isInstance(value))
      iterate(value);
  }
  fuzz::expect_no_pending_error("releasing the host values");
  // Types are kept by the host's class cache, and exceptions' tracebacks
  // may hold frames that refer to them; everything else must be released.
  if (!PyType_Check(object) && !PyExceptionInstance_Check(object) &&
      Py_REFCNT(object) != references)
    fail("a reference was leaked or lost",
         std::to_string(references) + " -> " + std::to_string(Py_REFCNT(object)));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start();
  py::gil lock;
  (void)the_helpers();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  py::gil lock;
  while (in.remaining_bytes() > 0) {
    auto object = make_object(in, 0);
    if (!object) {
      PyErr_Clear(); // a generator's own failure (a str that cannot be decoded): nothing to convert
      continue;
    }
    fuzz::expect_no_pending_error("making an object");
    convert(object.get());
  }
  fuzz::expect_no_pending_error("the input");
  return 0;
}
