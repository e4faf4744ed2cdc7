#include <gtest/gtest.h>

#include <string>

#include "oxa_frame.h"

#include "support/test_support.h"

namespace {

TEST(OutputDebug, WritesTheLineWithANewline) {
  oxa_test::StderrCapture capture;
  EXPECT_GE(OXA_OutputDebug("x %d", 1), 0);
  EXPECT_EQ("x 1\n", capture.Take());
}

// Text of exactly the limit keeps every character; longer text is cut there, and the line is
// ended all the same.
TEST(OutputDebug, CutsLongTextAt5117CharactersAndStillEndsTheLine) {
  for (size_t length : {5117u, 5118u, 6000u}) {
    const std::string text(length, 'a');
    oxa_test::StderrCapture capture;
    OXA_OutputDebug("%s", text.c_str());
    EXPECT_EQ(std::string(5117, 'a') + "\n", capture.Take()) << length;
  }
}

TEST(OutputDebug, StringVariantAddsNothingAndDebugPrintsNothing) {
  oxa_test::StderrCapture capture;
  EXPECT_GE(OXA_OutputDebugString("raw"), 0);
  OXA_Debug("never %d", 1);
  EXPECT_EQ(EOF, OXA_OutputDebugString(nullptr));
  EXPECT_EQ("raw", capture.Take());
}

TEST(SystemError, ErrnoRoundTripAndText) {
  OXA_SetSystemLastError(ENOENT);
  EXPECT_EQ(ENOENT, OXA_GetSystemLastError());
  EXPECT_STREQ("No such file or directory", OXA_GetSystemErrorString(ENOENT));
  EXPECT_NE(nullptr, OXA_GetSystemErrorString(123456));
}

}  // namespace
