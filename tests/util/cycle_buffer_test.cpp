#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "oxa_hash.h"

namespace {

// Records every piece handed to the reader; optionally writes more from inside the reader.
struct Reader {
  std::vector<std::string> pieces;
  OXA_CYCLE_BUFFER buffer = nullptr;
  std::string write_during_read;

  static void Collect(const char* bytes, unsigned int length, void* user) {
    auto* self = static_cast<Reader*>(user);
    self->pieces.emplace_back(bytes, length);
    if (!self->write_during_read.empty()) {
      const std::string more = std::move(self->write_during_read);
      self->write_during_read.clear();
      EXPECT_EQ(0, OXA_CycleBufferWrite(self->buffer, more.data(), more.size()));
    }
  }
};

class CycleBuffer : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, OXA_CycleBufferInit(&reader_.buffer, 10, &Reader::Collect, &reader_));
  }
  void TearDown() override { EXPECT_EQ(0, OXA_CycleBufferDestroy(reader_.buffer)); }

  int Write(const std::string& bytes) {
    return OXA_CycleBufferWrite(reader_.buffer, bytes.data(), bytes.size());
  }
  unsigned int Stored() {
    unsigned int stored = 99;
    EXPECT_EQ(0, OXA_CycleBufferValue(reader_.buffer, &stored));
    return stored;
  }
  // Reads and returns the pieces the reader got.
  std::vector<std::string> Read() {
    reader_.pieces.clear();
    EXPECT_EQ(0, OXA_CycleBufferRead(reader_.buffer));
    return reader_.pieces;
  }

  Reader reader_;
};

TEST(CycleBufferArguments, BadArgumentsFailWithoutSideEffects) {
  OXA_CYCLE_BUFFER buffer = nullptr;
  EXPECT_EQ(-1, OXA_CycleBufferInit(nullptr, 10, &Reader::Collect, nullptr));
  EXPECT_EQ(-1, OXA_CycleBufferInit(&buffer, 10, nullptr, nullptr));
  EXPECT_EQ(-1, OXA_CycleBufferInit(&buffer, 0, &Reader::Collect, nullptr));
  EXPECT_EQ(-1, OXA_CycleBufferInit(&buffer, 0x80000000u, &Reader::Collect, nullptr));
  EXPECT_EQ(-1, OXA_CycleBufferInit(&buffer, 0xFFFFFFFFu, &Reader::Collect, nullptr));
  EXPECT_EQ(nullptr, buffer);
  unsigned int stored = 0;
  EXPECT_EQ(-1, OXA_CycleBufferWrite(nullptr, "x", 1));
  EXPECT_EQ(-1, OXA_CycleBufferRead(nullptr));
  EXPECT_EQ(-1, OXA_CycleBufferValue(nullptr, &stored));
  EXPECT_EQ(-1, OXA_CycleBufferDestroy(nullptr));
}

TEST_F(CycleBuffer, WritesAreWholeOrNothing) {
  EXPECT_EQ(-1, OXA_CycleBufferWrite(reader_.buffer, nullptr, 1));
  EXPECT_EQ(-1, Write(""));
  EXPECT_EQ(-1, OXA_CycleBufferWrite(reader_.buffer, "x", 0xFFFFFFFFu));  // no wrap-around
  EXPECT_EQ(-1, Write("01234567890"));
  EXPECT_EQ(0, Write("012345"));
  EXPECT_EQ(-1, Write("abcde"));
  EXPECT_EQ(6u, Stored());
  EXPECT_EQ(0, Write("abcd"));  // exactly the free space
  EXPECT_EQ(-1, Write("z"));
  EXPECT_EQ(-1, OXA_CycleBufferValue(reader_.buffer, nullptr));
  // A full buffer read from position 0 wraps with a first piece of size - stored = 0 bytes.
  EXPECT_EQ(std::vector<std::string>({"", ""}), Read());
  EXPECT_EQ(0u, Stored());
}

TEST_F(CycleBuffer, EmptyReadFailsWithoutCallingTheReader) {
  EXPECT_EQ(-1, OXA_CycleBufferRead(reader_.buffer));
  EXPECT_TRUE(reader_.pieces.empty());
}

TEST_F(CycleBuffer, WrappedReadNeverHandsBytesOutsideTheBuffer) {
  ASSERT_EQ(0, Write("01234567"));
  EXPECT_EQ(std::vector<std::string>({"01234567"}), Read());
  // Five bytes from position 8: two to the end, three at the start. The first piece must
  // stop at the end of the buffer although size minus stored would be 5.
  ASSERT_EQ(0, Write("abcde"));
  EXPECT_EQ(std::vector<std::string>({"ab", "cde"}), Read());
  EXPECT_EQ(0u, Stored());
  ASSERT_EQ(0, Write("xy"));
  EXPECT_EQ(std::vector<std::string>({"xy"}), Read());
}

TEST_F(CycleBuffer, DataEndingAtTheBufferEndGivesAnEmptySecondPiece) {
  ASSERT_EQ(0, Write("01234"));
  Read();
  ASSERT_EQ(0, Write("56789"));
  EXPECT_EQ(std::vector<std::string>({"56789", ""}), Read());
}

TEST_F(CycleBuffer, WrappedReadFirstPieceIsSizeMinusStoredForCompatibility) {
  ASSERT_EQ(0, Write("01"));
  Read();
  ASSERT_EQ(0, Write("abcdefghi"));  // positions 2..9 and 0
  EXPECT_EQ(std::vector<std::string>({"a", "i"}), Read());
  EXPECT_EQ(0u, Stored());
}

TEST_F(CycleBuffer, BytesWrittenDuringTheReadStayStored) {
  ASSERT_EQ(0, Write("abc"));
  reader_.write_during_read = "XY";
  EXPECT_EQ(std::vector<std::string>({"abc"}), Read());
  EXPECT_EQ(2u, Stored());
  EXPECT_EQ(std::vector<std::string>({"XY"}), Read());
}

}  // namespace
