// Source compiled without the builtin compile gives what
// compile(source, filename, mode, dont_inherit=True) gives: the same code, the
// same decoding (a str's coding comment ignored, bytes decoded by theirs), the
// same errors and the same audit event. Each test runs on both paths: compiled
// directly, and through the builtin (kept for a Python where the compiler
// function cannot be found).

#include "language_test_support.hpp"

#include "runtime/compile_source.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

class CompileSource : public ::testing::TestWithParam<bool> {
protected:
  void SetUp() override {
    ensurePythonReady();
    py::gil lock;
    ASSERT_TRUE(compileThroughBuiltin(GetParam())) << "this Python has no path that compiles directly";
  }
  void TearDown() override {
    py::gil lock;
    (void)compileThroughBuiltin(false);
  }
};

py::object str(const std::string &text) {
  return py::object::steal(PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
}
py::object bytes(const std::string &text) {
  return py::object::steal(PyBytes_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
}

/// The UTF-8 of a str (empty for anything else).
std::string utf8(PyObject *object) {
  Py_ssize_t size = 0;
  const char *data = object && PyUnicode_Check(object) ? PyUnicode_AsUTF8AndSize(object, &size) : nullptr;
  return data ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

/// The value of `name` after running `code` in a fresh namespace.
py::object run_and_get(PyObject *code, const char *name) {
  auto names = py::object::steal(PyDict_New());
  PyDict_SetItemString(names.get(), "__builtins__", PyEval_GetBuiltins());
  auto done = py::object::steal(PyEval_EvalCode(code, names.get(), names.get()));
  if (!done)
    return {};
  return py::object::borrow(PyDict_GetItemString(names.get(), name));
}

/// "Type: message" of the pending error, which is cleared; empty when none.
std::string taken_error() {
  if (!PyErr_Occurred())
    return {};
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  auto type_name = py::object::steal(PyObject_GetAttrString(type, "__name__"));
  auto text = py::object::steal(PyObject_Str(value));
  std::string out = utf8(type_name.get()) + ": " + utf8(text.get());
  Py_DecRef(type);
  Py_DecRef(value);
  Py_DecRef(traceback);
  PyErr_Clear();
  return out;
}

/// What the builtin compile raises for `source` (for comparison), cleared.
std::string builtin_error(PyObject *source, const char *filename, const char *mode) {
  PyObject *compile = PyDict_GetItemString(PyEval_GetBuiltins(), "compile"); // borrowed
  auto args = py::object::steal(Py_BuildValue("(Ossii)", source, filename, mode, 0, 1));
  auto code = py::object::steal(PyObject_Call(compile, args.get(), nullptr));
  return code ? std::string("compiled") : taken_error();
}

} // namespace

TEST_P(CompileSource, AStrCompilesUnderItsFileName) {
  py::gil lock;
  auto code = py::object::steal(compileSource(str("x = 6 * 7").get(), str("<mine>").get(), Py_file_input));
  ASSERT_TRUE(code) << taken_error();
  auto filename = py::object::steal(PyObject_GetAttrString(code.get(), "co_filename"));
  EXPECT_EQ(utf8(filename.get()), "<mine>");
  auto x = run_and_get(code.get(), "x");
  ASSERT_TRUE(x) << taken_error();
  EXPECT_EQ(PyLong_AsLong(x.get()), 42);
}

TEST_P(CompileSource, ACodingCommentInAStrIsIgnored) {
  py::gil lock;
  auto code = py::object::steal(
      compileSource(str("# -*- coding: latin-1 -*-\ns = '\xc3\xa9'\n").get(), str("<mine>").get(), Py_file_input));
  ASSERT_TRUE(code) << taken_error();
  auto s = run_and_get(code.get(), "s");
  ASSERT_TRUE(s) << taken_error();
  EXPECT_EQ(utf8(s.get()), "\xc3\xa9"); // one character, é, as the str held it
}

TEST_P(CompileSource, BytesAreDecodedByTheirCodingComment) {
  py::gil lock;
  auto code = py::object::steal(
      compileSource(bytes("# -*- coding: latin-1 -*-\ns = '\xe9'\n").get(), str("<mine>").get(), Py_file_input));
  ASSERT_TRUE(code) << taken_error();
  auto s = run_and_get(code.get(), "s");
  ASSERT_TRUE(s) << taken_error();
  EXPECT_EQ(utf8(s.get()), "\xc3\xa9");
}

TEST_P(CompileSource, BytesWithoutACodingCommentAreUtf8) {
  py::gil lock;
  auto code = py::object::steal(compileSource(bytes("s = '\xc3\xa9'\n").get(), str("<mine>").get(), Py_file_input));
  ASSERT_TRUE(code) << taken_error();
  auto s = run_and_get(code.get(), "s");
  ASSERT_TRUE(s) << taken_error();
  EXPECT_EQ(utf8(s.get()), "\xc3\xa9");
  // Bytes that are not UTF-8 and name no coding are refused as the builtin refuses them.
  auto bad = bytes("s = '\xe9'\n");
  EXPECT_EQ(compileSource(bad.get(), str("<mine>").get(), Py_file_input), nullptr);
  const auto error = taken_error();
  EXPECT_EQ(error, builtin_error(bad.get(), "<mine>", "exec"));
  EXPECT_NE(error.find("SyntaxError"), std::string::npos) << error;
}

TEST_P(CompileSource, ANullCharacterIsRefusedAsTheBuiltinRefusesIt) {
  py::gil lock;
  const py::object sources[] = {str(std::string("a = 1\0", 6)), bytes(std::string("a = 1\0", 6))};
  for (const auto &source : sources) {
    EXPECT_EQ(compileSource(source.get(), str("<mine>").get(), Py_file_input), nullptr);
    const auto error = taken_error();
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(error, builtin_error(source.get(), "<mine>", "exec"));
  }
}

TEST_P(CompileSource, ASyntaxErrorNamesTheFileAndLine) {
  py::gil lock;
  EXPECT_EQ(compileSource(str("ok = 1\nx = (\n").get(), str("<mine>").get(), Py_file_input), nullptr);
  ASSERT_TRUE(PyErr_ExceptionMatches(PyExc_SyntaxError));
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  auto filename = py::object::steal(PyObject_GetAttrString(value, "filename"));
  auto lineno = py::object::steal(PyObject_GetAttrString(value, "lineno"));
  EXPECT_EQ(utf8(filename.get()), "<mine>");
  EXPECT_EQ(lineno ? PyLong_AsLong(lineno.get()) : -1, 2);
  Py_DecRef(type);
  Py_DecRef(value);
  Py_DecRef(traceback);
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST_P(CompileSource, EvalModeTakesOneExpressionOnly) {
  py::gil lock;
  auto code = py::object::steal(compileSource(str("1 + 2").get(), str("<mine>").get(), Py_eval_input));
  ASSERT_TRUE(code) << taken_error();
  auto names = py::object::steal(PyDict_New());
  auto three = py::object::steal(PyEval_EvalCode(code.get(), names.get(), names.get()));
  ASSERT_TRUE(three) << taken_error();
  EXPECT_EQ(PyLong_AsLong(three.get()), 3);
  EXPECT_EQ(compileSource(str("x = 1").get(), str("<mine>").get(), Py_eval_input), nullptr);
  EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_SyntaxError));
  PyErr_Clear();
}

TEST_P(CompileSource, AFileNameThatIsNotUtf8KeepsItsUndecodableBytes) {
  py::gil lock;
  auto name = py::object::steal(PyUnicode_DecodeFSDefault("/tmp/caf\xff.py"));
  ASSERT_TRUE(name);
  auto code = py::object::steal(compileSource(str("pass").get(), name.get(), Py_file_input));
  ASSERT_TRUE(code) << taken_error();
  auto filename = py::object::steal(PyObject_GetAttrString(code.get(), "co_filename"));
  EXPECT_EQ(PyObject_RichCompareBool(filename.get(), name.get(), Py_EQ), 1);
}

TEST_P(CompileSource, SomethingNeitherStrNorBytesIsATypeError) {
  py::gil lock;
  auto number = py::object::steal(PyLong_FromLong(7));
  EXPECT_EQ(compileSource(number.get(), str("<mine>").get(), Py_file_input), nullptr);
  EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_TypeError));
  PyErr_Clear();
}

