#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

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

std::string Name(int number, bool writing) {
  return "d/oxa_log_" + std::to_string(number) + (writing ? "_w" : "") + ".log";
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Queues a line, retrying while the staging buffer is full; false when it never fit.
bool WriteRetrying(const char* text) {
  oxa_test::Stopwatch watch;
  for (;;) {
    const int result = WriteLog(OXA_LOG_INF, "t.cpp", 1, "%s", text);
    if (result == 0) return true;
    if (result != OXA_LOG_QUEUE_FULL || watch.Elapsed().count() > 20000) return false;
    sched_yield();
  }
}

// Lines of very different lengths, one longer than the limit: every file stops exactly
// where the next line would take it past the limit, and only the long line's file exceeds
// it. Together the files hold every line once, in order.
TEST(LogRotation, FilesRotateAtLineBoundariesUnderTheSizeLimit) {
  WorkingDir work;
  constexpr int64_t kLimit = 1000;
  ASSERT_EQ(0, EnableTarget(kFiles, "d", kLimit, 0));
  std::vector<std::string> texts;
  texts.reserve(60);
  for (int i = 0; i < 60; ++i)
    texts.push_back(std::to_string(i) + std::string(static_cast<size_t>(i * 37 % 150), 'x'));
  texts[30] = std::string(1500, 'L');
  for (const std::string& text : texts)
    ASSERT_TRUE(WriteRetrying(text.c_str()));
  Drain();

  std::vector<std::string> files;
  for (int number = 1; Exists(Name(number, false)); ++number)
    files.push_back(ReadAll(Name(number, false)));
  files.push_back(ReadAll(Name(static_cast<int>(files.size()) + 1, true)));
  ASSERT_GT(files.size(), 5u);
  std::vector<std::string> lines;
  for (size_t f = 0; f < files.size(); ++f) {
    const auto in_file = SplitLines(files[f]);
    ASSERT_FALSE(in_file.empty());
    if (in_file.size() > 1 || f + 1 == files.size()) {
      EXPECT_LE(static_cast<int64_t>(files[f].size()), kLimit) << "file " << f + 1;
    }
    if (f + 1 < files.size()) {
      const size_t next = SplitLines(files[f + 1])[0].size();
      EXPECT_GT(static_cast<int64_t>(files[f].size() + next), kLimit) << "rotated too early";
    }
    lines.insert(lines.end(), in_file.begin(), in_file.end());
  }
  ASSERT_EQ(texts.size(), lines.size());
  for (size_t i = 0; i < texts.size(); ++i)
    EXPECT_EQ(texts[i], TextOf(lines[i])) << "line " << i;
}

// 102 lines into files of 100 bytes: every line gets a file of its own.
void WriteOneLinePerFile(unsigned int cyclic) {
  ASSERT_EQ(0, EnableTarget(kFiles, "d", 100, cyclic));
  for (int i = 1; i <= 102; ++i)
    ASSERT_TRUE(WriteRetrying(("line " + std::to_string(i)).c_str()));
  Drain();
}

// With cyclic numbering file 101 is number 1 again, replacing the finished file 1 of the
// first round, and so on.
TEST(LogRotation, CyclicNumberingWrapsAfterAHundredFiles) {
  WorkingDir work;
  WriteOneLinePerFile(1);
  EXPECT_EQ("line 101", TextOf(ReadAll(Name(1, false))));
  EXPECT_EQ("line 102", TextOf(ReadAll(Name(2, true))));
  EXPECT_FALSE(Exists(Name(2, false))) << "deleted when file 2 was opened again";
  EXPECT_EQ("line 3", TextOf(ReadAll(Name(3, false))));
  EXPECT_EQ("line 100", TextOf(ReadAll(Name(100, false))));
  EXPECT_FALSE(Exists(Name(101, false)));
}

TEST(LogRotation, WithoutCyclicNumberingFilesGoPastAHundred) {
  WorkingDir work;
  WriteOneLinePerFile(0);
  EXPECT_EQ("line 1", TextOf(ReadAll(Name(1, false))));
  EXPECT_EQ("line 101", TextOf(ReadAll(Name(101, false))));
  EXPECT_EQ("line 102", TextOf(ReadAll(Name(102, true))));
}

// A new process starts at file 1: it deletes the finished file 1 of an earlier run and
// truncates the one being written, and leaves later numbers until it reaches them.
TEST(LogRotation, ARestartedServiceBeginsAgainAtFileOne) {
  WorkingDir work;
  mkdir("d", 0700);
  oxa_test::WriteAll(Name(1, false), "old finished\r\n");
  oxa_test::WriteAll(Name(1, true), "old line being written, longer than the new one\r\n");
  oxa_test::WriteAll(Name(2, false), "old second\r\n");
  ASSERT_EQ(0, EnableTarget(kFiles, "d", 0, 1));
  ASSERT_EQ(0, WriteLog(OXA_LOG_INF, "t.cpp", 1, "new"));
  Drain();
  EXPECT_FALSE(Exists(Name(1, false)));
  const auto lines = SplitLines(ReadAll(Name(1, true)));
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("new", TextOf(lines[0]));
  EXPECT_EQ("old second\r\n", ReadAll(Name(2, false)));
}

// Eight writers against small files: every line arrives whole, exactly once, and each
// writer's lines in the order it wrote them.
TEST(LogRotation, EightWritersLoseNoLineAndTearNone) {
  WorkingDir work;
  constexpr int kWriters = 8;
  constexpr int kLines = 1500;
  constexpr int64_t kLimit = int64_t{64} * 1024;
  ASSERT_EQ(0, EnableTarget(kFiles, "d", kLimit, 0));
  std::vector<std::thread> writers;
  writers.reserve(kWriters);
  std::vector<int> failures(kWriters, 0);
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([w, &failures] {
      char text[128];
      for (int n = 0; n < kLines; ++n) {
        snprintf(text, sizeof text, "w%d n%d %0*d", w, n, 40 + (n % 30), n);
        if (!WriteRetrying(text)) ++failures[static_cast<size_t>(w)];
      }
    });
  }
  for (std::thread& writer : writers)
    writer.join();
  Drain();
  for (int w = 0; w < kWriters; ++w)
    ASSERT_EQ(0, failures[static_cast<size_t>(w)]) << "writer " << w << " gave up";

  std::vector<int> next(kWriters, 0);
  int files = 0;
  for (int number = 1;; ++number) {
    std::string text = ReadAll(Name(number, false));
    if (text.empty()) text = ReadAll(Name(number, true));
    if (text.empty()) break;
    ++files;
    EXPECT_LE(static_cast<int64_t>(text.size()), kLimit);
    for (const std::string& line : SplitLines(text)) {
      int w = -1;
      int n = -1;
      int pad = -1;
      int consumed = 0;
      const std::string body = TextOf(line);
      ASSERT_EQ(3, sscanf(body.c_str(), "w%d n%d %d%n", &w, &n, &pad, &consumed)) << line;
      ASSERT_EQ(body.size(), static_cast<size_t>(consumed)) << "torn: " << line;
      ASSERT_TRUE(w >= 0 && w < kWriters) << line;
      ASSERT_EQ(next[static_cast<size_t>(w)], n) << "lost or out of order: " << line;
      ASSERT_EQ(n, pad);
      ++next[static_cast<size_t>(w)];
    }
  }
  EXPECT_GT(files, 10);
  for (int w = 0; w < kWriters; ++w)
    EXPECT_EQ(kLines, next[static_cast<size_t>(w)]) << "writer " << w;
}

