#include <gtest/gtest.h>

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "oxa_file.h"

#include "support/temp_dir.h"

namespace {

using oxa_test::ReadAll;
using oxa_test::TempDir;
using oxa_test::WriteAll;

constexpr unsigned int kRead = OXA_FOPEN_READ;
constexpr unsigned int kWrite = OXA_FOPEN_WRITE;
constexpr unsigned int kCreate = OXA_FOPEN_CREATE;

mode_t CurrentUmask() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return mask;
}

// The mode a file gets when created with these permission flags, the umask out of the way.
mode_t CreatedMode(const TempDir& dir, int permissions) {
  const std::string path = dir / ("m" + std::to_string(permissions));
  const mode_t old_mask = ::umask(0);
  const int fd = OXA_OpenFile(path.c_str(), kWrite | kCreate, permissions);
  ::umask(old_mask);
  struct stat status {};
  ::stat(path.c_str(), &status);
  OXA_CloseFile(fd);
  return status.st_mode & 07777;
}

TEST(File, CreationModesTranslateBitByBitWithOwnerReadAlways) {
  TempDir dir;
  EXPECT_EQ(0400u, CreatedMode(dir, OXA_FPROT_DEFAULT));
  EXPECT_EQ(0400u, CreatedMode(dir, OXA_FPROT_DEFAULT | OXA_FPROT_OTHER_WRITE));
  EXPECT_EQ(0444u, CreatedMode(dir, OXA_FPROT_GROUP_READ | OXA_FPROT_OTHER_READ));
  EXPECT_EQ(0700u, CreatedMode(dir, OXA_FPROT_WRITE_ALT | OXA_FPROT_EXEC_ALT));
  EXPECT_EQ(04677u, CreatedMode(dir, 0x8000 | 0x200 | 0x40 | 0x20 | 0x10 | 0x7));
}

TEST(File, OpenFlagsSelectAccessCreationAppendAndTruncation) {
  TempDir dir;
  const std::string path = dir / "f";
  errno = 1234;
  EXPECT_EQ(-1, OXA_OpenFile(path.c_str(), kCreate, 0));  // neither read nor write
  EXPECT_EQ(1234, errno) << "refused without calling the system";
  EXPECT_EQ(-1, OXA_OpenFile(nullptr, kRead, 0));
  EXPECT_EQ(-1, OXA_OpenFile(path.c_str(), kRead, 0));  // missing, no create

  int fd = OXA_OpenFile(path.c_str(), kWrite | kCreate | OXA_FOPEN_EXCL, OXA_FPROT_USER_WRITE);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(O_WRONLY, ::fcntl(fd, F_GETFL) & O_ACCMODE);
  EXPECT_EQ(0, OXA_WriteFile(fd, "abc", 3, nullptr));
  OXA_CloseFile(fd);
  EXPECT_EQ(-1, OXA_OpenFile(path.c_str(), kWrite | kCreate | OXA_FOPEN_EXCL, 0));
  EXPECT_EQ(EEXIST, errno);
  // Exclusive without create means nothing.
  fd = OXA_OpenFile(path.c_str(), kRead | kWrite | OXA_FOPEN_EXCL | OXA_FOPEN_APPEND, 0);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(O_RDWR, ::fcntl(fd, F_GETFL) & O_ACCMODE);
  EXPECT_EQ(0, OXA_FileSeek(fd, 0, SEEK_SET, nullptr));
  EXPECT_EQ(0, OXA_WriteFile(fd, "de", 2, nullptr));  // appended despite the seek
  OXA_CloseFile(fd);
  EXPECT_EQ("abcde", ReadAll(path));
  fd = OXA_OpenFile(path.c_str(), kRead | OXA_FOPEN_TRUNC | kWrite, 0);
  OXA_CloseFile(fd);
  EXPECT_EQ("", ReadAll(path));
}