TEST_P(CompileSource, ATextsOwnFutureImportApplies) {
  py::gil lock;
  auto postponed = py::object::steal(compileSource(
      str("from __future__ import annotations\ndef f(x: int): pass\na = type(f.__annotations__['x']).__name__\n").get(),
      str("<mine>").get(), Py_file_input));
  auto plain = py::object::steal(
      compileSource(str("def f(x: int): pass\na = type(f.__annotations__['x']).__name__\n").get(), str("<mine>").get(),
                    Py_file_input));
  ASSERT_TRUE(postponed && plain) << taken_error();
  auto postponed_kind = run_and_get(postponed.get(), "a");
  auto plain_kind = run_and_get(plain.get(), "a");
  ASSERT_TRUE(postponed_kind && plain_kind) << taken_error();
  EXPECT_EQ(utf8(postponed_kind.get()), "str");
  EXPECT_EQ(utf8(plain_kind.get()), "type");
}

TEST_P(CompileSource, AuditHooksHearTheCompileEventWithTheFileName) {
  ASSERT_TRUE(kest::is_none(evaluate("import sys, types\n"
                                     "record = types.ModuleType('compile_record')\n"
                                     "record.events = []\n"
                                     "sys.modules['compile_record'] = record\n"
                                     "def hook(event, args, events=record.events):\n"
                                     "    if event == 'compile' and args[1] == '<heard>':\n"
                                     "        events.append(args[0])\n"
                                     "sys.addaudithook(hook)\n")));
  {
    py::gil lock;
    auto code = py::object::steal(compileSource(str("heard = 1").get(), str("<heard>").get(), Py_file_input));
    ASSERT_TRUE(code) << taken_error();
  }
  EXPECT_EQ(text_of(evaluate("import compile_record\nreturn repr(compile_record.events)")), "[b'heard = 1']");
}

TEST_P(CompileSource, WithoutTheBuiltinCompileOnlyTheBuiltinPathFailsAndSaysSo) {
  py::gil lock;
  PyObject *builtins = PyEval_GetBuiltins(); // borrowed
  auto compile = py::object::borrow(PyDict_GetItemString(builtins, "compile"));
  ASSERT_TRUE(compile);
  ASSERT_EQ(PyDict_DelItemString(builtins, "compile"), 0);
  auto code = py::object::steal(compileSource(str("x = 1").get(), str("<mine>").get(), Py_file_input));
  const auto error = taken_error();
  PyDict_SetItemString(builtins, "compile", compile.get()); // put back before any check can stop the test
  if (GetParam()) {
    EXPECT_FALSE(code);
    EXPECT_EQ(error, "RuntimeError: the builtin compile is missing");
  } else {
    EXPECT_TRUE(code) << error;
  }
}

INSTANTIATE_TEST_SUITE_P(BothPaths, CompileSource, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &param) {
                           return param.param ? std::string("ThroughTheBuiltin") : std::string("Directly");
                         });
