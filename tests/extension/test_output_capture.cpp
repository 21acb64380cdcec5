// Output capture: what Python writes to sys.stdout and sys.stderr reaches a
// host callable, whole lines at a time, in order, from every thread.

#include "language_test_support.hpp"

#include "language/output_capture.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

/// What the host received, in order.
struct received {
  std::mutex lock;
  std::vector<std::pair<std::string, std::string>> texts;

  std::vector<std::pair<std::string, std::string>> copy() {
    std::lock_guard guard(lock);
    return texts;
  }
  std::string joined(const std::string &stream) {
    std::string out;
    for (auto &[s, text] : copy())
      if (s == stream)
        out += text;
    return out;
  }
};

/// A capture for the length of a test; the streams are put back at its end.
class OutputCapture : public ::testing::Test {
protected:
  void SetUp() override {
    ensurePythonReady();
    sink = kest::make_function([seen = seen](kest::String stream, kest::String text) {
      std::lock_guard guard(seen->lock);
      seen->texts.emplace_back(stream.toUtf8(), text.toUtf8());
    });
    ASSERT_FALSE(redirectOutput(sink).isError());
  }
  void TearDown() override { EXPECT_FALSE(redirectOutput(kest::None()).isError()); }

  std::shared_ptr<received> seen = std::make_shared<received>();
  kest::I_Callable_Generic sink;
};

} // namespace

TEST_F(OutputCapture, PrintReachesTheHostAsWholeLines) {
  EXPECT_TRUE(kest::is_none(evaluate("print('one')\nprint('two', 2)")));
  const auto texts = seen->copy();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0], (std::pair<std::string, std::string>{"stdout", "one\n"}));
  EXPECT_EQ(texts[1], (std::pair<std::string, std::string>{"stdout", "two 2\n"}));
}

TEST_F(OutputCapture, TextWithoutANewlineArrivesAtTheEndOfTheEvaluation) {
  EXPECT_EQ(integer_of(evaluate("import sys\nsys.stdout.write('partial')\nreturn seen_now()",
                                kest::EvaluationScope(kest::Any(), kest::None(),
                                                      kest::I_Map::unsafeFrom(string_map(
                                                          {{"seen_now", kest::make_function([seen = seen] {
                                                              return static_cast<std::int64_t>(seen->copy().size());
                                                            })}})),
                                                      kest::None()))),
            0);
  EXPECT_EQ(seen->joined("stdout"), "partial");
}

TEST_F(OutputCapture, FlushWriteStderrLoggingAndTracebacksArrive) {
  // A handler made before the capture began wrote to the old sys.stderr.
  ASSERT_TRUE(kest::is_none(evaluate("import logging, sys\n"
                                     "handler = logging.StreamHandler(sys.stderr)\n"
                                     "handler.setFormatter(logging.Formatter('log: %(message)s'))\n"
                                     "logging.getLogger('captured').addHandler(handler)\n")));
  ASSERT_FALSE(redirectOutput(kest::None()).isError());
  ASSERT_FALSE(redirectOutput(sink).isError());
  EXPECT_TRUE(kest::is_none(evaluate("import logging, sys, traceback\n"
                                     "print('flushed', end='', flush=True)\n"
                                     "sys.stdout.write('written\\n')\n"
                                     "print('to stderr', file=sys.stderr)\n"
                                     "logging.getLogger('captured').warning('a record')\n"
                                     "try:\n"
                                     "    1 / 0\n"
                                     "except ZeroDivisionError:\n"
                                     "    traceback.print_exc()\n")));
  EXPECT_EQ(seen->joined("stdout"), "flushedwritten\n");
  const auto err = seen->joined("stderr");
  EXPECT_EQ(err.rfind("to stderr\nlog: a record\nTraceback (most recent call last):\n", 0), 0u) << err;
  EXPECT_NE(err.find("ZeroDivisionError: division by zero\n"), std::string::npos) << err;
  const auto texts = seen->copy();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts[0], (std::pair<std::string, std::string>{"stdout", "flushed"})); // flush=True sent it at once
}

