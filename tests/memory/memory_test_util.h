// Helpers shared by the memory suites.
#ifndef OXA_TESTS_MEMORY_MEMORY_TEST_UTIL_H_
#define OXA_TESTS_MEMORY_MEMORY_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>
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

// The text after "<name>[0x...] " at the start of a leak report line; empty if it starts else.
inline std::string AfterPoolAddress(const std::string& line, const std::string& name) {
  const size_t end = line.find("] ");
  if (line.compare(0, name.size() + 3, name + "[0x") != 0 || end == std::string::npos) return "";
  return line.substr(end + 2);
}

// Whether `text` is a time in the 24-character form "Sun Jul 04 09:05:03 2021".
inline bool IsCTimeText(const std::string& text) {
  char day[4], month[4];
  int date, hours, minutes, seconds, year, end = 0;
  return text.size() == 24 &&
         sscanf(text.c_str(), "%3[A-Za-z] %3[A-Za-z] %2d %2d:%2d:%2d %4d%n", day, month, &date,
                &hours, &minutes, &seconds, &year, &end) == 7 &&
         end == 24;
}

// Runs `threads` threads that each, `rounds` times, take two requests of varying sizes (1 to
// max_size bytes) through alloc(size), fill them with bytes of their own, yield, check both are
// intact and give them back through release(pointer). Returns the number of refused requests
// and broken bytes: memory lent twice at once shows up as bytes another thread wrote.
template <class Alloc, class Release>
int RacingFillFailures(int threads, int rounds, unsigned int max_size, Alloc alloc,
                       Release release) {
  std::atomic<int> failures{0};
  std::atomic<int> waiting{threads};  // a start line, so that the threads really overlap
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0)
        std::this_thread::yield();
      const unsigned char marks[2] = {static_cast<unsigned char>(t),
                                      static_cast<unsigned char>(t + 100)};
      for (int i = 0; i < rounds; ++i) {
        unsigned int sizes[2];
        unsigned char* held[2];
        for (int k = 0; k < 2; ++k) {
          sizes[k] = 1 + static_cast<unsigned int>((i * 131 + t * 7 + k * 53) % max_size);
          held[k] = static_cast<unsigned char*>(alloc(sizes[k]));
          if (held[k] != nullptr) memset(held[k], marks[k], sizes[k]);
        }
        std::this_thread::yield();
        for (int k = 0; k < 2; ++k) {
          if (held[k] == nullptr) {
            failures.fetch_add(1);
            continue;
          }
          for (unsigned int b = 0; b < sizes[k]; ++b) {
            if (held[k][b] != marks[k]) failures.fetch_add(1);
          }
          release(held[k]);
        }
      }
    });
  }
  for (std::thread& worker : workers)
    worker.join();
  return failures.load();
}

}  // namespace oxa_test

#endif  // OXA_TESTS_MEMORY_MEMORY_TEST_UTIL_H_
