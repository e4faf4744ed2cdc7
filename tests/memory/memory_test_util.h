// Helpers shared by the memory suites.
#ifndef OXA_TESTS_MEMORY_MEMORY_TEST_UTIL_H_
#define OXA_TESTS_MEMORY_MEMORY_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace oxa_test {

// Runs `action` with standard output captured; returns the lines it printed.
template <class Action>
std::vector<std::string> StdoutLinesOf(Action action) {
  testing::internal::CaptureStdout();
  action();
  std::istringstream text(testing::internal::GetCapturedStdout());
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);)
    lines.push_back(line);
  return lines;
}

}  // namespace oxa_test

#endif  // OXA_TESTS_MEMORY_MEMORY_TEST_UTIL_H_
