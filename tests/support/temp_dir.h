// A fresh directory under /tmp for one test, removed with everything in it at scope exit.
#ifndef OXA_TESTS_SUPPORT_TEMP_DIR_H_
#define OXA_TESTS_SUPPORT_TEMP_DIR_H_

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <string>

namespace oxa_test {

class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/oxa_test_XXXXXX";
    if (::mkdtemp(pattern) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    if (!path_.empty()) {
      ::nftw(
          path_.c_str(), [](const char* p, const struct stat*, int, FTW*) { return ::remove(p); },
          16, FTW_DEPTH | FTW_PHYS);
    }
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The whole content of a file; empty when it cannot be read.
inline std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void WriteAll(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

}  // namespace oxa_test

#endif  // OXA_TESTS_SUPPORT_TEMP_DIR_H_
