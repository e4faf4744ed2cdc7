// A read-only stdio stream over a kernel file, closed when it goes out of scope.
#ifndef OXA_SRC_UTIL_PROC_FILE_H_
#define OXA_SRC_UTIL_PROC_FILE_H_

#include <errno.h>
#include <stdio.h>

#include "frame/errno_util.h"

namespace oxa::internal {

class ProcFile {
 public:
  // "e": close-on-exec, so a child started meanwhile does not inherit the descriptor.
  explicit ProcFile(const char* path) : file_(fopen(path, "re")) {}
  ~ProcFile() {
    if (file_ != nullptr) {
      ErrnoSaver keep;  // closing must not hide the error of a failed parse
      fclose(file_);
    }
  }
  ProcFile(const ProcFile&) = delete;
  ProcFile& operator=(const ProcFile&) = delete;

  FILE* get() const { return file_; }

 private:
  FILE* file_;
};

}  // namespace oxa::internal

#endif  // OXA_SRC_UTIL_PROC_FILE_H_
