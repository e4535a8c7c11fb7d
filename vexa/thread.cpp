#include "platform/thread.hpp"

#include "platform/logger.hpp"
#include "vexa/event.hpp"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstddef>
#include <exception>

namespace VEXA {

namespace {

constexpr std::size_t stackBytes = 262144;
constexpr std::size_t kernelNameBytes = 15;
constexpr unsigned int pauseAfterExceptionMs = 5000;
constexpr unsigned int longestFarewellMs = 500;

using Entry = void* (*)(void*);

// A new thread inherits the signal mask, so all is blocked while it is made.
int createDetached(Entry entry, void* argument) {
  pthread_attr_t attributes;
  const int error = pthread_attr_init(&attributes);
  if (error != 0) {
    return error;
  }
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes,
                            std::max(stackBytes, static_cast<std::size_t>(PTHREAD_STACK_MIN)));
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread = 0;
  const int result = pthread_create(&thread, &attributes, entry, argument);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  return result;
}

}  // namespace

// What object and thread share; the last of them to go takes it along. It holds no lock,
// so that a forked child can destroy the object whatever the thread was doing.
struct Thread::State {
  // starting: made, run() not yet entered; stop() still keeps it from that.
  enum class Phase { idle, starting, running };

  // What a new thread is given to own.
  struct Assignment {
    std::shared_ptr<State> state;
    Thread* thread;
  };

  State(const std::string& threadName, bool runAgain) : name(threadName), resume(runAgain) {}

  static void* carryOut(void* assignment);

  void cancel();
  bool enter();
  void leave();
  void sleep(unsigned int milliseconds);
  void work(Thread& thread);
  static void enterRun(Thread& thread);
  bool runOnce(Thread& thread) const;
  void reportException(const char* what) const;

  const std::string name;
  const bool resume;
  std::atomic<Phase> phase{Phase::idle};
  std::atomic<bool> canceled{false};
  Event wake;
  Event left;
};

void Thread::State::cancel() {
  canceled = true;
  Phase expected = Phase::starting;
  phase.compare_exchange_strong(expected, Phase::idle);
  wake.set();
}

// @return whether the object still wants its run(): once this said yes, the destructor
//         waits for leave().
bool Thread::State::enter() {
  Phase expected = Phase::starting;
  return phase.compare_exchange_strong(expected, Phase::running);
}

void Thread::State::leave() {
  phase = Phase::idle;
  left.set();
}

void Thread::State::sleep(unsigned int milliseconds) {
  // Only cancel() sets it, and that is for good.
  if (wake.wait(milliseconds)) {
    wake.set();
  }
}

void Thread::State::work(Thread& thread) {
  while (!canceled && runOnce(thread)) {
    sleep(pauseAfterExceptionMs);
  }
}

// The thread looks here which run() is meant. An owner that destroys the object at that very
// moment may be taking it down to the base, whose run() does nothing; no lock can order
// the two, and either outcome is fine.
__attribute__((no_sanitize_thread)) void Thread::State::enterRun(Thread& thread) {
  thread.run();
}

// @return whether run() is to be entered again. The thread's object may be gone by then.
bool Thread::State::runOnce(Thread& thread) const {
  try {
    enterRun(thread);
    return false;
  } catch (const std::exception& exception) {
    reportException(exception.what());
  } catch (...) {
    if (std::current_exception() == nullptr) {
      throw;  // pthread_exit() and the like come by here and must pass
    }
    reportException("unknown");
  }
  return resume;
}

void Thread::State::reportException(const char* what) const {
  VEXA_LOG(ERROR, "Exception caught in thread [%s]: [%s]", name.c_str(), what);
}

void* Thread::State::carryOut(void* assignment) {
  const std::unique_ptr<Assignment> given(static_cast<Assignment*>(assignment));
  struct Leaving {
    State& state;
    ~Leaving() { state.leave(); }
  };
  State& state = *given->state;
  pthread_setname_np(pthread_self(), state.name.substr(0, kernelNameBytes).c_str());
  if (state.enter()) {
    const Leaving leaving{state};
    state.work(*given->thread);
  }
  return nullptr;
}

Thread::Thread(const std::string& name, bool resume)
    : state(std::make_shared<State>(name, resume)) {}

Thread::~Thread() {
  Thread::stop();
  while (state->phase == State::Phase::running && state->left.wait(longestFarewellMs)) {
    // An event of an earlier start may still have been there.
  }
}

void Thread::start() {
  State::Phase expected = State::Phase::idle;
  if (!state->phase.compare_exchange_strong(expected, State::Phase::starting)) {
    return;
  }
  auto assignment = std::make_unique<State::Assignment>(State::Assignment{state, this});
  const int error = createDetached(State::carryOut, assignment.get());
  if (error == 0) {
    static_cast<void>(assignment.release());  // the new thread owns it
    return;
  }
  state->phase = State::Phase::idle;
  VEXA_LOG(ERROR, "Thread [%s] could not be started [%d]", state->name.c_str(), error);
}

void Thread::stop() {
  state->cancel();
}

// Not pure: a thread may enter it while its object is being destroyed.
void Thread::run() {}

bool Thread::isCanceled() const {
  return state->canceled;
}

void Thread::sleep(unsigned int milliseconds) {
  state->sleep(milliseconds);
}

}  // namespace VEXA
