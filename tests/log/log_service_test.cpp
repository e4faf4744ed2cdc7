#include <gtest/gtest.h>

#include <ctype.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "oxa_frame.h"
#include "oxa_log.h"

#include "log/log_test_support.h"
#include "support/test_support.h"

namespace {

using oxa_test::Drain;
using oxa_test::ReadAll;
using oxa_test::SplitLines;
using oxa_test::TextOf;
using oxa_test::WorkingDir;

constexpr log_services kFiles = OXA_LOG_TO_FILES;

// "[dddd-dd-dd dd:dd:dd.000]"
bool IsStamp(const std::string& text) {
  const std::string shape = "[dddd-dd-dd dd:dd:dd.000]";
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == 'd' ? isdigit(static_cast<unsigned char>(text[i])) == 0 : text[i] != shape[i])
      return false;
  }
  return true;
}

TEST(LogService, LineFormatFileNameAndDefaultDirectory) {
  WorkingDir work;
  ASSERT_TRUE(work.entered());
  ASSERT_EQ(0, EnableTarget(kFiles, nullptr, 0, 1));
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "src\\sub/module.cpp", 42, "hello %d", 7));
  EXPECT_EQ(0, WriteLog(OXA_LOG_ERR, "plain", -1, "%s", ""));
  EXPECT_EQ(0, WriteLog(OXA_LOG_DBG, "/", INT32_MIN, "min"));
  Drain();
  const auto lines = SplitLines(ReadAll("./oxalog/oxa_log_1_w.log"));
  ASSERT_EQ(3u, lines.size());
  ASSERT_TRUE(IsStamp(lines[0].substr(0, 25))) << lines[0];
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  EXPECT_EQ(local.tm_year + 1900, std::stoi(lines[0].substr(1, 4)));
  EXPECT_EQ("[INF][FILE:module.cpp][LINE:42] hello 7\r\n", lines[0].substr(25));
  EXPECT_EQ("[ERR][FILE:plain][LINE:-1] \r\n", lines[1].substr(25));
  EXPECT_EQ("[DBG][FILE:][LINE:-2147483648] min\r\n", lines[2].substr(25));
}

TEST(LogService, ResultCodesAndLevelOrder) {
  WorkingDir work;
  EXPECT_EQ(OXA_LOG_NO_TARGET, WriteLog(OXA_LOG_ERR, "f", 1, "x"));
  EXPECT_EQ(OXA_LOG_BAD_ARGUMENT, EnableTarget(static_cast<log_services>(3), nullptr, 0, 0));
  EXPECT_EQ(OXA_LOG_BAD_ARGUMENT, DisableTarget(static_cast<log_services>(-1)));
  ASSERT_EQ(0, EnableTarget(kFiles, "logs\\sub", 0, 1));  // "logs" must exist: one level
  EXPECT_EQ(OXA_LOG_BAD_ARGUMENT, WriteLog(OXA_LOG_ERR, nullptr, 1, "x"));
  EXPECT_EQ(OXA_LOG_BAD_ARGUMENT, WriteLog(OXA_LOG_ERR, "f", 1, nullptr));

  EXPECT_EQ(0, AdjustLogLevel(OXA_LOG_DBG));  // errors and debug lines, no information
  EXPECT_EQ(OXA_LOG_FILTERED, WriteLog(OXA_LOG_INF, "f", 1, "dropped"));
  EXPECT_EQ(0, WriteLog(OXA_LOG_DBG, "f", 2, "debug"));
  EXPECT_EQ(0, WriteLog(OXA_LOG_ERR, "f", 3, "error"));
  AdjustLogLevel(OXA_LOG_DISABLE);
  EXPECT_EQ(OXA_LOG_FILTERED, WriteLog(OXA_LOG_ERR, "f", 4, "dropped"));
  EXPECT_EQ(0, WriteLog(OXA_LOG_DISABLE, "f", 5, "zero"));
  AdjustLogLevel(OXA_LOG_INF);
  Drain();
  EXPECT_EQ(-1, access("logs/sub/oxa_log_1_w.log", F_OK)) << "no parent was created";

  mkdir("logs", 0700);
  ASSERT_EQ(0, EnableTarget(kFiles, "logs\\sub", 0, 1));
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 6, "kept"));
  {
    oxa_test::StderrCapture capture;
    const std::string too_long(257, 'd');
    EXPECT_EQ(0, EnableTarget(kFiles, too_long.c_str(), 0, 1));
    EXPECT_NE(std::string::npos, capture.Take().find("257 characters refused"));
  }
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 7, "same place"));
  EXPECT_EQ(0, StopLogService(true));
  EXPECT_EQ(0, EnableTarget(kFiles, "logs/sub/", 0, 1));
  EXPECT_EQ(OXA_LOG_NOT_STARTED, WriteLog(OXA_LOG_INF, "f", 8, "refused"));
  EXPECT_EQ(0, StartLogService());
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 9, "again"));
  Drain();
  const auto lines = SplitLines(ReadAll("logs/sub/oxa_log_1_w.log"));
  ASSERT_EQ(1u, lines.size()) << "reopened and truncated by the restart";
  EXPECT_EQ("again", TextOf(lines[0]));
}