TEST_F(OutputCapture, EightThreadsPrintingAThousandLinesEachArriveWholeAndInOrder) {
  ASSERT_TRUE(kest::is_none(evaluate("import threading\n"
                                     "def work(t):\n"
                                     "    for i in range(1000):\n"
                                     "        print('thread', t, 'line', i)\n"
                                     "threads = [threading.Thread(target=work, args=(t,)) for t in range(8)]\n"
                                     "for t in threads:\n"
                                     "    t.start()\n"
                                     "for t in threads:\n"
                                     "    t.join()\n")));
  std::map<int, int> next_line;
  int lines = 0;
  for (auto &[stream, text] : seen->copy()) {
    ASSERT_EQ(stream, "stdout");
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
      std::istringstream words(line);
      std::string thread_word, line_word;
      int thread = -1, number = -1;
      words >> thread_word >> thread >> line_word >> number;
      ASSERT_EQ(thread_word, "thread") << "a broken line: [" << line << "]";
      ASSERT_EQ(line_word, "line") << "a broken line: [" << line << "]";
      ASSERT_EQ(number, next_line[thread]) << "thread " << thread << " out of order";
      ++next_line[thread];
      ++lines;
    }
  }
  EXPECT_EQ(lines, 8000);
  EXPECT_EQ(next_line.size(), 8u);
}

TEST_F(OutputCapture, OutputOfAFailingEvaluationArrivesBeforeItsError) {
  auto result = evaluate("print('before', end='')\nraise ValueError('bad')");
  ASSERT_TRUE(kest::Error::isInstance(result));
  EXPECT_NE(message_of(result).find("bad"), std::string::npos);
  EXPECT_EQ(seen->joined("stdout"), "before");
  // The same for an expression.
  result = evaluate_expression("print('also', end='') or 1 / 0");
  ASSERT_TRUE(kest::Error::isInstance(result));
  EXPECT_EQ(seen->joined("stdout"), "beforealso");
}

TEST_F(OutputCapture, NoneStopsTheCaptureAndPutsTheStreamsBack) {
  ASSERT_FALSE(redirectOutput(kest::None()).isError());
  EXPECT_EQ(integer_of(evaluate("import sys\nprint('not captured')\n"
                                "return int(sys.stdout is sys.__stdout__ and sys.stderr is sys.__stderr__)")),
            1);
  EXPECT_TRUE(seen->copy().empty());
  ASSERT_FALSE(redirectOutput(sink).isError());
}

TEST_F(OutputCapture, ANewCallableReplacesTheOldOne) {
  auto other = std::make_shared<received>();
  auto second = kest::make_function([other](kest::String stream, kest::String text) {
    std::lock_guard guard(other->lock);
    other->texts.emplace_back(stream.toUtf8(), text.toUtf8());
  });
  (void)evaluate("print('first', end='')");
  ASSERT_FALSE(redirectOutput(second).isError());
  (void)evaluate("print('second')");
  EXPECT_EQ(seen->joined("stdout"), "first");
  EXPECT_EQ(other->joined("stdout"), "second\n");
}

TEST_F(OutputCapture, SomethingNotCallableIsRefused) {
  auto refused = redirectOutput(kest::Integer(3));
  ASSERT_TRUE(refused.isError());
  EXPECT_EQ(message_of(refused),
            "redirect_output takes a callable (stream, text), or None to stop.");
  (void)evaluate("print('still captured')");
  EXPECT_EQ(seen->joined("stdout"), "still captured\n");
}

TEST_F(OutputCapture, PythonCodeCanStopItThroughTheHostFunction) {
  (void)kest::internal::run_init_handlers();
  EXPECT_EQ(integer_of(evaluate("import kest.cpython, sys\n"
                                "kest.cpython.redirect_output(None)\n"
                                "return int(sys.stdout is sys.__stdout__)")),
            1);
}

TEST_F(OutputCapture, ManyLinesInOneWriteArriveTogetherAndTheRestWaits) {
  EXPECT_TRUE(kest::is_none(evaluate("import sys\n"
                                     "assert sys.stdout.write('a\\nb\\nc') == 5\n"
                                     "sys.stdout.write('d\\n')\n"
                                     "sys.stdout.write('')\n"
                                     "sys.stdout.write('tail')\n")));
  const auto texts = seen->copy();
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0].second, "a\nb\n");
  EXPECT_EQ(texts[1].second, "cd\n");
  EXPECT_EQ(texts[2].second, "tail"); // at the end of the evaluation
}

TEST_F(OutputCapture, WritingWhatIsNotTextIsPythonsTypeError) {
  EXPECT_EQ(integer_of(evaluate("import sys\n"
                                "try:\n"
                                "    sys.stdout.write(b'bytes')\n"
                                "except TypeError as e:\n"
                                "    assert str(e) == 'write() argument must be str, not bytes', str(e)\n"
                                "    return 1\n"
                                "return 0")),
            1);
  EXPECT_TRUE(seen->copy().empty());
}

