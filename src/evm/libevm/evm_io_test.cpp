// Events on descriptors and in buffers, lines, and files of blocks.
#include "evm/libevm/evm_io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "evm/libevm/evm.h"
#include "evm/libevm/evm_test_util.h"

using namespace evmtest;

class EvmIoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(fds_), 0);
    ASSERT_EQ(EvmEventCreateVa(&e_, EvmITEM_NAME, "sys.io", EvmITEM_PRIORITY, 5, EvmITEM_VAR_STRING, "s", "v", 0),
              EvmERROR_NONE);
  }
  void TearDown() override {
    closeWriter();
    close(fds_[0]);
    EvmEventDestroy(e_);
    if (got_ != nullptr) EvmEventDestroy(got_);
  }
  void feed(const Bytes& b) { ASSERT_EQ(_evmWriteFDAll(fds_[1], b.data(), static_cast<EvmUint32_t>(b.size())), 0); }
  void closeWriter() {
    if (fds_[1] >= 0) close(fds_[1]);
    fds_[1] = -1;
  }
  EvmStatus_t read() {
    if (got_ != nullptr) EvmEventDestroy(got_);
    got_ = nullptr;
    return EvmEventReadFD(fds_[0], &got_);
  }
  int fds_[2] = {-1, -1};
  EvmEvent_t e_ = nullptr;
  EvmEvent_t got_ = nullptr;
};

TEST_F(EvmIoTest, WrittenEventReadsBackWithChecksumAndTransportHeader) {
  ASSERT_EQ(EvmEventWriteFD(fds_[1], e_), EvmERROR_NONE);
  ASSERT_EQ(read(), EvmERROR_NONE);
  Bytes sent = used(e_), came = used(got_);
  EXPECT_EQ(came, sent);
  EXPECT_EQ(got_->head_p->flags & 0x20u, 0x20u);
  const unsigned char header[12] = {static_cast<unsigned char>(sent.size()), 0, 0, 0, 1, 0, 0, 0, 9, 2, 1, 0};
  EXPECT_EQ(Bytes(came.begin(), came.begin() + 12), Bytes(header, header + 12));
  EXPECT_EQ(Bytes(came.begin() + 12, came.begin() + 48), Bytes(36, 0));
}

TEST_F(EvmIoTest, StreamEndsAreToldApart) {
  EvmUint32_t len = 0;
  const auto* p = static_cast<const unsigned char*>(EvmEventWriteBuf(&len, e_));
  ASSERT_NE(p, nullptr);
  Bytes block(p, p + len);
  feed(block);
  feed(Bytes(block.begin(), block.begin() + 60));  // a second event cut inside its head
  closeWriter();
  EXPECT_EQ(read(), EvmERROR_NONE);
  EXPECT_EQ(read(), EvmERROR_READ);
  EXPECT_EQ(read(), EvmERROR_EOF);
}

TEST_F(EvmIoTest, BodyCutShortIsAReadError) {
  EvmUint32_t len = 0;
  const auto* p = static_cast<const unsigned char*>(EvmEventWriteBuf(&len, e_));
  feed(Bytes(p, p + len - 8));
  closeWriter();
  EXPECT_EQ(read(), EvmERROR_READ);
}

TEST_F(EvmIoTest, ForgedSizesAreRefusedWithoutTrustingThem) {
  EvmUint32_t len = 0;
  const auto* p = static_cast<const unsigned char*>(EvmEventWriteBuf(&len, e_));
  Bytes huge(p, p + len);
  put32(huge, 52, 0xfffffff0u);  // promises 4 GiB, delivers a few bytes
  feed(huge);
  Bytes tiny(p, p + len);
  put32(tiny, 52, 64);
  closeWriter();
  EXPECT_EQ(read(), EvmERROR_READ);
  ASSERT_EQ(pipe(fds_), 0);
  feed(tiny);
  closeWriter();
  EXPECT_EQ(read(), EvmERROR_INVALID_VALUE);
}

TEST_F(EvmIoTest, DamagedOrForeignBlocksAreInvalid) {
  EvmUint32_t len = 0;
  const auto* p = static_cast<const unsigned char*>(EvmEventWriteBuf(&len, e_));
  Bytes flipped(p, p + len);
  flipped[130] ^= 0x40;
  Bytes notEvent(p, p + len);
  notEvent[48] = 4;
  feed(flipped);
  feed(notEvent);
  closeWriter();
  EXPECT_EQ(read(), EvmERROR_INVALID_VALUE);
  EXPECT_EQ(read(), EvmERROR_INVALID_VALUE);
}

