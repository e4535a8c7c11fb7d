#pragma once

#include <functional>
#include <vector>

/// Runs something in a thread of its own for which these system calls fail with that
/// errno. What it starts inherits this; the rest of the process does not.
void withRefusedCalls(const std::vector<long>& numbers, int error,
                      const std::function<void()>& work);