TEST(File, CountsReceiveTheSystemResultFailuresIncluded) {
  TempDir dir;
  const std::string path = dir / "rw";
  const int fd = OXA_OpenFile(path.c_str(), kRead | kWrite | kCreate, OXA_FPROT_USER_WRITE);
  ASSERT_GE(fd, 0);
  unsigned int count = 99;
  EXPECT_EQ(0, OXA_WriteFile(fd, "hello", 5, &count));
  EXPECT_EQ(5u, count);
  oxa_int64 position = -5;
  EXPECT_EQ(-1, OXA_FileSeek(fd, -10, SEEK_SET, &position));
  EXPECT_EQ(-1, position);
  EXPECT_EQ(0, OXA_FileSeek(fd, 1, SEEK_SET, &position));
  char buffer[8] = {};
  EXPECT_EQ(0, OXA_ReadFile(fd, buffer, sizeof buffer, &count));
  EXPECT_STREQ("ello", buffer);
  OXA_CloseFile(fd);
  EXPECT_EQ(-1, OXA_ReadFile(fd, buffer, 1, &count));  // closed
  EXPECT_EQ(static_cast<unsigned int>(-1), count);
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, OXA_WriteFile(-1, "x", 1, nullptr));
  EXPECT_EQ(-1, OXA_ReadFile(0, nullptr, 1, nullptr));
  EXPECT_EQ(1, OXA_FileIsEOF(-1));
}

TEST(File, StatReportsTypeCodesPermissionsAndSeconds) {
  TempDir dir;
  const std::string path = dir / "s";
  WriteAll(path, "12345");
  ASSERT_EQ(0, ::chmod(path.c_str(), 02741 | S_ISVTX));
  struct stat expected {};
  ::stat(path.c_str(), &expected);
  int fd = OXA_OpenFile(path.c_str(), kRead, 0);
  OXA_FILE_STAT_T status;
  memset(&status, 0xAB, sizeof status);
  ASSERT_EQ(0, OXA_FileStat(fd, &status));
  OXA_CloseFile(fd);
  EXPECT_EQ(512u, status.type);
  EXPECT_EQ(0x4000u | 0x700 | 0x40 | 0x1, status.protection) << "set-group-id, no sticky bit";
  EXPECT_EQ(5, status.size);
  EXPECT_EQ(static_cast<oxa_uint64>(expected.st_ino), status.inode);
  EXPECT_EQ(expected.st_uid, status.uid);
  EXPECT_EQ(1u, status.links);
  EXPECT_EQ(expected.st_mtime, status.mtime) << "seconds, not microseconds";
  EXPECT_EQ(-1, OXA_FileStat(-1, &status));
  EXPECT_EQ(-1, OXA_FileStat(0, nullptr));

  const std::string fifo = dir / "fifo";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  const struct {
    const char* path;
    uint32_t type;
  } kinds[] = {{dir.path().c_str(), 256}, {"/dev/null", 1}, {fifo.c_str(), 32}};
  for (const auto& kind : kinds) {
    fd = ::open(kind.path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fd, 0) << kind.path;
    EXPECT_EQ(0, OXA_FileStat(fd, &status));
    EXPECT_EQ(kind.type, status.type) << kind.path;
    ::close(fd);
  }
}

// A file far beyond 4 GiB: offsets, sizes and positions keep all 64 bits on every target.
TEST(File, SparseFileBeyondFourGiB) {
  TempDir dir;
  const std::string path = dir / "big";
  const int fd = OXA_OpenFile(path.c_str(), kRead | kWrite | kCreate, 0);
  ASSERT_GE(fd, 0);
  constexpr oxa_int64 kFar = 5LL << 30;  // 5 GiB
  oxa_int64 position = 0;
  ASSERT_EQ(0, OXA_FileSeek(fd, kFar, SEEK_SET, &position));
  EXPECT_EQ(kFar, position);
  ASSERT_EQ(0, OXA_WriteFile(fd, "tail", 4, nullptr));
  OXA_FILE_STAT_T status{};
  ASSERT_EQ(0, OXA_FileStat(fd, &status));
  EXPECT_EQ(kFar + 4, status.size);
  EXPECT_EQ(0, OXA_FileSeek(fd, -4, SEEK_END, &position));
  EXPECT_EQ(kFar, position);
  char back[5] = {};
  EXPECT_EQ(0, OXA_ReadFile(fd, back, 4, nullptr));
  EXPECT_STREQ("tail", back);
  OXA_CloseFile(fd);
}

