// vyn_evmshow as a whole program: the three outputs and JSON to the byte, the filters, damage in
// the middle and at the end of a log, rotated logs and standard input, the command line, following
// a log across its rotation, and a log written by the real daemon.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "evm/libevm/evm.h"
#include "daemon_runner.h"
#include "program_runner.h"

namespace {

using vyntest::Outcome;

// The bytes a writer of the log puts down for an event.
std::string blockOf(EvmEvent_t ev) {
  EvmUint32_t len = 0;
  const char* p = static_cast<const char*>(EvmEventWriteBuf(&len, ev));
  return std::string(p, len);
}

EvmEvent_t event(const char* name, EvmTimestamp_t when, const char* format = nullptr) {
  EvmEvent_t ev = nullptr;
  EXPECT_EQ(EvmEventCreateVa(&ev, EvmITEM_NAME, name, EvmITEM_TIMESTAMP, when, 0), EvmERROR_NONE);
  if (format != nullptr) {
    EXPECT_EQ(EvmItemSetVa(ev, EvmITEM_FORMAT, format, 0), EvmERROR_NONE);
  }
  return ev;
}

std::string take(EvmEvent_t ev) {
  std::string b = blockOf(ev);
  EvmEventDestroy(ev);
  return b;
}

constexpr EvmTimestamp_t kT0 = 1700000000;  // 14-Nov-2023 22:13:20 UTC

class EvmshowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_ = home_.home() + "/log/evm/events.log";
    std::filesystem::create_directories(home_.home() + "/log/evm");
    EvmEvent_t a = event("sys.zel.clu.vyn.res.profile.delete", kT0, "Profile $_name deleted by @user_name");
    EvmVarSetString(a, "_name", "r1");
    EvmItemSetVa(a, EvmITEM_USER_NAME, "alice", 0);
    EvmEvent_t b = event("a.b", kT0 + 60);
    EvmVarSetInt32(b, "n", 5);
    EvmEvent_t c = event("a.c", kT0 + 120, "again");
    EvmItemSetVa(c, EvmITEM_REPEAT_COUNT, 3, 0);
    blocks_ = {take(a), take(b), take(c)};
  }
  std::string all() const { return blocks_[0] + blocks_[1] + blocks_[2]; }
  Outcome show(const std::vector<std::string>& args, const std::string& input = std::string()) {
    return vyntest::run(vyntest::binary("vyn_evmshow"), args, {{"ZEL_VYN_HOME", home_.home()}, {"TZ", "UTC"}},
                        home_.work(), -1, input);
  }

  vyntest::TempHome home_;
  std::string log_;
  std::vector<std::string> blocks_;
};

const char kLines[] =
    "Profile r1 deleted by alice\n"
    "Unformatted event \"a.b\": n=5 \n"
    "[3 times] again\n";

TEST_F(EvmshowTest, EachEventAsItsMessageATemplateOrADump) {
  vyntest::spit(log_, all());
  Outcome o = show({});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out, kLines);
  EXPECT_EQ(o.err, "");
  o = show({"-t", "@timestamp @name $_name|@@"});
  EXPECT_EQ(o.out,
            "14-Nov-2023 22:13:20 sys.zel.clu.vyn.res.profile.delete r1|Profile r1 deleted by alice\n"
            "14-Nov-2023 22:14:20 a.b $_name|Unformatted event \"a.b\": n=5 \n"
            "14-Nov-2023 22:15:20 a.c $_name|[3 times] again\n");
  vyntest::spit(log_, blocks_[1]);
  o = show({"-d"});
  EXPECT_EQ(o.out,
            "\nFormatted Message:\n    Unformatted event \"a.b\": n=5\n"
            "\nEvent Data Items:\n"
            "    Event Name        : a.b\n"
            "    Timestamp         : 14-Nov-2023 22:14:20\n"
            "\nVariable Items:\n    n (INT32) = 5\n");
}

