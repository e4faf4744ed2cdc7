#include <gtest/gtest.h>

#include <errno.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "oxa_file.h"

#include "support/temp_dir.h"
#include "support/test_support.h"

namespace {

using oxa_test::TempDir;
using oxa_test::WriteAll;

// Every entry of a directory by name; empty when it cannot be opened.
std::map<std::string, OXA_FILE_FIND_T> List(const std::string& path) {
  std::map<std::string, OXA_FILE_FIND_T> entries;
  OXA_DIR_HANDLE dir = OXA_OpenDir(path.c_str());
  if (dir == nullptr) return entries;
  OXA_FILE_FIND_T entry;
  while (OXA_FindFileInDir(dir, &entry) == 0)
    entries[entry.name] = entry;
  EXPECT_EQ(-1, OXA_FindFileInDir(dir, &entry)) << "the end stays the end";
  EXPECT_EQ(0, OXA_CloseDir(dir));
  return entries;
}

TEST(Directory, ListsEveryEntryWithStatusAndMicrosecondTimes) {
  TempDir dir;
  WriteAll(dir / "file", "12345");
  ::mkdir((dir / "sub").c_str(), 0750);
  ASSERT_EQ(0, ::symlink("file", (dir / "link").c_str()));
  ASSERT_EQ(0, ::symlink("missing", (dir / "dangling").c_str()));
  const std::string long_name(255, 'n');
  WriteAll(dir / long_name, "");

  // Without a trailing slash: entries are examined at path + "/" + name all the same.
  const auto entries = List(dir.path());
  ASSERT_EQ(7u, entries.size());
  EXPECT_EQ(1u, entries.count("."));
  EXPECT_EQ(1u, entries.count(".."));
  EXPECT_EQ(256u, entries.at(".").type);

  const OXA_FILE_FIND_T& file = entries.at("file");
  struct stat status {};
  ::stat((dir / "file").c_str(), &status);
  EXPECT_EQ(512u, file.type);
  EXPECT_EQ(5, file.size);
  EXPECT_EQ(static_cast<oxa_int64>(status.st_mtime) * 1000000, file.mtime);
  EXPECT_EQ(static_cast<oxa_int64>(status.st_atime) * 1000000, file.atime);
  EXPECT_EQ(static_cast<uint32_t>(status.st_ino), file.inode);
  EXPECT_EQ(256u, entries.at("sub").type);
  EXPECT_EQ(0x750u, entries.at("sub").protection);
  EXPECT_EQ(512u, entries.at("link").type) << "links are followed";
  EXPECT_EQ(512u, entries.at(long_name).type);

  // An entry that cannot be examined has its name and nothing else.
  const OXA_FILE_FIND_T& dangling = entries.at("dangling");
  EXPECT_EQ(0u, dangling.type);
  EXPECT_EQ(0, dangling.mtime);

  // With a trailing slash the same.
  EXPECT_EQ(7u, List(dir.path() + "/").size());
}

TEST(Directory, BadArgumentsAndNoLeakOverManyCycles) {
  EXPECT_EQ(nullptr, OXA_OpenDir(nullptr));
  errno = 0;
  EXPECT_EQ(nullptr, OXA_OpenDir("/no/such/directory"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, OXA_CloseDir(nullptr));
  OXA_FILE_FIND_T entry;
  EXPECT_EQ(-1, OXA_FindFileInDir(nullptr, &entry));
  OXA_DIR_HANDLE dir = OXA_OpenDir("/");
  ASSERT_NE(nullptr, dir);
  EXPECT_EQ(-1, OXA_FindFileInDir(dir, nullptr));
  OXA_CloseDir(dir);
  OXA_FreeDirInfo_Inter(nullptr);
  EXPECT_EQ(nullptr, OXA_AllocDirInfo_Inter(-1));

  const int fds = oxa_test::OpenFdCount();
  for (int i = 0; i < 1000; ++i) {
    dir = OXA_OpenDir("/");
    ASSERT_NE(nullptr, dir);
    OXA_FindFileInDir(dir, &entry);
    OXA_CloseDir(dir);
  }
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
}

// Directory entries whose inode numbers need all 64 bits. The test builds them: an overlay
// of two tmpfs mounts with "xino=on" stores the layer in the inode number's top bit, so files
// of the lower layer get numbers from 2^63 up. The mounts live in a private mount namespace
// that ends with this test's process. On a 32-bit target without the large-file interfaces,
// listing such a directory fails with EOVERFLOW.
class OverlayDirectory {
 public:
  explicit OverlayDirectory(const TempDir& root) : merged_(root / "merged") {
    reason_ = Build(root / "lower", root / "upper");
  }
  // Unmounted before the temporary directory goes, so nothing is left behind in it.
  ~OverlayDirectory() {
    for (const std::string& path : mounted_)
      ::umount2(path.c_str(), MNT_DETACH);
  }
  OverlayDirectory(const OverlayDirectory&) = delete;
  OverlayDirectory& operator=(const OverlayDirectory&) = delete;

  bool ready() const { return reason_.empty(); }
  const std::string& reason() const { return reason_; }
  const std::string& path() const { return merged_; }

 private:
  static std::string Failed(const char* step) {
    return std::string(step) + ": errno " + std::to_string(errno);
  }

  // Empty when the overlay is mounted, else the step that failed and why.
  std::string Build(const std::string& lower, const std::string& upper) {
    if (::unshare(CLONE_NEWNS) != 0) return Failed("unshare");
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return Failed("private mounts");
    for (const std::string& path : {lower, upper, merged_})
      ::mkdir(path.c_str(), 0700);
    if (::mount("lower", lower.c_str(), "tmpfs", 0, nullptr) != 0) return Failed("tmpfs");
    mounted_.insert(mounted_.begin(), lower);
    if (::mount("upper", upper.c_str(), "tmpfs", 0, nullptr) != 0) return Failed("tmpfs");
    mounted_.insert(mounted_.begin(), upper);
    for (const std::string& path : {lower + "/l", upper + "/u", upper + "/w"})
      ::mkdir(path.c_str(), 0700);
    WriteAll(lower + "/l/a", "a");
    WriteAll(lower + "/l/b", "bb");
    const std::string options =
        "lowerdir=" + lower + "/l,upperdir=" + upper + "/u,workdir=" + upper + "/w,xino=on";
    if (::mount("overlay", merged_.c_str(), "overlay", 0, options.c_str()) != 0)
      return Failed("overlay");
    mounted_.insert(mounted_.begin(), merged_);
    return "";
  }

  std::string merged_;
  std::string reason_;
  std::vector<std::string> mounted_;  // the last mounted first
};

TEST(Directory, EntriesWithSixtyFourBitInodeNumbers) {
  TempDir root;
  OverlayDirectory overlay(root);
  if (!overlay.ready())
    GTEST_SKIP() << "no mount permission to build 64-bit inode numbers: " << overlay.reason();
  struct stat status {};
  ASSERT_EQ(0, ::stat((overlay.path() + "/b").c_str(), &status));
  ASSERT_GT(static_cast<oxa_uint64>(status.st_ino), 0xFFFFFFFFull) << "not a 64-bit number";

  const auto entries = List(overlay.path());
  ASSERT_EQ(4u, entries.size());
  const OXA_FILE_FIND_T& b = entries.at("b");
  EXPECT_EQ(512u, b.type);
  EXPECT_EQ(2, b.size);
  EXPECT_EQ(static_cast<uint32_t>(status.st_ino), b.inode) << "low half only in a listing";

  const int fd = OXA_OpenFile((overlay.path() + "/b").c_str(), OXA_FOPEN_READ, 0);
  OXA_FILE_STAT_T full{};
  EXPECT_EQ(0, OXA_FileStat(fd, &full));
  OXA_CloseFile(fd);
  EXPECT_EQ(static_cast<oxa_uint64>(status.st_ino), full.inode) << "all 64 bits in a status";
}

}  // namespace
