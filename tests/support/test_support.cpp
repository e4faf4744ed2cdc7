#include "support/test_support.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
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
  Stopwatch watch;
  while (ThreadCount() != threads) {
    if (watch.Elapsed().count() > kHangGuardMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
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