TEST_F(EvmshowTest, JsonEscapesWhateverBytesTheEventHolds) {
  EvmEvent_t ev = nullptr;
  ASSERT_EQ(EvmEventCreateVa(&ev, EvmITEM_NAME, "j.k", EvmITEM_TIMESTAMP, kT0, EvmITEM_HOST_NAME, "h\x01",
                             EvmITEM_USER_NAME, "bob", EvmITEM_PID, static_cast<EvmPid_t>(42), EvmITEM_PRIORITY, 300,
                             EvmITEM_CLUSTER_EVENT, EvmTRUE, 0),
            EvmERROR_NONE);
  EvmVarSetString(ev, "s", "q\"\\\x01\xc3\xa9\xff\xe2\x82");
  EvmVarSetOpaque(ev, "o", "\x00\x01\x02", 3);
  EvmVarSetInt32(ev, "i", 70000);
  EvmVarSetDouble(ev, "d", 0.5);
  EvmVarSetBoolean(ev, "b", EvmTRUE);
  EvmVarSetUint64(ev, "u", 18446744073709551615ULL);
  vyntest::spit(log_, take(ev));
  Outcome o = show({"-j"});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out,
            "{\"name\":\"j.k\",\"timestamp\":\"2023-11-14T22:13:20Z\",\"host\":\"h\\u0001\",\"user\":\"bob\","
            "\"pid\":42,\"priority\":300,\"cluster_event\":true,\"kernel_only\":false,"
            "\"message\":\"Unformatted event \\\"j.k\\\": s=q\\\"\\\\###### o=[OPAQUE VALUE: 3 bytes] i=4464 d=0.5 "
            "b=True u=18446744073709551615 \","
            "\"variables\":{\"s\":{\"type\":\"STRING\",\"value\":\"q\\\"\\\\\\u0001\xc3\xa9\\ufffd\\ufffd\\ufffd\"},"
            "\"o\":{\"type\":\"OPAQUE\",\"value\":\"AAEC\"},\"i\":{\"type\":\"INT32\",\"value\":70000},"
            "\"d\":{\"type\":\"DOUBLE\",\"value\":0.5},\"b\":{\"type\":\"BOOLEAN\",\"value\":true},"
            "\"u\":{\"type\":\"UINT64\",\"value\":18446744073709551615}}}\n");
}

TEST_F(EvmshowTest, FiltersByNameTimeAndCount) {
  vyntest::spit(log_, all());
  EXPECT_EQ(show({"-n", "sys.zel.clu.vyn.res.*"}).out, "Profile r1 deleted by alice\n");
  EXPECT_EQ(show({"-n", "a.?"}).out, "Unformatted event \"a.b\": n=5 \n[3 times] again\n");
  EXPECT_EQ(show({"-n", "*.b"}).out, "Unformatted event \"a.b\": n=5 \n");
  EXPECT_EQ(show({"-s", "2023-11-14T22:14:20"}).out, "Unformatted event \"a.b\": n=5 \n[3 times] again\n");
  EXPECT_EQ(show({"-u", "2023-11-14T22:14:20"}).out, "Profile r1 deleted by alice\n");
  EXPECT_EQ(show({"-c", "2"}).out, "Unformatted event \"a.b\": n=5 \n[3 times] again\n");
  EXPECT_EQ(show({"-c", "1", "-n", "a.*", "-u", "2023-11-14T22:15:00"}).out, "Unformatted event \"a.b\": n=5 \n");
  EXPECT_EQ(show({"-c", "0"}).out, "");
}

