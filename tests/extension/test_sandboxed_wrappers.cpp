// Wrappers of objects that sandboxed code handed to the host: every later
// entry into them from the host (a call, a forwarded container member, an
// iteration step) runs inside the read-only sandbox; the same objects made
// outside it are free.

#include "python_objects_test_support.hpp"
#include "temp_folder.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {
constexpr const char* write_blocked = "write blocked: read-only sandbox";

kest::PythonLanguage python() {
  auto language = python_language_of_host();
  EXPECT_TRUE(kest::PythonLanguage::isInstance(language));
  return kest::PythonLanguage::unsafeFrom(language);
}

/// Runs statements (`return` gives the result) inside the sandbox, or outside it.
kest::Any run(const std::string& code, bool sandboxed) {
  const auto text = kest::String::fromUtf8(code);
  return value_of(sandboxed ? python().evaluateInSandbox(text) : python().evaluate(text));
}

/// The message of an error result; no Python error may be pending after it.
std::string failure_of(const kest::Any& result, const std::string& member) {
  expect_no_python_error(member);
  EXPECT_TRUE(kest::Error::isInstance(result))
      << member << " did not fail: " << class_name_of(result);
  return message_of(result);
}

std::string writer_of(const std::string& path) {
  return "def write(*args):\n    open('" + path + "', 'w').close()\n    return 'written'\n";
}
} // namespace

TEST(SandboxedWrappers, AFunctionFromSandboxedCodeStaysSandboxedWhenTheHostCallsIt) {
  temp_folder tmp;
  const auto path = tmp.file("called");
  const auto code = writer_of(path) + "return write\n";
  auto caged = run(code, true);
  ASSERT_TRUE(is_of_class(caged, cpythonFunctionClass()))
      << class_name_of(caged) << " " << message_of(caged);
  auto r = value_of(kest::I_Callable_Generic::unsafeFrom(caged).callWith({}));
  EXPECT_NE(failure_of(r, "call").find(write_blocked), std::string::npos) << message_of(r);
  EXPECT_FALSE(std::filesystem::exists(path));

  auto free = run(code, false);
  EXPECT_EQ(host_text(value_of(kest::I_Callable_Generic::unsafeFrom(free).callWith({}))),
            "written");
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(SandboxedWrappers, AMappingFromSandboxedCodeStaysSandboxedWhenTheHostWritesToIt) {
  temp_folder tmp;
  const auto path = tmp.file("stored");
  const auto code = writer_of(path) + "class Logged(dict):\n"
                                      "    def __setitem__(self, k, v):\n"
                                      "        write()\n"
                                      "        dict.__setitem__(self, k, v)\n"
                                      "return Logged()\n";
  auto caged = host_map(run(code, true));
  auto r = caged.setChecked(kest::String(u"k"), kest::Integer(1));
  EXPECT_NE(failure_of(r, "set").find(write_blocked), std::string::npos) << message_of(r);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(host_integer(value_of(caged.length())), 0);

  auto free = host_map(run(code, false));
  ASSERT_FALSE(free.setChecked(kest::String(u"k"), kest::Integer(1)).isError());
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(host_integer(value_of(free.get(kest::String(u"k")))), 1);
}

TEST(SandboxedWrappers, AGeneratorFromSandboxedCodeStaysSandboxedWhenTheHostIteratesIt) {
  temp_folder tmp;
  const auto path = tmp.file("iterated");
  const auto code =
      writer_of(path) + "def steps():\n    yield 1\n    write()\n    yield 2\nreturn steps()\n";
  auto caged = run(code, true);
  ASSERT_TRUE(kest::I_Iterable::isInstance(caged))
      << class_name_of(caged) << " " << message_of(caged);
  kest::internal::iterator_iterable it(caged), end;
  std::vector<std::int64_t> seen;
  for (; it != end; ++it)
    seen.push_back(host_integer(*it));
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1}));
  EXPECT_NE(failure_of(it.error(), "next").find(write_blocked), std::string::npos)
      << message_of(it.error());
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(SandboxedWrappers, ThePropertyOfAnObjectFromSandboxedCodeStaysSandboxedWhenTheHostReadsIt) {
  temp_folder tmp;
  const auto path = tmp.file("read");
  const auto code = writer_of(path) + "class Sneaky:\n"
                                      "    @property\n"
                                      "    def value(self):\n"
                                      "        return write()\n"
                                      "return Sneaky()\n";
  auto caged = run(code, true);
  auto r = value_of(caged.propertyValue(kest::meta_property_untyped("value")));
  EXPECT_NE(failure_of(r, "propertyValue").find(write_blocked), std::string::npos) << message_of(r);
  EXPECT_FALSE(std::filesystem::exists(path));

  auto free = run(code, false);
  EXPECT_EQ(host_text(value_of(free.propertyValue(kest::meta_property_untyped("value")))),
            "written");
  EXPECT_TRUE(std::filesystem::exists(path));
}
