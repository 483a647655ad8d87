// Complaints about clients: one line a minute for each kind, with the count it stands for.
#include "evm/evmd/evmd_complaints.h"

#include <gtest/gtest.h>

namespace {

TEST(ComplaintsTest, EachKindGetsOneLineAMinuteThatCountsWhatItStandsFor) {
  long long now = 1000;
  std::vector<std::string> lines;
  evmd::Complaints c([&] { return now; }, [&](const std::string& l) { lines.push_back(l); });
  for (int i = 0; i < 100; ++i) c.note("a client sent garbage", "uid " + std::to_string(i));
  c.note("a client claimed to be another user", "uid 5");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], " vyn_evmd: a client sent garbage (uid 0)");
  EXPECT_EQ(lines[1], " vyn_evmd: a client claimed to be another user (uid 5)");
  now += 59999;
  c.note("a client sent garbage", "uid 100");
  EXPECT_EQ(lines.size(), 2u);
  now += 1;
  c.note("a client sent garbage", "uid 101");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2], " vyn_evmd: a client sent garbage (uid 101); 101 times since the last report");
  c.note("a client sent garbage", "uid 102");
  c.flush();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[3], " vyn_evmd: a client sent garbage");
}

}  // namespace