// Standard output and the debug stream get the same bytes as a file would, CR LF included;
// the writer thread ends when the last target goes off.
TEST(LogService, ConsoleAndDebugTargetsAndThreadLifetime) {
  const int threads = oxa_test::ThreadCount();
  const int fds = oxa_test::OpenFdCount();
  std::string debug_text;
  testing::internal::CaptureStdout();
  {
    oxa_test::StderrCapture capture;
    EnableTarget(OXA_LOG_TO_CONSOLE, nullptr, 0, 0);
    EnableTarget(OXA_LOG_TO_DEBUG, nullptr, 0, 0);
    EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "a/b.c", 1, "first"));
    EXPECT_EQ(threads + 1, oxa_test::ThreadCount());
    EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "a/b.c", 2, "second"));
    EXPECT_EQ(0, DisableTarget(OXA_LOG_TO_CONSOLE));
    EXPECT_EQ(0, DisableTarget(OXA_LOG_TO_DEBUG));  // none left: stops, lines written first
    debug_text = capture.Take();
  }
  const std::string console_text = testing::internal::GetCapturedStdout();
  const auto lines = SplitLines(console_text);
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("first", TextOf(lines[0]));
  EXPECT_EQ("second", TextOf(lines[1]));
  EXPECT_EQ(console_text, debug_text);
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
  EXPECT_EQ(fds, oxa_test::OpenFdCount());
  EXPECT_EQ(OXA_LOG_NO_TARGET, WriteLog(OXA_LOG_INF, "a/b.c", 3, "nowhere"));
}

TEST(LogService, OneCallSwitchAndLibraryStop) {
  WorkingDir work;
  const int threads = oxa_test::ThreadCount();
  AdjustLogLevel(OXA_LOG_ERR);
  EXPECT_EQ(0, OXA_Log(2, "mine"));
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 1, "level 3 again"));
  EXPECT_EQ(0, OXA_Log(0, nullptr));
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
  EXPECT_EQ(1u, SplitLines(ReadAll("mine/oxa_log_1_w.log")).size());
  EXPECT_EQ(OXA_LOG_NO_TARGET, WriteLog(OXA_LOG_INF, "f", 2, "files are off"));
  EnableTarget(kFiles, "mine", 0, 0);
  EXPECT_EQ(OXA_LOG_NOT_STARTED, WriteLog(OXA_LOG_INF, "f", 3, "stopped"));
  EXPECT_EQ(0, OXA_Log(2, "mine"));
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 4, "allowed"));

  // The library's last stop ends logging the same way.
  ASSERT_EQ(0, OXA_Init());
  ASSERT_EQ(0, OXA_Init());
  EXPECT_EQ(0, OXA_Fini());
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 5, "still on"));
  EXPECT_EQ(0, OXA_Fini());
  EXPECT_TRUE(oxa_test::WaitForThreadCount(threads));
  EXPECT_EQ(OXA_LOG_NO_TARGET, WriteLog(OXA_LOG_INF, "f", 6, "off"));
  oxa2_log();
}