TEST_F(EvmIoTest, OlderFormWithChecksumComesInCurrentForm) {
  Bytes current = used(e_);
  Bytes old(current.begin(), current.begin() + 112);
  old.insert(old.end(), current.begin() + 120, current.end());
  put32(old, 52, static_cast<std::uint32_t>(old.size()));
  EvmEventHead_t* h = mallocCopy(old);
  _evmInsertChecksum(h);
  Bytes withSum(reinterpret_cast<unsigned char*>(h), reinterpret_cast<unsigned char*>(h) + old.size());
  std::free(h);
  feed(withSum);
  closeWriter();
  ASSERT_EQ(read(), EvmERROR_NONE);
  EXPECT_EQ(got_->head_p->control.size, current.size());
  Bytes came = used(got_);
  EXPECT_EQ(Bytes(came.begin() + 120, came.end()), Bytes(current.begin() + 120, current.end()));
  EXPECT_EQ(_evmTestChecksum(got_->head_p), EvmERROR_NONE);
}

TEST_F(EvmIoTest, ReadLineGrowsByStepsAndStopsAtLineEnds) {
  FILE* f = tmpfile();
  std::string longLine(300, 'z');
  std::fprintf(f, "a\n%s\nlast", longLine.c_str());
  std::rewind(f);
  char* buf = nullptr;
  EvmUint32_t size = 0;
  ASSERT_EQ(_evmReadLine(f, &buf, &size), EvmERROR_NONE);
  EXPECT_EQ(size, 128u);
  EXPECT_STREQ(buf, "a");
  ASSERT_EQ(_evmReadLine(f, &buf, &size), EvmERROR_NONE);
  EXPECT_EQ(size, 384u);
  EXPECT_EQ(std::string(buf), longLine);
  EXPECT_EQ(_evmReadLine(f, &buf, &size), EvmERROR_EOF);
  EXPECT_STREQ(buf, "last");
  std::free(buf);
  std::fclose(f);
}

TEST_F(EvmIoTest, BlockWalkStepsThroughAFileAndStopsAtItsEnd) {
  FILE* f = tmpfile();
  int fd = fileno(f);
  ASSERT_EQ(EvmEventWriteFD(fd, e_), EvmERROR_NONE);
  EvmEvent_t second = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&second, 0), EvmERROR_NONE);
  ASSERT_EQ(EvmEventWriteFD(fd, second), EvmERROR_NONE);
  EvmEventDestroy(second);
  EvmDataBlockType_t type = 9;
  off_t next = -1;
  ASSERT_EQ(_evmGetNextBlockOffset(fd, 0, &type, &next), EvmERROR_NONE);
  EXPECT_EQ(type, 1);
  EXPECT_EQ(next, static_cast<off_t>(e_->head_p->control.size));
  off_t second_at = next;
  ASSERT_EQ(_evmGetNextBlockOffset(fd, second_at, &type, &next), EvmERROR_NONE);
  EXPECT_EQ(next, second_at + 120);
  ASSERT_EQ(_evmGetNextBlockOffset(fd, next, &type, &next), EvmERROR_NONE);
  EXPECT_EQ(type, 0);
  EXPECT_EQ(next, 0);
  EXPECT_EQ(_evmGetNextBlockOffset(fd, second_at + 4, &type, &next), EvmERROR_READ);  // no head there
  EXPECT_EQ(_evmGetNextBlockOffset(fd, -1, &type, &next), EvmERROR_INVALID_ARGUMENT);
  std::fclose(f);
}

TEST_F(EvmIoTest, WritersRefuseBadHandles) {
  EvmEventHandle_s dead{0, nullptr, nullptr};
  EvmUint32_t len = 7;
  EXPECT_EQ(EvmEventWriteBuf(&len, &dead), nullptr);
  EXPECT_EQ(EvmEventWriteFD(fds_[1], &dead), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(EvmEventReadFD(fds_[0], nullptr), EvmERROR_INVALID_ARGUMENT);
}