TEST(File, CopyKeepsBytesAndModeAndRefusesEmptyOrExisting) {
  TempDir dir;
  std::string content(100000, '\0');
  for (size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<char>(i * 7 + i / 251);
  const std::string source = dir / "src";
  WriteAll(source, content);
  ::chmod(source.c_str(), 0640);
  const std::string copy = dir / "copy";
  ASSERT_EQ(0, OXA_CopyFile(source.c_str(), copy.c_str(), 1));
  EXPECT_EQ(content, ReadAll(copy));
  struct stat status {};
  ::stat(copy.c_str(), &status);
  EXPECT_EQ(0640u, status.st_mode & 0777);

  EXPECT_EQ(-1, OXA_CopyFile(source.c_str(), copy.c_str(), 1)) << "exists";
  WriteAll(copy, "old text that is longer than nothing");
  WriteAll(source, "new");
  EXPECT_EQ(0, OXA_CopyFile(source.c_str(), copy.c_str(), 0));
  EXPECT_EQ("new", ReadAll(copy)) << "an existing destination is truncated first";

  WriteAll(source, "");
  EXPECT_EQ(-1, OXA_CopyFile(source.c_str(), (dir / "c2").c_str(), 0));
  EXPECT_EQ(-1, OXA_CopyFile((dir / "missing").c_str(), (dir / "c3").c_str(), 0));
  EXPECT_EQ(-1, OXA_CopyFile(nullptr, copy.c_str(), 0));
  EXPECT_EQ(-1, OXA_CopyFile(source.c_str(), nullptr, 0));
}

TEST(File, PathOperationsRefuseNullAndPassErrnoThrough) {
  TempDir dir;
  const std::string sub = dir / "sub";
  ASSERT_EQ(0, OXA_MakeDir(sub.c_str()));
  struct stat status {};
  ::stat(sub.c_str(), &status);
  EXPECT_EQ(0766u & ~CurrentUmask(), status.st_mode & 0777);
  WriteAll(sub + "/a", "x");
  EXPECT_EQ(0, OXA_RenameFile((sub + "/a").c_str(), (sub + "/b").c_str()));
  EXPECT_EQ(-1, OXA_RemoveDir(sub.c_str())) << "not empty";
  EXPECT_EQ(0, OXA_DeleteFile((sub + "/b").c_str()));
  EXPECT_EQ(0, OXA_RemoveDir(sub.c_str()));
  EXPECT_EQ(-1, OXA_AccessFile(sub.c_str(), F_OK));
  EXPECT_EQ(ENOENT, errno);
  for (int result :
       {OXA_MakeDir(nullptr), OXA_DeleteFile(nullptr), OXA_RemoveDir(nullptr),
        OXA_RenameFile(nullptr, "x"), OXA_RenameFile("x", nullptr), OXA_AccessFile(nullptr, F_OK)})
    EXPECT_EQ(-1, result);
}

TEST(File, ExecutablePathWithoutTerminator) {
  char expected[4096] = {};
  const ssize_t length = ::readlink("/proc/self/exe", expected, sizeof expected);
  ASSERT_GT(length, 0);
  char path[4096];
  memset(path, '#', sizeof path);
  ASSERT_EQ(0, OXA_GetCurExePath(path, static_cast<int>(length)));
  EXPECT_EQ(std::string(expected, static_cast<size_t>(length)),
            std::string(path, static_cast<size_t>(length)));
  EXPECT_EQ('#', path[length]) << "no terminator";
  errno = 0;
  EXPECT_EQ(-1, OXA_GetCurExePath(path, static_cast<int>(length) - 1));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(-1, OXA_GetCurExePath(path, -1));
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(-1, OXA_GetCurExePath(nullptr, 100));
  EXPECT_EQ(EINVAL, errno);
}

TEST(File, SharedObjectsLoadLookUpAndUnload) {
  void* math = OXA_LoadDSo("libm.so.6");
  ASSERT_NE(nullptr, math) << dlerror();
  auto cosine = reinterpret_cast<double (*)(double)>(OXA_GetDsoSym(math, "cos"));
  ASSERT_NE(nullptr, cosine);
  EXPECT_DOUBLE_EQ(1.0, cosine(0.0));
  EXPECT_EQ(nullptr, OXA_GetDsoSym(math, "no_such_symbol_here"));
  EXPECT_EQ(0, OXA_UnloadDSo(math));
  EXPECT_EQ(nullptr, OXA_LoadDSo("/no/such/library.so"));
  EXPECT_EQ(nullptr, OXA_LoadDSo(nullptr));
  EXPECT_EQ(nullptr, OXA_GetDsoSym(nullptr, "cos"));
  EXPECT_EQ(-1, OXA_UnloadDSo(nullptr));
}

}  // namespace
