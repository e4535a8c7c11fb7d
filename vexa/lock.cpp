#include "platform/lock.hpp"

#include "vexa/event.hpp"

#include <mutex>

namespace VEXA {

// A plain mutex does not ask who unlocks it, so a child forked with the lock held can.
struct Lock::State {
  std::mutex mutex;
};

Lock::Lock() : state(std::make_unique<State>()) {}

Lock::~Lock() = default;

void Lock::lock() {
  state->mutex.lock();
}

void Lock::unlock() {
  state->mutex.unlock();
}

Condition* Lock::createCondition() {
  return new Condition(*this);
}

struct Condition::State {
  explicit State(Lock& guard) : lock(guard) {}

  Lock& lock;
  Event signaled;
};

Condition::Condition(Lock& lock) : state(std::make_unique<State>(lock)) {}

Condition::~Condition() = default;

void Condition::wait(unsigned int milliseconds) {
  state->lock.unlock();
  state->signaled.wait(milliseconds);
  state->lock.lock();
}

void Condition::signal() {
  state->signaled.set();
}

}  // namespace VEXA
