#include "support/test_support.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <thread>

#include "oxa_addr.h"

namespace oxa_test {
namespace {

// The thread sanitizer starts a helper thread together with the process's first thread.
// Starting one here, before any test counts threads, keeps those counts steady.
const bool g_helper_threads_started = [] {
  std::thread([] {}).join();
  return true;
}();

}  // namespace

int CountEntries(const char* dir) {
  int n = 0;
  if (DIR* d = ::opendir(dir)) {
    while (::readdir(d) != nullptr)
      ++n;
    ::closedir(d);
  }
  return n;
}

bool WaitForThreadCount(int threads) {
  return Eventually([threads] { return ThreadCount() == threads; });
}

OXA_TRACEINFO TraceInfo(const std::string& text1, const std::string& text2,
                        const std::string& text3, unsigned char byte1, unsigned char byte2) {
  OXA_TRACEINFO info{};
  strncpy(info.text1, text1.c_str(), sizeof info.text1 - 1);
  strncpy(info.text2, text2.c_str(), sizeof info.text2 - 1);
  strncpy(info.text3, text3.c_str(), sizeof info.text3 - 1);
  info.byte1 = byte1;
  info.byte2 = byte2;
  return info;
}

DefaultFamilyRestorer::DefaultFamilyRestorer() : saved_(g_Af) {}

DefaultFamilyRestorer::~DefaultFamilyRestorer() { g_Af = saved_; }

StderrCapture::StderrCapture() : saved_fd_(-1), file_fd_(-1) {
  fflush(stderr);
  char path[] = "/tmp/oxa_stderr_XXXXXX";
  file_fd_ = ::mkstemp(path);
  if (file_fd_ < 0) return;
  ::unlink(path);
  saved_fd_ = ::dup(2);
  ::dup2(file_fd_, 2);
}

StderrCapture::~StderrCapture() { Take(); }

std::string StderrCapture::Take() {
  if (saved_fd_ < 0) return text_;
  fflush(stderr);
  ::dup2(saved_fd_, 2);
  ::close(saved_fd_);
  saved_fd_ = -1;
  ::lseek(file_fd_, 0, SEEK_SET);
  char buf[4096];
  ssize_t n;
  while ((n = ::read(file_fd_, buf, sizeof buf)) > 0)
    text_.append(buf, static_cast<size_t>(n));
  ::close(file_fd_);
  file_fd_ = -1;
  return text_;
}

}  // namespace oxa_test
