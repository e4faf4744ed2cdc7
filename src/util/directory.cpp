// Directory listing: every entry of a directory in the system's order, "." and ".."
// included, each examined with stat for its type, owner, mode, size and times.
#include <dirent.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <new>
#include <string>

#include "oxa_file.h"

#include "util/file_codes.h"

// The record behind an OXA_DIR_HANDLE. `path` always ends in "/", so an entry's full path is
// path + name. `entry` keeps a copy of the last entry read: readdir's own storage belongs to
// the stream, and the copy lets a caller's view of the record outlive the next read.
struct OXA_DIR_INFO_T {
  DIR* stream;
  char* path;
  struct dirent entry;
};

namespace {

// Entries are read with the 64-bit interface in 32-bit builds too, so a directory holding a
// file whose inode number needs more than 32 bits lists like any other.
static_assert(sizeof(dirent::d_ino) == 8, "build with _FILE_OFFSET_BITS=64");

constexpr oxa_int64 kMicrosPerSecond = 1000000;

// The stored path of a new handle: the caller's path with "/" appended when missing.
// Null when memory is exhausted.
OXA_DIR_INFO_T* NewDirInfo(const char* path) {
  const size_t length = strlen(path);
  const bool has_slash = length > 0 && path[length - 1] == '/';
  OXA_DIR_INFO_T* info = OXA_AllocDirInfo_Inter(static_cast<int>(length + 1));
  if (info == nullptr) return nullptr;
  memcpy(info->path, path, length);
  if (!has_slash) info->path[length] = '/';
  return info;
}

}  // namespace

OXA_API OXA_DIR_INFO_T* OXA_AllocDirInfo_Inter(int path_length) {
  if (path_length < 0) return nullptr;
  auto* info = new (std::nothrow) OXA_DIR_INFO_T();
  if (info == nullptr) return nullptr;
  info->path = static_cast<char*>(calloc(static_cast<size_t>(path_length) + 1, 1));
  if (info->path == nullptr) {
    delete info;
    return nullptr;
  }
  return info;
}

OXA_API void OXA_FreeDirInfo_Inter(OXA_DIR_INFO_T* info) {
  if (info == nullptr) return;
  free(info->path);
  delete info;
}

OXA_API int OXA_FillFileInfo_Inter(const char* directory, const char* name,
                                   OXA_FILE_FIND_T* entry) {
  memset(entry, 0, sizeof *entry);
  strncpy(entry->name, name, sizeof entry->name - 1);
  std::string full;
  try {
    full.append(directory).append(name);
  } catch (const std::bad_alloc&) {
    return OXA_ERROR;
  }
  struct stat status;
  if (::stat(full.c_str(), &status) != 0) return OXA_ERROR;
  oxa::internal::FillCommonStatus(status, entry);
  // Only the low half of the inode number is reported in a directory entry.
  entry->inode = static_cast<uint32_t>(status.st_ino);
  entry->atime = status.st_atime * kMicrosPerSecond;
  entry->ctime = status.st_ctime * kMicrosPerSecond;
  entry->mtime = status.st_mtime * kMicrosPerSecond;
  return 0;
}

extern "C" {

OXA_API OXA_DIR_HANDLE OXA_OpenDir(const char* path) {
  if (path == nullptr) return nullptr;
  OXA_DIR_INFO_T* info = NewDirInfo(path);
  if (info == nullptr) return nullptr;
  info->stream = ::opendir(path);
  if (info->stream == nullptr) {
    OXA_FreeDirInfo_Inter(info);
    return nullptr;
  }
  return info;
}

OXA_API int OXA_FindFileInDir(OXA_DIR_HANDLE dir, OXA_FILE_FIND_T* entry) {
  if (dir == nullptr || entry == nullptr) return OXA_ERROR;
  // One stream per handle and one caller per handle at a time: readdir is safe here, and
  // unlike the deprecated readdir_r it handles names of any length the system allows.
  const struct dirent* next = ::readdir(dir->stream);
  if (next == nullptr) return OXA_ERROR;
  dir->entry = *next;
  OXA_FillFileInfo_Inter(dir->path, dir->entry.d_name, entry);
  return 0;
}

OXA_API int OXA_CloseDir(OXA_DIR_HANDLE dir) {
  if (dir == nullptr) return OXA_ERROR;
  ::closedir(dir->stream);
  OXA_FreeDirInfo_Inter(dir);
  return 0;
}

}  // extern "C"