TEST_F(OutputCapture, ASinkThatFailsRaisesInThePrintThatReachedIt) {
  auto failing = kest::make_function([](kest::String, kest::String text) -> kest::Result<kest::None> {
    if (text.toUtf8() == "bad\n")
      return kest::Error(kest::String(u"the sink refused"));
    return kest::None();
  });
  ASSERT_FALSE(redirectOutput(failing).isError());
  EXPECT_EQ(integer_of(evaluate("try:\n"
                                "    print('bad')\n"
                                "except RuntimeError as e:\n"
                                "    assert 'the sink refused' in str(e), str(e)\n"
                                "    print('good')\n"
                                "    return 1\n"
                                "return 0")),
            1);
}

TEST_F(OutputCapture, APythonSinkThatLetsOtherThreadsRunKeepsEachLineWhole) {
  // The sink is Python code that sleeps, so the interpreter lock passes to the
  // other threads while a line is being delivered.
  const auto slow = evaluate("import time\n"
                             "def slow(stream, text):\n"
                             "    time.sleep(0.0005)\n"
                             "    slow.got.append(text)\n"
                             "slow.got = []\n"
                             "return slow");
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(slow)) << kest::display(slow).toUtf8();
  ASSERT_FALSE(redirectOutput(slow).isError());
  const auto printed = evaluate("import threading\n"
                                "def work(n):\n"
                                "    for i in range(50):\n"
                                "        print('thread', n, 'line', i)\n"
                                "threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]\n"
                                "for t in threads: t.start()\n"
                                "for t in threads: t.join()\n");
  EXPECT_TRUE(kest::is_none(printed)) << kest::display(printed).toUtf8();
  ASSERT_FALSE(redirectOutput(sink).isError());
  const auto checked = evaluate("lines = ''.join(slow.got).splitlines()\n"
                                "assert len(lines) == 200, len(lines)\n"
                                "for n in range(4):\n"
                                "    mine = [l for l in lines if l.startswith('thread %d ' % n)]\n"
                                "    assert mine == ['thread %d line %d' % (n, i) for i in range(50)], mine[:3]\n",
                                locals_scope({{"slow", slow}}));
  EXPECT_TRUE(kest::is_none(checked)) << kest::display(checked).toUtf8();
}

TEST_F(OutputCapture, APythonSinkIsCalledAsPythonCallsIt) {
  // Its own exception comes out of the print that reached it, and text that is
  // no valid UTF-8 (a lone surrogate) reaches it unchanged.
  const auto strict = evaluate("def strict(stream, text):\n"
                               "    if text == 'bad\\n':\n"
                               "        raise ValueError('refused by the sink')\n"
                               "    strict.got.append((stream, text))\n"
                               "strict.got = []\n"
                               "return strict");
  ASSERT_TRUE(kest::I_Callable_Generic::isInstance(strict)) << kest::display(strict).toUtf8();
  ASSERT_FALSE(redirectOutput(strict).isError());
  const auto outcome = evaluate("try:\n"
                                "    print('bad')\n"
                                "except ValueError as e:\n"
                                "    caught = str(e)\n"
                                "print('\\udcff', 'x')\n"
                                "return caught");
  ASSERT_FALSE(redirectOutput(sink).isError());
  EXPECT_EQ(text_of(outcome), "refused by the sink");
  const auto got = evaluate("return strict.got == [('stdout', '\\udcff x\\n')]",
                            locals_scope({{"strict", strict}}));
  EXPECT_TRUE(kest::Boolean::isInstance(got) && kest::Boolean::unsafeFrom(got).value()) << kest::display(got).toUtf8();
}

TEST_F(OutputCapture, AStrSubclassIsWrittenAsPlainTextAndItsFinalizerMayWrite) {
  // The subclass's finalizer runs once the write has returned (the stream
  // keeps no reference to it), and writes on the same line.
  EXPECT_TRUE(kest::is_none(evaluate("import sys\n"
                                     "class Loud(str):\n"
                                     "    def __del__(self):\n"
                                     "        sys.stdout.write('+')\n"
                                     "sys.stdout.write(Loud('half'))\n"
                                     "sys.stdout.write(Loud(' line\\n'))\n")));
  const auto texts = seen->copy();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts[0].second, "half+ line\n");
}
