// Named pipes over the transport, and the transport wrappers that stamp each message's header.
#include "evm/libevm/evm_xpcio.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "evm/libevm/evm.h"

namespace {

class EvmXpcioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/evm_xpcio_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    setenv("VYN_IPC_DIR", dir_.c_str(), 1);
    std::memset(&server_, 0, sizeof server_);
    std::memset(&client_, 0, sizeof client_);
  }
  void TearDown() override {
    EvmPipeDestroy(&client_);
    EvmPipeDestroy(&server_);
    std::filesystem::remove_all(dir_);
  }
  std::string dir_;
  EvmPipe server_, client_;
};

TEST_F(EvmXpcioTest, PipeOnTheDefaultAddressCarriesMessagesBothWays) {
  ASSERT_EQ(EvmPipeCreate(&server_, nullptr), EvmERROR_NONE);
  EXPECT_STREQ(server_.name, "(ADDRESS=(PROTOCOL=tcp)(HOST=127.0.0.1))");
  ASSERT_EQ(EvmPipeListen(&server_), EvmERROR_NONE);
  char base[1024];
  ASSERT_EQ(EvmPipeGetBaseName(&server_, base, sizeof base), EvmERROR_NONE);
  // The listening address names the port that was picked, so a peer can reach it.
  EXPECT_EQ(std::string(base).rfind("(ADDRESS=(PROTOCOL=tcp)(HOST=127.0.0.1)(PORT=", 0), 0u) << base;
  char tiny[8] = "keep";
  EXPECT_EQ(EvmPipeGetBaseName(&server_, tiny, sizeof tiny), EvmERROR_INVALID_ARGUMENT);
  EXPECT_STREQ(tiny, "keep");
  EXPECT_EQ(EvmPipeGetBaseName(&server_, nullptr, 1024), EvmERROR_INVALID_ARGUMENT);

  ASSERT_EQ(EvmPipeCreate(&client_, base), EvmERROR_NONE);
  ASSERT_EQ(EvmPipeConnect(&client_), EvmERROR_NONE);
  ASSERT_EQ(EvmPipeAccept(&server_), EvmERROR_NONE);

  // A payload behind a transport header, and an event, each way.
  const char text[] = "through the pipe";
  ASSERT_EQ(xpcfmtnsnd(client_.ccon, text, sizeof text), xpcretSUCC);
  char got[sizeof text] = {};
  ASSERT_EQ(xpcfmtrecv(server_.ccon, got, sizeof got), xpcretSUCC);
  EXPECT_STREQ(got, text);
  EvmEvent_t e = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&e, EvmITEM_NAME, "sys.zel.test.pipe", EvmITEM_NONE), EvmERROR_NONE);
  ASSERT_EQ(EvmEventWrite(server_.ccon, e), EvmERROR_NONE);
  EvmEvent_t back = nullptr;
  ASSERT_EQ(EvmEventRead(client_.ccon, &back, 0), EvmERROR_NONE);
  EXPECT_EQ(back->head_p->control.size, e->head_p->control.size);
  EXPECT_EQ(std::memcmp(reinterpret_cast<char*>(back->head_p) + 48, reinterpret_cast<char*>(e->head_p) + 48,
                        e->head_p->control.size - 48),
            0);
  EvmEventDestroy(back);
  EvmEventDestroy(e);

  EvmPipeDestroy(&server_);
  EXPECT_EQ(server_.name[0], '\0') << "a destroyed pipe is all zero";
  EXPECT_EQ(server_.lcon, nullptr);
  EvmPipeDestroy(nullptr);
}

