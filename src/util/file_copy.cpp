// OXA_CopyFile: the destination is sized first, then both files are mapped and the bytes are
// copied with one memory copy. Every descriptor and mapping is released on every path.
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "oxa_file.h"

#include "frame/errno_util.h"

namespace {

using oxa::internal::ErrnoSaver;

// A descriptor closed at scope exit; errno of a failure before it survives the close.
class ScopedFd {
 public:
  explicit ScopedFd(int fd) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ < 0) return;
    ErrnoSaver keep;
    ::close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

// A shared mapping of a whole file, unmapped at scope exit.
class ScopedMap {
 public:
  ScopedMap(int fd, size_t bytes, int protection)
      : bytes_(bytes), base_(::mmap(nullptr, bytes, protection, MAP_SHARED, fd, 0)) {}
  ~ScopedMap() {
    if (base_ == MAP_FAILED) return;
    ErrnoSaver keep;
    ::munmap(base_, bytes_);
  }
  ScopedMap(const ScopedMap&) = delete;
  ScopedMap& operator=(const ScopedMap&) = delete;

  void* get() const { return base_; }
  explicit operator bool() const { return base_ != MAP_FAILED; }

 private:
  size_t bytes_;
  void* base_;
};

// Grows the destination to `bytes` by writing one zero byte at its last position. An empty
// source makes this a seek to -1, which fails: copying an empty file is refused.
bool Extend(int fd, off_t bytes) {
  if (::lseek(fd, bytes - 1, SEEK_SET) < 0) return false;
  const char zero = 0;
  return oxa::internal::RetryOnEintr([&] { return ::write(fd, &zero, 1); }) == 1;
}

int CopyByMaps(const char* source, const char* destination) {
  ScopedFd in(::open(source, O_RDONLY | O_CLOEXEC));
  if (!in) return OXA_ERROR;
  struct stat status;
  if (::fstat(in.get(), &status) != 0) return OXA_ERROR;
  ScopedFd out(::open(destination, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, status.st_mode));
  if (!out || !Extend(out.get(), status.st_size)) return OXA_ERROR;
  // A source beyond the address space cannot be mapped whole on a 32-bit target.
  if (static_cast<unsigned long long>(status.st_size) > SIZE_MAX) return OXA_ERROR;
  const auto bytes = static_cast<size_t>(status.st_size);
  ScopedMap from(in.get(), bytes, PROT_READ);
  if (!from) return OXA_ERROR;
  ScopedMap to(out.get(), bytes, PROT_READ | PROT_WRITE);
  if (!to) return OXA_ERROR;
  memcpy(to.get(), from.get(), bytes);
  return 0;
}

}  // namespace

extern "C" OXA_API int OXA_CopyFile(const char* source, const char* destination,
                                    int fail_if_exists) {
  if (source == nullptr || destination == nullptr) return OXA_ERROR;
  if (fail_if_exists != 0 && ::access(destination, F_OK) == 0) return OXA_ERROR;
  return CopyByMaps(source, destination);
}