TEST_F(EvmshowTest, DamageIsReportedOnceAndSkipped) {
  const std::string b0 = blocks_[0], b1 = blocks_[1], b2 = blocks_[2];
  const std::string at = log_ + ": ";
  // Garbage between blocks, then a torn end.
  vyntest::spit(log_, b0 + "garbage!!" + b1 + b2.substr(0, 100));
  Outcome o = show({});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out, "Profile r1 deleted by alice\nUnformatted event \"a.b\": n=5 \n");
  EXPECT_EQ(o.err, "EVM-0061: " + at + "damaged data at offset " + std::to_string(b0.size()) +
                       " (9 bytes) skipped\n"
                       "EVM-0062: " + at + "incomplete event at offset " +
                       std::to_string(b0.size() + 9 + b1.size()) + " (100 bytes) at the end ignored\n");
  // A block that claims more bytes than the file holds, in the middle and at the end.
  std::string liar = b1;
  evmStore32(&liar[0], EVM_OFF_CONTROL_SIZE, static_cast<std::uint32_t>(b1.size() + 4096));
  vyntest::spit(log_, b0 + liar + b2);
  o = show({});
  EXPECT_EQ(o.out, "Profile r1 deleted by alice\n[3 times] again\n");
  EXPECT_EQ(o.err, "EVM-0061: " + at + "damaged data at offset " + std::to_string(b0.size()) + " (" +
                       std::to_string(b1.size()) + " bytes) skipped\n");
  vyntest::spit(log_, b0 + liar);
  o = show({});
  EXPECT_EQ(o.out, "Profile r1 deleted by alice\n");
  EXPECT_EQ(o.err, "EVM-0062: " + at + "incomplete event at offset " + std::to_string(b0.size()) + " (" +
                       std::to_string(b1.size()) + " bytes) at the end ignored\n");
  // One changed byte fails the checksum: the block is damage, its neighbours stand.
  std::string flipped = b1;
  flipped[flipped.size() - 20] ^= 0x40;
  o = show({"-f", "-"}, b0 + flipped + b2);
  EXPECT_EQ(o.out, "Profile r1 deleted by alice\n[3 times] again\n");
  EXPECT_EQ(o.err, "EVM-0061: -: damaged data at offset " + std::to_string(b0.size()) + " (" +
                       std::to_string(b1.size()) + " bytes) skipped\n");
  vyntest::spit(log_, "");
  o = show({});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.out + o.err, "");
}

TEST_F(EvmshowTest, RotatedLogsComeFirstOldestFirst) {
  vyntest::spit(log_ + ".2", blocks_[0]);
  vyntest::spit(log_ + ".1", blocks_[1]);
  vyntest::spit(log_, blocks_[2]);
  vyntest::spit(log_ + ".damaged.1", blocks_[0]);
  EXPECT_EQ(show({"-a"}).out, kLines);
  EXPECT_EQ(show({}).out, "[3 times] again\n");
  std::string other = home_.work() + "/copy.log";
  vyntest::spit(other, blocks_[1]);
  EXPECT_EQ(show({"-f", other}).out, "Unformatted event \"a.b\": n=5 \n");
  EXPECT_EQ(show({"-f", "-"}, all()).out, kLines);
}

TEST_F(EvmshowTest, UnreadableInputIsStatusOneABadCommandLineTwo) {
  Outcome o = show({});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "EVM-0060: Cannot read " + log_ + ": No such file or directory\n");
  o = show({"-f", home_.work()});
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "EVM-0060: Cannot read " + home_.work() + ": Is a directory\n");
  const std::vector<std::vector<std::string>> bad = {
      {"-s", "2023-11-14 22:00:00"}, {"-u", "yesterday"}, {"-n", "a.b*"}, {"-c", "-1"}, {"-c", "x"},
      {"-d", "-j"},                  {"-x"},              {"extra"},       {"-a", "-f", "-"}, {"-t"}};
  for (const auto& args : bad) {
    o = show(args);
    EXPECT_EQ(o.status, 2) << args[0];
    EXPECT_NE(o.err.find("usage: vyn_evmshow"), std::string::npos) << args[0];
  }
  EXPECT_EQ(show({"-n", "a.b*"}).err,
            "EVM-0064: Invalid name pattern \"a.b*\"\n" + std::string(show({"-x"}).err));
}

