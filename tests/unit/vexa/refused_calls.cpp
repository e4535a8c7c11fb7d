#include "refused_calls.hpp"

#include <gtest/gtest.h>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <cstddef>
#include <cstdint>
#include <thread>

namespace {

sock_filter statement(std::uint16_t code, std::uint32_t value) {
  return {code, 0, 0, value};
}

std::vector<sock_filter> refuse(const std::vector<long>& numbers, int error) {
  std::vector<sock_filter> program{
      statement(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr))};
  for (const long number : numbers) {
    program.push_back({BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<std::uint32_t>(number)});
    program.push_back(
        statement(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)));
  }
  program.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return program;
}

bool install(std::vector<sock_filter> instructions) {
  const sock_fprog program{static_cast<unsigned short>(instructions.size()), instructions.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

void withRefusedCalls(const std::vector<long>& numbers, int error,
                      const std::function<void()>& work) {
  std::thread([&] {
    ASSERT_TRUE(install(refuse(numbers, error)));
    work();
  }).join();
}