// Files that cannot be opened or written are reported on the debug channel while lines keep
// being accepted; once the file can grow again, the lines that follow are all written.
TEST(LogService, FileFailuresAreReportedAndTheServiceGoesOn) {
  WorkingDir work;
  oxa_test::WriteAll("blocker", "a file where a directory should be");
  oxa_test::StderrCapture capture;
  EnableTarget(kFiles, "blocker/sub", 0, 0);
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 1, "nowhere to go"));
  DisableTarget(OXA_LOG_TO_CONSOLE);  // a barrier: what was queued before is handled

  signal(SIGXFSZ, SIG_IGN);  // a file at its size limit fails with EFBIG instead
  struct rlimit old_limit {};
  getrlimit(RLIMIT_FSIZE, &old_limit);
  struct rlimit small = old_limit;
  small.rlim_cur = 1000;
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &small));
  EnableTarget(kFiles, "full", 0, 0);
  for (int i = 0; i < 30; ++i)
    EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 2, "line %02d of a disk that fills up", i));
  DisableTarget(OXA_LOG_TO_CONSOLE);
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &old_limit));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f", 3, "after %d", i));
  Drain();
  const std::string errors = capture.Take();
  EXPECT_NE(std::string::npos,
            errors.find("LogService OpenFile[blocker/sub/oxa_log_1_w.log] failed"))
      << errors;
  const std::string full_error = "LogService WriteFile[full/oxa_log_1_w.log] failed, errno 27";
  const size_t first = errors.find(full_error);
  EXPECT_NE(std::string::npos, first) << errors;
  EXPECT_EQ(std::string::npos, errors.find(full_error, first + 1)) << "reported once";
  const std::string text = ReadAll("full/oxa_log_1_w.log");
  // Whole lines up to the limit (the one cut by it removed again), then the later ones.
  const auto lines = SplitLines(text);
  ASSERT_GT(lines.size(), 4u) << text;
  for (const std::string& line : lines)
    EXPECT_EQ("\r\n", line.substr(line.size() - 2)) << "torn: " << line;
  EXPECT_EQ("line 00 of a disk that fills up", TextOf(lines[0]));
  EXPECT_EQ("after 0", TextOf(lines[lines.size() - 3]));
  EXPECT_EQ("after 2", TextOf(lines.back()));
}

// The longest line is 2,048 bytes with its terminator: text is cut so that CR LF always end
// it, with a long file name or a long text, and the file gets exactly what was queued.
TEST(LogService, OverLongLinesAreClampedInsideTheLineBuffer) {
  WorkingDir work;
  char prefix[2048];
  const int prefix_length = FormatTimeAndName(prefix, sizeof prefix, OXA_LOG_INF, "f.c", 1);
  ASSERT_GT(prefix_length, 40);
  char small[11];
  memset(small, '#', sizeof small);
  EXPECT_EQ(prefix_length, FormatTimeAndName(small, 10, OXA_LOG_INF, "f.c", 1));
  EXPECT_EQ(std::string(prefix, 9), small) << "cut like snprintf, terminated";
  EXPECT_EQ('#', small[10]);
  EXPECT_EQ(prefix_length, FormatTimeAndName(nullptr, 0, OXA_LOG_INF, "f.c", 1));
  const auto fits = static_cast<size_t>(2045 - prefix_length);
  const std::string exact(fits, 'e');
  const std::string over(fits + 1, 'o');
  const std::string huge(10000, 'h');
  const std::string long_name(3000, 'n');
  EnableTarget(kFiles, "d", 0, 0);
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f.c", 1, "%s", exact.c_str()));
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f.c", 1, "%s", over.c_str()));
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f.c", 1, "%s", huge.c_str()));
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, long_name.c_str(), 1, "text"));
  EXPECT_EQ(0, WriteLog(OXA_LOG_INF, "f.c", 1, "short"));
  Drain();
  const auto lines = SplitLines(ReadAll("d/oxa_log_1_w.log"));
  ASSERT_EQ(5u, lines.size());
  for (size_t i = 0; i < 4; ++i)
    EXPECT_EQ(2047u, lines[i].size()) << "line " << i;
  EXPECT_EQ(exact, TextOf(lines[0]));
  EXPECT_EQ(over.substr(1), TextOf(lines[1]));
  EXPECT_EQ(huge.substr(0, fits), TextOf(lines[2]));
  EXPECT_EQ("[FILE:nnnn", lines[3].substr(30, 10));
  EXPECT_EQ("short", TextOf(lines[4]));
}

}  // namespace
