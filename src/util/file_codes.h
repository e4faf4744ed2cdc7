// Translations between the library's file codes and the system's modes.
#ifndef OXA_SRC_UTIL_FILE_CODES_H_
#define OXA_SRC_UTIL_FILE_CODES_H_

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace oxa::internal {

// System open flags for OXA_FOPEN_* flags; -1 when neither read nor write is asked for.
int OpenFlagsFromCodes(unsigned int flags);
// The creation mode for OXA_FPROT_* permission flags. Owner read is always granted.
mode_t CreationModeFromCodes(int permissions);
// OXA_FTYPE_* code of a file's mode.
uint32_t TypeCodeFromMode(mode_t mode);
// OXA_FPROT_* bits of a file's mode; the sticky bit is dropped.
uint32_t ProtectionFromMode(mode_t mode);

// The fields that a file's status and a directory entry share, from a stat result. Times
// differ in unit between the two records and are left to the caller.
template <class Record>
void FillCommonStatus(const struct stat& status, Record* record) {
  record->type = TypeCodeFromMode(status.st_mode);
  record->uid = status.st_uid;
  record->gid = status.st_gid;
  record->protection = ProtectionFromMode(status.st_mode);
  record->device = static_cast<uint32_t>(status.st_dev);
  record->links = static_cast<uint32_t>(status.st_nlink);
  record->size = status.st_size;
}

}  // namespace oxa::internal

#endif  // OXA_SRC_UTIL_FILE_CODES_H_