TEST_F(EvmXpcioTest, PipeStepsOutOfOrderFailWithoutHarm) {
  EXPECT_EQ(EvmPipeCreate(nullptr, nullptr), EvmERROR_INVALID_ARGUMENT);
  // Nothing made yet.
  char base[64];
  EXPECT_EQ(EvmPipeListen(&server_), EvmERROR_NOT_INITIALIZED);
  EXPECT_EQ(EvmPipeAccept(&server_), EvmERROR_NOT_INITIALIZED);
  EXPECT_EQ(EvmPipeConnect(&server_), EvmERROR_NOT_INITIALIZED);
  EXPECT_EQ(EvmPipeGetBaseName(&server_, base, sizeof base), EvmERROR_NOT_INITIALIZED);
  EXPECT_EQ(EvmPipeListen(nullptr), EvmERROR_NOT_INITIALIZED);

  // A local pipe: no one listens yet, nothing to accept on, and one listener per address.
  const char* local = "(ADDRESS=(PROTOCOL=ipc)(KEY=evm.pipe.test))";
  ASSERT_EQ(EvmPipeCreate(&client_, local), EvmERROR_NONE);
  EXPECT_EQ(EvmPipeConnect(&client_), EvmERROR_CONNECT);
  ASSERT_EQ(EvmPipeCreate(&server_, local), EvmERROR_NONE);
  EXPECT_EQ(EvmPipeAccept(&server_), EvmERROR_CONNECT) << "accept needs a listening pipe";
  ASSERT_EQ(EvmPipeListen(&server_), EvmERROR_NONE);
  ASSERT_EQ(EvmPipeConnect(&client_), EvmERROR_NONE);
  ASSERT_EQ(EvmPipeAccept(&server_), EvmERROR_NONE);
  const char text[] = "local";
  ASSERT_EQ(xpcfmtnsnd(server_.ccon, text, sizeof text), xpcretSUCC);
  char got[sizeof text] = {};
  ASSERT_EQ(xpcfmtrecv(client_.ccon, got, sizeof got), xpcretSUCC);
  EXPECT_STREQ(got, text);
  EXPECT_EQ(EvmPipeListen(&client_), EvmERROR_CONNECT) << "the address is taken";
  EXPECT_EQ(client_.lcon, nullptr);
}

TEST_F(EvmXpcioTest, EverySentMessageCarriesItsOwnLengthInTheHeader) {
  ASSERT_EQ(EvmPipeCreate(&server_, "(ADDRESS=(PROTOCOL=ipc)(KEY=evm.wrap.test))"), EvmERROR_NONE);
  ASSERT_EQ(EvmPipeListen(&server_), EvmERROR_NONE);
  ASSERT_EQ(EvmPipeCreate(&client_, server_.name), EvmERROR_NONE);
  ASSERT_EQ(EvmPipeConnect(&client_), EvmERROR_NONE);
  ASSERT_EQ(EvmPipeAccept(&server_), EvmERROR_NONE);
  // Two vectors go as two messages, each stamped with its own length; a null base is skipped.
  std::vector<unsigned char> a(60, 0xaa), b(100, 0xbb);
  struct iovec v[3] = {{a.data(), a.size()}, {nullptr, 5}, {b.data(), b.size()}};
  EvmUint32_t written = 0;
  ASSERT_EQ(_evmWriteVIntr(client_.ccon, v, 3, &written), EvmERROR_NONE);
  EXPECT_EQ(written, 160u);
  for (std::size_t want : {a.size(), b.size()}) {
    std::vector<unsigned char> m(200);
    std::uint32_t n = 0;
    ASSERT_EQ(xpcreceive(server_.ccon, m.data(), 200, 5000, 0, XPC_WAIT_TIMED, &n), xpcretSUCC);
    EXPECT_EQ(n, want);
    EXPECT_EQ(evmLoad32(m.data(), 0), want);
    EXPECT_EQ(m[n - 1], want == 60 ? 0xaa : 0xbb);
  }
  // A message shorter than the transport header can't be sent, and nothing goes out.
  std::vector<unsigned char> small(10, 0);
  EXPECT_EQ(Evmxpcsend(client_.ccon, reinterpret_cast<Evmxpcmsgh_s*>(small.data()), 10), xpcretBADARG);
  EXPECT_EQ(_evmWriteAll(client_.ccon, small.data(), 10), EvmERROR_CONNECTION_LOST);
  // Once the peer is gone a write fails as a write.
  EvmPipeDestroy(&server_);
  EvmStatus_t st = EvmERROR_NONE;
  for (int i = 0; i < 100 && st == EvmERROR_NONE; ++i) st = _evmWriteVIntr(client_.ccon, v, 1, nullptr);
  EXPECT_EQ(st, EvmERROR_WRITE);
}

}  // namespace
