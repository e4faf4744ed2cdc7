// The translation tables of the file layer. Each table maps one bit to one bit, so a mode is
// built or read by walking the table; no bit depends on another except where noted.
#include "util/file_codes.h"

#include <fcntl.h>

#include "oxa_file.h"

namespace oxa::internal {
namespace {

struct BitPair {
  uint32_t library;
  mode_t system;
};

// Permission flags at creation. OXA_FPROT_WRITE_ALT and OXA_FPROT_EXEC_ALT are owner write
// and owner execute here, while the status direction reads 0x4000 as set-group-id: the two
// tables are deliberately not inverses of each other.
constexpr BitPair kCreationBits[] = {
    {OXA_FPROT_WRITE_ALT, S_IWUSR},   {OXA_FPROT_EXEC_ALT, S_IXUSR},
    {OXA_FPROT_SETUID, S_ISUID},      {OXA_FPROT_USER_READ, S_IRUSR},
    {OXA_FPROT_USER_WRITE, S_IWUSR},  {OXA_FPROT_USER_EXEC, S_IXUSR},
    {OXA_FPROT_GROUP_READ, S_IRGRP},  {OXA_FPROT_GROUP_WRITE, S_IWGRP},
    {OXA_FPROT_GROUP_EXEC, S_IXGRP},  {OXA_FPROT_OTHER_READ, S_IROTH},
    {OXA_FPROT_OTHER_WRITE, S_IWOTH}, {OXA_FPROT_OTHER_EXEC, S_IXOTH},
};

constexpr BitPair kStatusBits[] = {
    {OXA_FPROT_USER_READ, S_IRUSR},   {OXA_FPROT_USER_WRITE, S_IWUSR},
    {OXA_FPROT_USER_EXEC, S_IXUSR},   {OXA_FPROT_GROUP_READ, S_IRGRP},
    {OXA_FPROT_GROUP_WRITE, S_IWGRP}, {OXA_FPROT_GROUP_EXEC, S_IXGRP},
    {OXA_FPROT_OTHER_READ, S_IROTH},  {OXA_FPROT_OTHER_WRITE, S_IWOTH},
    {OXA_FPROT_OTHER_EXEC, S_IXOTH},  {OXA_FPROT_SETUID, S_ISUID},
    {OXA_FPROT_SETGID, S_ISGID},
};

}  // namespace

int OpenFlagsFromCodes(unsigned int flags) {
  const bool read = (flags & OXA_FOPEN_READ) != 0;
  const bool write = (flags & OXA_FOPEN_WRITE) != 0;
  if (!read && !write) return -1;
  int system = read && write ? O_RDWR : read ? O_RDONLY : O_WRONLY;
  if ((flags & OXA_FOPEN_CREATE) != 0) {
    system |= O_CREAT;
    // Exclusive creation means nothing without creation.
    if ((flags & OXA_FOPEN_EXCL) != 0) system |= O_EXCL;
  }
  if ((flags & OXA_FOPEN_APPEND) != 0) system |= O_APPEND;
  if ((flags & OXA_FOPEN_TRUNC) != 0) system |= O_TRUNC;
  if ((flags & OXA_FOPEN_DIRECT) != 0) system |= O_DIRECT;
  return system;
}

mode_t CreationModeFromCodes(int permissions) {
  const auto bits = static_cast<uint32_t>(permissions);
  mode_t mode = S_IRUSR;
  if ((bits & OXA_FPROT_DEFAULT) != 0) return mode;
  for (const BitPair& pair : kCreationBits) {
    if ((bits & pair.library) != 0) mode |= pair.system;
  }
  return mode;
}

uint32_t TypeCodeFromMode(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return OXA_FTYPE_REG;
    case S_IFDIR:
      return OXA_FTYPE_DIR;
    case S_IFCHR:
      return OXA_FTYPE_CHR;
    case S_IFBLK:
      return OXA_FTYPE_BLK;
    case S_IFIFO:
      return OXA_FTYPE_FIFO;
    case S_IFLNK:
      return OXA_FTYPE_LNK;
    case S_IFSOCK:
      return OXA_FTYPE_SOCK;
    default:
      return OXA_FTYPE_UNKNOWN;
  }
}

uint32_t ProtectionFromMode(mode_t mode) {
  uint32_t bits = 0;
  for (const BitPair& pair : kStatusBits) {
    if ((mode & pair.system) != 0) bits |= pair.library;
  }
  return bits;
}

}  // namespace oxa::internal