// Waits until `path` holds `lines` lines or five seconds pass; its text.
std::string waitForLines(const std::string& path, int lines) {
  std::string text;
  for (int i = 0; i < 500; ++i) {
    text = vyntest::slurp(path);
    if (std::count(text.begin(), text.end(), '\n') >= lines) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return text;
}

void append(const std::string& path, const std::string& bytes) {
  FILE* f = std::fopen(path.c_str(), "ab");
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

TEST_F(EvmshowTest, FollowingReadsAppendsAndCrossesRotation) {
  vyntest::spit(log_, blocks_[0] + blocks_[1]);
  std::string out = home_.work() + "/follow.out";
  vyntest::Running r = vyntest::start(
      "/bin/sh", {"-c", "exec " + vyntest::binary("vyn_evmshow") + " -F -c 1 -t '$_name @name' > " + out},
      {{"ZEL_VYN_HOME", home_.home()}}, home_.work());
  EXPECT_EQ(waitForLines(out, 1), "$_name a.b\n");
  // Half a block first: the reader waits for the rest instead of calling it damage.
  append(log_, blocks_[2].substr(0, 70));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  append(log_, blocks_[2].substr(70));
  EXPECT_EQ(waitForLines(out, 2), "$_name a.b\n$_name a.c\n");
  // Rotation: the old file gets one more event before the rename, the new one follows.
  append(log_, blocks_[0]);
  std::filesystem::rename(log_, log_ + ".1");
  vyntest::spit(log_, blocks_[1]);
  EXPECT_EQ(waitForLines(out, 4), "$_name a.b\n$_name a.c\nr1 sys.zel.clu.vyn.res.profile.delete\n$_name a.b\n");
  kill(r.pid(), SIGTERM);
  Outcome o = r.wait(5000);
  EXPECT_EQ(o.err, "");
}

// Writes `bytes` over the file at `offset`, as the daemon writes over the zeros it made ahead.
void writeAt(const std::string& path, long offset, const std::string& bytes) {
  FILE* f = std::fopen(path.c_str(), "r+b");
  std::fseek(f, offset, SEEK_SET);
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

TEST_F(EvmshowTest, ZerosThatEndTheLogAreItsEndAndAFollowerWaitsForWhatIsWrittenOverThem) {
  const std::string b0 = blocks_[0], b1 = blocks_[1], b2 = blocks_[2];
  const std::string at = log_ + ": ", zeros(4096, '\0');
  vyntest::spit(log_, all() + zeros);
  Outcome o = show({});
  EXPECT_EQ(o.out + o.err, kLines);
  EXPECT_EQ(show({"-f", "-"}, all() + zeros).err, "") << "a pipe's zeros are the end too";

  // A block torn inside the zeros is an incomplete event; zeros between events are damage.
  std::string part = b2.substr(0, 100);
  vyntest::spit(log_, b0 + b1 + part + zeros);
  o = show({});
  EXPECT_EQ(o.out, "Profile r1 deleted by alice\nUnformatted event \"a.b\": n=5 \n");
  EXPECT_EQ(o.err, "EVM-0062: " + at + "incomplete event at offset " + std::to_string(b0.size() + b1.size()) + " (" +
                       std::to_string(part.size() + zeros.size()) + " bytes) at the end ignored\n");
  vyntest::spit(log_, b0 + std::string(64, '\0') + b1 + b2 + zeros + "x");
  o = show({});
  EXPECT_EQ(o.out, kLines);
  EXPECT_EQ(o.err, "EVM-0061: " + at + "damaged data at offset " + std::to_string(b0.size()) +
                       " (64 bytes) skipped\n"
                       "EVM-0062: " + at + "incomplete event at offset " + std::to_string(all().size() + 64) +
                       " (4097 bytes) at the end ignored\n");

  // Following: a block half written over the zeros is waited for, not called damage.
  vyntest::spit(log_, b0 + zeros);
  std::string out = home_.work() + "/over.out", err = home_.work() + "/over.err";
  vyntest::Running r = vyntest::start(
      "/bin/sh", {"-c", "exec " + vyntest::binary("vyn_evmshow") + " -F -t '@name' > " + out + " 2> " + err},
      {{"ZEL_VYN_HOME", home_.home()}}, home_.work());
  EXPECT_EQ(waitForLines(out, 1), "sys.zel.clu.vyn.res.profile.delete\n");
  writeAt(log_, static_cast<long>(b0.size()), b1.substr(0, 70));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  writeAt(log_, static_cast<long>(b0.size() + 70), b1.substr(70) + b2);
  EXPECT_EQ(waitForLines(out, 3), "sys.zel.clu.vyn.res.profile.delete\na.b\na.c\n");
  kill(r.pid(), SIGTERM);
  r.wait(5000);
  EXPECT_EQ(vyntest::slurp(err), "");
}

TEST_F(EvmshowTest, FollowingWaitsForALogThatIsNotThereYet) {
  std::string later = home_.work() + "/later.log", out = home_.work() + "/later.out", err = home_.work() + "/later.err";
  vyntest::Running r = vyntest::start(
      "/bin/sh", {"-c", "exec " + vyntest::binary("vyn_evmshow") + " -F -f " + later + " > " + out + " 2> " + err},
      {{"ZEL_VYN_HOME", home_.home()}}, home_.work());
  for (int i = 0; i < 500 && vyntest::slurp(err).empty(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  append(later, blocks_[2]);
  EXPECT_EQ(waitForLines(out, 1), "[3 times] again\n");
  kill(r.pid(), SIGTERM);
  r.wait(5000);
  EXPECT_EQ(vyntest::slurp(err), "EVM-0060: Cannot read " + later + ": No such file or directory\n");
}

TEST_F(EvmshowTest, ReadsTheLogTheDaemonWrote) {
  std::filesystem::create_directories(home_.root() + "/ipc");
  setenv("VYN_IPC_DIR", (home_.root() + "/ipc").c_str(), 1);
  setenv("ZEL_VYN_HOME", home_.home().c_str(), 1);
  unsetenv("GMX_CLUSTERNAME");
  {
    vyntest::Daemon d(home_);
    ASSERT_NE(d.banner().find("listening on"), std::string::npos);
    for (const char* name : {"sys.zel.clu.vyn.res.profile.delete", "sys.zel.clu.vyn.res.profile.update"}) {
      EvmEvent_t ev = event(name, kT0, "Profile $_name changed");
      EvmVarSetString(ev, "_name", "r9");
      ASSERT_EQ(EvmEventPost(nullptr, ev), EvmERROR_NONE);
      EvmEventDestroy(ev);
    }
    Outcome live = show({"-n", "*.update"});
    EXPECT_EQ(live.out + live.err, "Profile r9 changed\n") << "the running daemon's log does not read whole";
    EXPECT_EQ(d.stop(), 0);
  }
  Outcome o = show({"-t", "@name @user_name $_name"});
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_EQ(o.out.substr(0, o.out.find(' ')), "sys.zel.clu.vyn.res.profile.delete");
  EXPECT_NE(o.out.find(" r9\nsys.zel.clu.vyn.res.profile.update "), std::string::npos) << o.out;
  EXPECT_EQ(show({"-n", "*.update"}).out, "Profile r9 changed\n");
}

TEST_F(EvmshowTest, EveryEventTheDaemonRotatedAwayIsReadBackOnceInOrder) {
  std::filesystem::create_directories(home_.root() + "/ipc");
  setenv("VYN_IPC_DIR", (home_.root() + "/ipc").c_str(), 1);
  setenv("ZEL_VYN_HOME", home_.home().c_str(), 1);
  unsetenv("GMX_CLUSTERNAME");
  const int kEvents = 60;
  {
    // A log of 1 KiB holds a few events: the daemon rotates many times, keeping every file.
    vyntest::Daemon d(home_, {"-logsize", "1K", "-logkeep", "100"});
    ASSERT_NE(d.banner().find("listening on"), std::string::npos);
    for (int i = 0; i < kEvents; ++i) {
      EvmEvent_t ev = event("sys.zel.test.rotate", kT0, "n=$n");
      EvmVarSetString(ev, "n", std::to_string(i).c_str());
      ASSERT_EQ(EvmEventPost(nullptr, ev), EvmERROR_NONE);
      EvmEventDestroy(ev);
    }
    EXPECT_EQ(d.stop(), 0);
  }
  ASSERT_TRUE(std::filesystem::exists(home_.home() + "/log/evm/events.log.3")) << "the log did not rotate";
  std::string expected;
  for (int i = 0; i < kEvents; ++i) expected += "n=" + std::to_string(i) + "\n";
  Outcome o = show({"-a"});
  EXPECT_EQ(o.status, 0);
  EXPECT_EQ(o.err, "") << "no event was torn across two files";
  EXPECT_EQ(o.out, expected);
  EXPECT_EQ(show({"-a", "-c", "2"}).out, "n=58\nn=59\n");
}

}  // namespace
