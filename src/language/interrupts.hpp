#pragma once
// Cancelling a running evaluation from another thread: the evaluation raises
// KeyboardInterrupt at its next bytecode boundary, and a time.sleep in it
// ends early. The threads that run evaluations are recorded while they do,
// so that a request for a thread that runs none is dropped at once.

#include "runtime/python.hpp"

#include <cstdint>

namespace sarvode {

/// The identity of the calling thread, as Python's threading.get_ident() gives it.
std::int64_t currentThreadIdent() noexcept;

/// Records the calling thread as running an evaluation while it lives (nests).
/// Made and destroyed with the interpreter lock held. When the outermost one
/// ends, an interrupt that arrived too late to be raised is dropped.
struct thread_record;

class running_evaluation {
public:
  running_evaluation();
  ~running_evaluation();
  running_evaluation(const running_evaluation &) = delete;
  running_evaluation &operator=(const running_evaluation &) = delete;

private:
  thread_record *m_record;
};

/// Makes the evaluation running on `thread` raise KeyboardInterrupt. Takes the
/// interpreter lock. False, and nothing happens, when no evaluation runs there.
bool interruptEvaluation(std::int64_t thread);

/// Replaces time.sleep by one that sleeps in short slices, so that an
/// interrupt ends a long sleep within a slice; its repr, name, documentation
/// and pickling are the original's. Needs the interpreter lock.
void installInterruptibleSleep();

/// Chooses the time.sleep for an evaluation that starts: the sliced one,
/// unless the host asked to keep Python's own (keepStandardSleep) and
/// evaluations have run only on the thread that started Python. Needs the
/// interpreter lock.
void chooseSleep(bool startingThread);

/// For hosts that interrupt the thread that started Python with a signal
/// that Python handles (sarvode sends SIGINT): there, time.sleep stays
/// Python's own while no other thread evaluates. Takes the interpreter lock.
void keepStandardSleep(bool keep);

} // namespace sarvode
