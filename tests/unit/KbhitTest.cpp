// SPDX-License-Identifier: Apache-2.0
//
// kbhit() on each kind of standard input.
#include <Vorlix/QDSDiskFunctions.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>

namespace {

// Replaces descriptor 0, because kbhit() ignores what stdio has buffered.
class KbhitTest : public testing::Test {
 protected:
  KbhitTest() : saved_(dup(STDIN_FILENO)) {}
  ~KbhitTest() override {
    closeWriter();
    if (saved_ < 0) return;
    dup2(saved_, STDIN_FILENO);
    close(saved_);
  }

  void useAsInput(int descriptor) {
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(dup2(descriptor, STDIN_FILENO), STDIN_FILENO);
    close(descriptor);
  }

  void usePipe() {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    writer_ = ends[1];
    useAsInput(ends[0]);
  }

  void closeWriter() {
    if (writer_ >= 0) close(writer_);
    writer_ = -1;
  }

  int writer_ = -1;

 private:
  int saved_;
};

TEST_F(KbhitTest, EmptyPipeReturnsZeroAtOnce) {
  usePipe();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kbhit(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(KbhitTest, WaitingByteReturnsOneAndIsNotConsumed) {
  usePipe();
  ASSERT_EQ(write(writer_, "k", 1), 1);
  EXPECT_EQ(kbhit(), 1);
  EXPECT_EQ(kbhit(), 1);
  char byte = 0;
  ASSERT_EQ(read(STDIN_FILENO, &byte, 1), 1);
  EXPECT_EQ(byte, 'k');
  EXPECT_EQ(kbhit(), 0);
}

TEST_F(KbhitTest, EndOfAPipeCountsAsReadable) {
  usePipe();
  closeWriter();
  EXPECT_EQ(kbhit(), 1);
}

TEST_F(KbhitTest, LastBytesOfAClosedPipeCountAsReadable) {
  usePipe();
  ASSERT_EQ(write(writer_, "k", 1), 1);
  closeWriter();
  EXPECT_EQ(kbhit(), 1);
}

TEST_F(KbhitTest, FileIsAlwaysReadable) {
  useAsInput(open("/dev/null", O_RDONLY));
  EXPECT_EQ(kbhit(), 1);
}

TEST_F(KbhitTest, WorksWithoutFreeDescriptors) {
  usePipe();
  ASSERT_EQ(write(writer_, "k", 1), 1);
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int waiting = kbhit();
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(waiting, 1);
}

TEST_F(KbhitTest, ClosedInputReturnsZero) {
  close(STDIN_FILENO);
  EXPECT_EQ(kbhit(), 0);
}

}  // namespace
