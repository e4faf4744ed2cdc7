// Files, directories and the log service: a file written, copied through memory maps and
// listed with its neighbours; then a few log lines at every level into small rotating files,
// and the files they went to. Everything happens in a fresh folder under /tmp, removed at
// the end.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>

#include "oxa_file.h"
#include "oxa_log.h"

namespace {

const char* TypeName(uint32_t type) {
  switch (type) {
    case OXA_FTYPE_REG:
      return "file";
    case OXA_FTYPE_DIR:
      return "dir";
    case OXA_FTYPE_LNK:
      return "link";
    default:
      return "other";
  }
}

void PrintListing(const std::string& path) {
  OXA_DIR_HANDLE dir = OXA_OpenDir(path.c_str());
  if (dir == nullptr) {
    printf("  cannot list %s\n", path.c_str());
    return;
  }
  OXA_FILE_FIND_T entry;
  while (OXA_FindFileInDir(dir, &entry) == 0) {
    const time_t seconds = static_cast<time_t>(entry.mtime / 1000000);
    struct tm local {};
    localtime_r(&seconds, &local);
    char when[32];
    strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
    printf("  %-5s %04x %8lld  %s  %s\n", TypeName(entry.type), entry.protection,
           static_cast<long long>(entry.size), when, entry.name);
  }
  OXA_CloseDir(dir);
}

void WriteText(const std::string& path, const char* text) {
  const OXA_FILE_HANDLE file =
      OXA_OpenFile(path.c_str(), OXA_FOPEN_WRITE | OXA_FOPEN_CREATE | OXA_FOPEN_TRUNC,
                   OXA_FPROT_USER_READ | OXA_FPROT_USER_WRITE | OXA_FPROT_GROUP_READ);
  OXA_WriteFile(file, text, static_cast<unsigned int>(strlen(text)), nullptr);
  OXA_CloseFile(file);
}

void FilesTour(const std::string& root) {
  char exe[4096] = {};
  if (OXA_GetCurExePath(exe, sizeof exe - 1) == 0) printf("running %s\n", exe);
  const std::string original = root + "/notes.txt";
  const std::string copy = root + "/notes-copy.txt";
  WriteText(original, "liboxa copies files through memory maps.\n");
  printf("OXA_CopyFile(notes.txt, notes-copy.txt) = %d\n",
         OXA_CopyFile(original.c_str(), copy.c_str(), 1));
  printf("again, failing if it exists        = %d\n",
         OXA_CopyFile(original.c_str(), copy.c_str(), 1));
  OXA_MakeDir((root + "/sub").c_str());
  printf("listing of %s (type, mode bits, size, modified, name):\n", root.c_str());
  PrintListing(root);
}

void LogTour(const std::string& root) {
  const std::string logs = root + "/logs";
  // Files of at most 300 bytes, so a handful of lines already rotates them.
  EnableTarget(OXA_LOG_TO_FILES, logs.c_str(), 300, 1);
  AdjustLogLevel(OXA_LOG_DBG);  // errors and debug lines; information is filtered out
  WriteLog(OXA_LOG_ERR, __FILE__, __LINE__, "sensor %d did not answer", 3);
  WriteLog(OXA_LOG_DBG, __FILE__, __LINE__, "retrying sensor %d in %d ms", 3, 250);
  const int filtered = WriteLog(OXA_LOG_INF, __FILE__, __LINE__, "not written");
  for (int i = 1; i <= 4; ++i)
    WriteLog(OXA_LOG_DBG, __FILE__, __LINE__, "sample %d: %d.%d C", i, 20 + i, i * 3 % 10);
  StopLogService(false);  // writes every queued line out, then stops the writer
  printf("an information line at level 2 gave %d\n", filtered);
  printf("log files in %s:\n", logs.c_str());
  PrintListing(logs);
  printf("content of oxa_log_1.log:\n");
  FILE* first = fopen((logs + "/oxa_log_1.log").c_str(), "re");
  char line[512];
  while (first != nullptr && fgets(line, sizeof line, first) != nullptr)
    printf("  %s", line);
  if (first != nullptr) fclose(first);
}

void RemoveTree(const std::string& path) {
  OXA_DIR_HANDLE dir = OXA_OpenDir(path.c_str());
  OXA_FILE_FIND_T entry;
  while (dir != nullptr && OXA_FindFileInDir(dir, &entry) == 0) {
    if (strcmp(entry.name, ".") == 0 || strcmp(entry.name, "..") == 0) continue;
    const std::string child = path + "/" + entry.name;
    if (entry.type == OXA_FTYPE_DIR) RemoveTree(child);
    OXA_DeleteFile(child.c_str());
  }
  if (dir != nullptr) OXA_CloseDir(dir);
}

}  // namespace

int main() {
  char pattern[] = "/tmp/oxa_files_XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 1;
  const std::string root = pattern;
  FilesTour(root);
  printf("\n");
  LogTour(root);
  RemoveTree(root);
  OXA_RemoveDir(root.c_str());
  return 0;
}