// The writer is held up on a full pipe while lines keep coming: the staging buffer fills,
// wraps many times and refuses lines while full. Every line it accepted comes out intact,
// so no wrap overwrote a line that was queued or being written.
TEST(LogRotation, StagingWrapNeverOverwritesQueuedOrInFlightLines) {
  int pipe_fds[2];
  ASSERT_EQ(0, pipe2(pipe_fds, O_CLOEXEC));
  fcntl(pipe_fds[1], F_SETPIPE_SZ, 4096);
  fflush(stderr);
  const int saved_err = fcntl(2, F_DUPFD_CLOEXEC, 0);
  dup2(pipe_fds[1], 2);
  close(pipe_fds[1]);

  std::string drained;
  std::promise<void> full;
  std::thread reader([&] {
    full.get_future().wait();
    char buffer[65536];
    ssize_t n;
    while ((n = read(pipe_fds[0], buffer, sizeof buffer)) > 0)
      drained.append(buffer, static_cast<size_t>(n));
  });
  EnableTarget(OXA_LOG_TO_DEBUG, nullptr, 0, 0);
  constexpr int kLines = 6000;  // about three times the staging buffer
  int refused = 0;
  oxa_test::Stopwatch watch;
  for (int i = 0; i < kLines && watch.Elapsed().count() < 30000;) {
    const std::string text =
        std::to_string(i) + " " + std::string(900, static_cast<char>('a' + i % 26));
    const int result = WriteLog(OXA_LOG_INF, "t.cpp", 1, "%s", text.c_str());
    if (result == 0) {
      ++i;
      continue;
    }
    ASSERT_EQ(OXA_LOG_QUEUE_FULL, result);
    if (refused++ == 0) full.set_value();  // the buffer is full: let the writer go on
    sched_yield();
  }
  DisableTarget(OXA_LOG_TO_DEBUG);  // the last target: every accepted line is written first
  dup2(saved_err, 2);               // closes the pipe's last write end: the reader sees its end
  close(saved_err);
  if (refused == 0) full.set_value();
  reader.join();
  close(pipe_fds[0]);

  EXPECT_GT(refused, 0) << "the buffer never filled";
  const auto lines = SplitLines(drained);
  ASSERT_EQ(static_cast<size_t>(kLines), lines.size());
  for (int i = 0; i < kLines; ++i) {
    const std::string expected =
        std::to_string(i) + " " + std::string(900, static_cast<char>('a' + i % 26));
    ASSERT_EQ(expected, TextOf(lines[static_cast<size_t>(i)])) << "line " << i;
  }
}

}  // namespace
