// Files by descriptor: open with the library's codes, read, write, 64-bit seek, status, and
// the path-based helpers (delete, rename, access, make directory, the executable's path).
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "oxa_file.h"

#include "util/file_codes.h"

namespace {

using oxa::internal::FillCommonStatus;

// The large-file interfaces are on in 32-bit builds: offsets, sizes and inode numbers are
// 64-bit, so files beyond 4 GiB and entries with 64-bit inode numbers work.
static_assert(sizeof(off_t) == 8, "build with _FILE_OFFSET_BITS=64");
static_assert(sizeof(ino_t) == 8, "build with _FILE_OFFSET_BITS=64");

#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(OXA_FILE_STAT_T) == 64, "status record is ABI");
static_assert(offsetof(OXA_FILE_STAT_T, inode) == 24, "status record is ABI");
static_assert(offsetof(OXA_FILE_STAT_T, mtime) == 56, "status record is ABI");
static_assert(sizeof(OXA_FILE_FIND_T) == 320, "find record is ABI");
static_assert(offsetof(OXA_FILE_FIND_T, type) == 256, "find record is ABI");
static_assert(offsetof(OXA_FILE_FIND_T, inode) == 280, "find record is ABI");
#endif

// The link read by OXA_GetCurExePath goes into an area of this size.
constexpr size_t kExePathBytes = 260;

}  // namespace

extern "C" {

OXA_API OXA_FILE_HANDLE OXA_OpenFile(const char* path, unsigned int flags, int permissions) {
  if (path == nullptr) return OXA_INVALID_FILE;
  const int system_flags = oxa::internal::OpenFlagsFromCodes(flags);
  if (system_flags == -1) return OXA_INVALID_FILE;
  // Inherited across exec on purpose: the handle is the caller's descriptor.
  return ::open(path, system_flags,  // NOLINT(android-cloexec-open)
                oxa::internal::CreationModeFromCodes(permissions));
}

OXA_API void OXA_CloseFile(OXA_FILE_HANDLE file) {
  if (file != OXA_INVALID_FILE) ::close(file);
}

OXA_API int OXA_ReadFile(OXA_FILE_HANDLE file, void* buffer, unsigned int length,
                         unsigned int* count) {
  if (buffer == nullptr || file == OXA_INVALID_FILE) return OXA_ERROR;
  const ssize_t done = ::read(file, buffer, length);
  if (count != nullptr) *count = static_cast<unsigned int>(done);
  return done < 0 ? OXA_ERROR : 0;
}

OXA_API int OXA_WriteFile(OXA_FILE_HANDLE file, const void* buffer, unsigned int length,
                          unsigned int* count) {
  if (buffer == nullptr || file == OXA_INVALID_FILE) return OXA_ERROR;
  const ssize_t done = ::write(file, buffer, length);
  if (count != nullptr) *count = static_cast<unsigned int>(done);
  return done < 0 ? OXA_ERROR : 0;
}

OXA_API int OXA_FileSeek(OXA_FILE_HANDLE file, oxa_int64 offset, int whence, oxa_int64* position) {
  const off_t reached = ::lseek(file, offset, whence);
  if (position != nullptr) *position = reached;
  return reached < 0 ? OXA_ERROR : 0;
}

OXA_API int OXA_FileIsEOF(OXA_FILE_HANDLE) { return 1; }

OXA_API int OXA_FileStat(OXA_FILE_HANDLE file, OXA_FILE_STAT_T* stat) {
  if (file == OXA_INVALID_FILE || stat == nullptr) return OXA_ERROR;
  struct stat status;
  if (::fstat(file, &status) != 0) return OXA_ERROR;
  FillCommonStatus(status, stat);
  stat->inode = status.st_ino;
  stat->atime = status.st_atime;
  stat->ctime = status.st_ctime;
  stat->mtime = status.st_mtime;
  return 0;
}

OXA_API void OXA_FileFlush(OXA_FILE_HANDLE file) {
  if (file != OXA_INVALID_FILE) ::fsync(file);
}

OXA_API int OXA_DeleteFile(const char* path) {
  if (path == nullptr) return OXA_ERROR;
  return ::remove(path);
}

OXA_API int OXA_RemoveDir(const char* path) { return OXA_DeleteFile(path); }

OXA_API int OXA_RenameFile(const char* old_path, const char* new_path) {
  if (old_path == nullptr || new_path == nullptr) return OXA_ERROR;
  return ::rename(old_path, new_path);
}

OXA_API int OXA_AccessFile(const char* path, int mode) {
  if (path == nullptr) {
    errno = EFAULT;
    return OXA_ERROR;
  }
  return ::access(path, mode);
}

OXA_API int OXA_MakeDir(const char* path) {
  if (path == nullptr) return OXA_ERROR;
  return ::mkdir(path, 0766);
}

OXA_API int OXA_GetCurExePath(char* buffer, int size) {
  if (buffer == nullptr) {
    errno = EINVAL;
    return OXA_ERROR;
  }
  char link[kExePathBytes] = {};
  const ssize_t length = ::readlink("/proc/self/exe", link, sizeof link);
  // A link that fills the whole area may have been cut: treat it as too long.
  if (length < 0 || length >= static_cast<ssize_t>(sizeof link) || length > size) {
    errno = ENOMEM;
    return OXA_ERROR;
  }
  memcpy(buffer, link, static_cast<size_t>(length));
  return 0;
}

}  // extern "C"
