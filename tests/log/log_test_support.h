// Helpers for the log service suites: a working directory of the test's own and the files
// the service wrote, split into lines.
#ifndef OXA_TESTS_LOG_LOG_TEST_SUPPORT_H_
#define OXA_TESTS_LOG_LOG_TEST_SUPPORT_H_

#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "oxa_log.h"

#include "support/temp_dir.h"

namespace oxa_test {

// The log service is one per process and its file numbering continues for the process's
// life, so every test that looks at file numbers expects to run in a fresh process (ctest
// runs each test in its own).

// Makes a fresh temporary directory the working directory for the test's duration.
class WorkingDir {
 public:
  WorkingDir() : saved_(get_current_dir_name()) { entered_ = chdir(dir_.path().c_str()) == 0; }
  ~WorkingDir() {
    if (saved_ != nullptr) entered_ = chdir(saved_) == 0;
    free(saved_);
  }
  WorkingDir(const WorkingDir&) = delete;
  WorkingDir& operator=(const WorkingDir&) = delete;

  bool entered() const { return entered_; }
  const TempDir& dir() const { return dir_; }

 private:
  char* saved_;
  TempDir dir_;
  bool entered_ = false;
};

// Lines of a text, each with its CR LF.
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find("\r\n", start);
    end = end == std::string::npos ? text.size() : end + 2;
    lines.push_back(text.substr(start, end - start));
    start = end;
  }
  return lines;
}

// The text after a line's prefix, without CR LF; empty when the line has no prefix.
inline std::string TextOf(const std::string& line) {
  const size_t at = line.find("] ");
  if (at == std::string::npos || line.size() < at + 4) return "";
  return line.substr(at + 2, line.size() - at - 4);
}

// Writes every queued line out and stops the service, leaving it free to start again.
inline void Drain() { StopLogService(false); }

}  // namespace oxa_test

#endif  // OXA_TESTS_LOG_LOG_TEST_SUPPORT_H_
