// The layout of a registry key in a znode, byte by byte, as another client of the ensemble sees it.
#include "platform/registry/prvrg_znode.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(ZnodeLayout, ARecordIsItsHeaderThenItsValue) {
  znode::Record r;
  r.dtype = prvrg_dtype_ZELTEXT;
  r.security.user_perm = 0x01020304;
  r.security.group_perm = 5;
  r.security.other_perm = 0xffffffff;
  std::strcpy(r.security.user_name, "root");
  std::strcpy(r.security.group_name, "vyn");
  r.value = "60";
  std::string d = znode::encode(r);
  ASSERT_EQ(d.size(), 154u);
  EXPECT_EQ(d.substr(0, 8), std::string("VRGK\x01\x03\x00\x00", 8));
  EXPECT_EQ(d.substr(8, 12), std::string("\x01\x02\x03\x04\x00\x00\x00\x05\xff\xff\xff\xff", 12));
  EXPECT_EQ(d.substr(20, 64), std::string("root") + std::string(60, '\0'));
  EXPECT_EQ(d.substr(84, 64), std::string("vyn") + std::string(61, '\0'));
  EXPECT_EQ(d.substr(148), std::string("\x00\x00\x00\x02" "60", 6));

  znode::Record back;
  ASSERT_TRUE(znode::decode(d.data(), d.size(), &back));
  EXPECT_EQ(back.dtype, prvrg_dtype_ZELTEXT);
  EXPECT_EQ(back.security.user_perm, 0x01020304u);
  EXPECT_STREQ(back.security.group_name, "vyn");
  EXPECT_EQ(back.value, "60");
  std::string other = znode::withValue(d, prvrg_dtype_BYTESTREAM, std::string("\0x", 2));
  ASSERT_TRUE(znode::decode(other.data(), other.size(), &back));
  EXPECT_EQ(back.dtype, prvrg_dtype_BYTESTREAM);
  EXPECT_EQ(back.value, std::string("\0x", 2));
  EXPECT_STREQ(back.security.user_name, "root");
}

TEST(ZnodeLayout, DataThatIsNotARecordIsRefused) {
  std::string good = znode::encode(znode::Record{});
  znode::Record r;
  EXPECT_FALSE(znode::decode(nullptr, 0, &r));
  EXPECT_FALSE(znode::decode("hello", 5, &r));
  std::string bad = good;
  bad[0] = 'X';  // magic
  EXPECT_FALSE(znode::decode(bad.data(), bad.size(), &r));
  bad = good;
  bad[4] = 2;  // a later layout
  EXPECT_FALSE(znode::decode(bad.data(), bad.size(), &r));
  bad = good;
  bad[5] = 6;  // no such type
  EXPECT_FALSE(znode::decode(bad.data(), bad.size(), &r));
  bad = good + "x";  // longer than its length field says
  EXPECT_FALSE(znode::decode(bad.data(), bad.size(), &r));
  bad = znode::withValue(good, prvrg_dtype_ZELTEXT, "abc");
  EXPECT_FALSE(znode::decode(bad.data(), bad.size() - 1, &r));
}

TEST(ZnodeLayout, NamesKeepPrintableAsciiAndEscapeTheRest) {
  EXPECT_EQ(znode::encodeName("user_default_dir"), "user_default_dir");
  EXPECT_EQ(znode::encodeName("a/b%c d\xff\x01"), "a%2Fb%25c%20d%FF%01");
  EXPECT_EQ(znode::pathOf("/vyn", "SYSTEM.a/b.x"), "/vyn/SYSTEM/a%2Fb/x");
  EXPECT_EQ(znode::pathOf("/vyn", ""), "/vyn");
  std::string part;
  ASSERT_TRUE(znode::decodeName("a%2Fb%25c%20d%FF%01", &part));
  EXPECT_EQ(part, "a/b%c d\xff\x01");
  // One spelling per name: lower-case hex, escaped plain bytes, dots and stray '%' are not ours.
  for (const char* foreign : {"a%2fb", "%41", "a.b", "%2E", "", "ab%", "ab%2", "a%zz"})
    EXPECT_FALSE(znode::decodeName(foreign, &part)) << foreign;
}

}  // namespace
