#include "core/fake_calls.hpp"

#include "core/signals.hpp"
#include "fake/fake_platform.hpp"

#include <fcntl.h>
#include <getopt.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <string>

namespace fake {

namespace {

constexpr char pidFile[] = "/var/run/tunnel_mngr.pid";
constexpr int pidFileDescriptor = 7777;
sem_t semaphore;
std::map<int, sighandler_t> handlers;

std::string octal(unsigned number) {
  char text[16];
  std::snprintf(text, sizeof text, "%o", number);
  return text;
}

std::string handlerName(sighandler_t handler) {
  if (handler == tunnel_mngr::onSighup) {
    return "onSighup";
  }
  return handler == tunnel_mngr::onSigterm ? "onSigterm" : "another handler";
}

/// How the PID file is opened.
std::string openMode(int flags, unsigned mode) {
  std::string text = (flags & O_TRUNC) != 0 ? " truncated " : " ";
  text += octal(mode);
  return text + ((flags & O_CLOEXEC) != 0 ? " close-on-exec" : "");
}

}  // namespace

Calls calls;

void deliverSignal(int number) {
  handlers.at(number)(number);
}

}  // namespace fake

// The linker sends the core's calls here.
// NOLINTBEGIN(bugprone-reserved-identifier): the names that --wrap prescribes.
extern "C" {

int __real_close(int descriptor);
pid_t __real_fork();
int __real_getopt_long(int argc, char* const argv[], const char* shorts, const option* longs,
                       int* index);
int __real_open(const char* path, int flags, unsigned mode);
time_t __real_time(time_t* now);
int __real_unlink(const char* path);
ssize_t __real_write(int descriptor, const void* data, size_t size);

int __wrap_close(int descriptor);
pid_t __wrap_fork();
int __wrap_getopt_long(int argc, char* const argv[], const char* shorts, const option* longs,
                       int* index);
int __wrap_kill(pid_t pid, int number);
int __wrap_open(const char* path, int flags, ...);
int __wrap_sem_close(sem_t* semaphore);
sem_t* __wrap_sem_open(const char* name, int flags, ...);
int __wrap_sem_unlink(const char* name);
pid_t __wrap_setsid();
sighandler_t __wrap_signal(int number, sighandler_t handler);
time_t __wrap_time(time_t* now);
mode_t __wrap_umask(mode_t mask);
int __wrap_unlink(const char* path);
ssize_t __wrap_write(int descriptor, const void* data, size_t size);

int __wrap_close(int descriptor) {
  if (descriptor != fake::pidFileDescriptor) {
    return __real_close(descriptor);
  }
  fake::record("close");
  return 0;
}

pid_t __wrap_fork() {
  if (!fake::calls.forkScripted) {
    return __real_fork();
  }
  fake::record("fork");
  errno = EAGAIN;
  return fake::calls.forkResult;
}

int __wrap_getopt_long(int argc, char* const argv[], const char* shorts, const option* longs,
                       int* index) {
  const int scripted = fake::calls.foundOption;
  return scripted != 0 ? scripted : __real_getopt_long(argc, argv, shorts, longs, index);
}

int __wrap_kill(pid_t pid, int number) {
  fake::record("kill " + std::to_string(pid) + " " + std::to_string(number));
  errno = ESRCH;
  return fake::calls.killFails ? -1 : 0;
}

int __wrap_open(const char* path, int flags, ...) {
  va_list values;
  va_start(values, flags);
  const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(values, unsigned) : 0;
  va_end(values);
  if (std::string(path) != fake::pidFile) {
    return __real_open(path, flags, mode);
  }
  fake::record(std::string("open ") + path + fake::openMode(flags, mode));
  errno = EACCES;
  return fake::calls.openFails ? -1 : fake::pidFileDescriptor;
}

int __wrap_sem_close(sem_t* semaphore) {
  fake::record(semaphore == &fake::semaphore ? "sem_close" : "sem_close of another semaphore");
  return 0;
}

sem_t* __wrap_sem_open(const char* name, int flags, ...) {
  if (flags == 0) {
    fake::record(std::string("sem_open ") + name + " again");
    return &fake::semaphore;
  }
  va_list values;
  va_start(values, flags);
  const mode_t mode = va_arg(values, mode_t);
  const unsigned value = va_arg(values, unsigned);
  va_end(values);
  fake::record(std::string("sem_open ") + name + (flags == (O_CREAT | O_EXCL) ? " exclusive" : "") +
               ((mode & (S_IRWXG | S_IRWXO)) == 0 ? " owner-only " : " ") + std::to_string(value));
  errno = EEXIST;
  return fake::calls.semaphoreExists ? SEM_FAILED : &fake::semaphore;
}

int __wrap_sem_unlink(const char* name) {
  fake::record(std::string("sem_unlink ") + name);
  return 0;
}

pid_t __wrap_setsid() {
  fake::record("setsid");
  errno = EPERM;
  return fake::calls.setsidFails ? -1 : getpid();
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
  fake::record("signal " + std::to_string(number) + " " + fake::handlerName(handler));
  fake::handlers[number] = handler;
  return SIG_DFL;
}

time_t __wrap_time(time_t* now) {
  if (fake::calls.times.empty()) {
    return __real_time(now);
  }
  const time_t scripted = fake::calls.times.front();
  if (fake::calls.times.size() > 1) {
    fake::calls.times.pop_front();
  }
  return scripted;
}

mode_t __wrap_umask(mode_t mask) {
  fake::record("umask " + fake::octal(mask));
  return 0;
}

int __wrap_unlink(const char* path) {
  if (std::string(path) != fake::pidFile) {
    return __real_unlink(path);
  }
  fake::record(std::string("unlink ") + path);
  return 0;
}

ssize_t __wrap_write(int descriptor, const void* data, size_t size) {
  if (descriptor != fake::pidFileDescriptor) {
    return __real_write(descriptor, data, size);
  }
  fake::record("write " + std::string(static_cast<const char*>(data), size));
  errno = ENOSPC;
  return fake::calls.writeFails ? -1 : static_cast<ssize_t>(size);
}
}
// NOLINTEND(bugprone-reserved-identifier)
