// The item package: exact layout, relocation and dump.
#include "evm/libevm/evm_itempkg.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <vector>

#include "evm/libevm/evm.h"

namespace {

// Builds a package from a list the way the library does: size first, then build.
// The flag is an int: a parameter in front of "..." must not be one that promotion changes.
EvmStatus_t build(std::vector<unsigned char>& buf, int reloc, ...) {
  const EvmBoolean_t relocatable = static_cast<EvmBoolean_t>(reloc);
  va_list ap, a1, a2;
  va_start(ap, reloc);
  va_copy(a1, ap);
  va_copy(a2, ap);
  int entries = 0;
  EvmUint32_t space = 0;
  EvmStatus_t st = EvmCalculateItemPkgSpaceFromVarargs(&a1, relocatable, &entries, &space);
  if (st == EvmERROR_NONE) {
    buf.assign(space + 8, 0xEE);  // a byte past the end shows an overrun
    st = EvmBuildItemPkgFromVarargs(&a2, relocatable, entries, reinterpret_cast<EvmItemPkg_t*>(buf.data()), space);
    EXPECT_EQ(buf[space], 0xEE);
  }
  va_end(a1);
  va_end(a2);
  va_end(ap);
  return st;
}

}  // namespace

class EvmItemPkgTest : public ::testing::Test {};

TEST_F(EvmItemPkgTest, PlainPackagePointsIntoTheCallersList) {
  std::vector<unsigned char> buf;
  const char* name = "a.b";
  ASSERT_EQ(build(buf, EvmFALSE, EvmITEM_NAME, name, EvmITEM_VAR_UINT16, "v", 0x12345, 0), EvmERROR_NONE);
  auto* pkg = reinterpret_cast<EvmItemPkg_t*>(buf.data());
  unsigned char* base = buf.data();
  EXPECT_EQ(pkg->version, 1u);
  EXPECT_EQ(pkg->magic, 0x80ce3912u);
  EXPECT_EQ(pkg->base_p, base);
  EXPECT_EQ(pkg->relocatable, EvmFALSE);
  EXPECT_EQ(pkg->entry_count, 2u);
  EXPECT_EQ(pkg->size, 152u);  // 48 of header, two 48-byte entries, the 8-byte trailer
  EXPECT_EQ(reinterpret_cast<unsigned char*>(pkg->table_p), base + 48);
  EXPECT_EQ(reinterpret_cast<unsigned char*>(pkg->trailer_p), base + 144);
  EXPECT_EQ(pkg->trailer_p->magic, 0x92f1e021u);
  EvmItemTableEntry_t* t = pkg->table_p;
  EXPECT_EQ(t[0].id, EvmITEM_NAME);
  EXPECT_EQ(t[0].value.NAME, name);
  EXPECT_EQ(t[1].id, EvmITEM_VAR);  // the shorthand is stored as a variable
  EXPECT_EQ(reinterpret_cast<unsigned char*>(t[1].value.VAR), base + 48 + 48 + 16);
  EXPECT_EQ(t[1].var.type, EvmTYPE_UINT16);
  EXPECT_EQ(t[1].var.value.UINT16, 0x2345);  // narrowed to 16 bits
}

TEST_F(EvmItemPkgTest, RelocatablePackageCarriesItsDataAndSurvivesAMove) {
  std::vector<unsigned char> buf;
  char host[] = "host1";
  const unsigned char blob[3] = {1, 2, 3};
  ASSERT_EQ(build(buf, EvmTRUE, EvmITEM_HOST_NAME, host, EvmITEM_VAR_OPAQUE, "op", blob, 3, EvmITEM_VAR_STRING_I18N,
                  "s", "txt", 12, 0),
            EvmERROR_NONE);
  // data: "host1\0" 6 + "op\0" 3 + 3 + "s\0" 2 + "txt\0" 4 = 18 bytes
  auto* pkg = reinterpret_cast<EvmItemPkg_t*>(buf.data());
  EXPECT_EQ(pkg->size, 224u);  // 48 + three entries + 18 data bytes, rounded up to 8, + trailer
  EXPECT_EQ(std::memcmp(buf.data() + 48 + 144, "host1\0op\0\1\2\3s\0txt", 18), 0);
  host[0] = 'X';  // the package keeps its own copy
  std::vector<unsigned char> moved(buf.begin(), buf.end());
  std::fill(buf.begin(), buf.end(), 0);
  auto* m = reinterpret_cast<EvmItemPkg_t*>(moved.data());
  ASSERT_EQ(EvmItemPkgRelocate(m), EvmERROR_NONE);
  EXPECT_EQ(m->base_p, moved.data());
  EXPECT_STREQ(m->table_p[0].value.HOST_NAME, "host1");
  EXPECT_STREQ(m->table_p[1].value.VAR->name_p, "op");
  EXPECT_EQ(std::memcmp(m->table_p[1].var.value.OPAQUE, blob, 3), 0);
  EXPECT_STREQ(m->table_p[2].var.value.STRING, "txt");
  EXPECT_EQ(m->table_p[2].var.msgId, 12);
  EXPECT_EQ(m->trailer_p->magic, 0x92f1e021u);
}

TEST_F(EvmItemPkgTest, RelocationRefusesWhatItCannotTrust) {
  std::vector<unsigned char> buf;
  ASSERT_EQ(build(buf, EvmFALSE, EvmITEM_NAME, "a", 0), EvmERROR_NONE);
  EXPECT_EQ(EvmItemPkgRelocate(reinterpret_cast<EvmItemPkg_t*>(buf.data())), EvmERROR_INVALID_ARGUMENT);
  ASSERT_EQ(build(buf, EvmTRUE, EvmITEM_NAME, "a", 0), EvmERROR_NONE);
  auto* pkg = reinterpret_cast<EvmItemPkg_t*>(buf.data());
  pkg->trailer_p->magic = 0;
  EXPECT_EQ(EvmItemPkgRelocate(pkg), EvmERROR_INVALID_ARGUMENT);
  pkg->magic = 1;
  EXPECT_EQ(EvmItemPkgRelocate(pkg), EvmERROR_INVALID_ARGUMENT);
}

TEST_F(EvmItemPkgTest, NullsThatCannotBeCopiedAreRefusedWhileSizing) {
  std::vector<unsigned char> buf;
  EXPECT_EQ(build(buf, EvmFALSE, EvmITEM_VAR_STRING, static_cast<char*>(nullptr), "v", 0), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(build(buf, EvmFALSE, EvmITEM_VAR_STRING, "n", static_cast<char*>(nullptr), 0), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(build(buf, EvmFALSE, EvmITEM_VAR_OPAQUE, "n", static_cast<void*>(nullptr), 4, 0),
            EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(build(buf, EvmFALSE, EvmITEM_VAR_OPAQUE, "n", static_cast<void*>(nullptr), 0, 0), EvmERROR_NONE);
  EXPECT_EQ(build(buf, EvmTRUE, EvmITEM_REF, static_cast<char*>(nullptr), 0), EvmERROR_INVALID_ARGUMENT);
  EXPECT_EQ(build(buf, EvmFALSE, EvmITEM_REF, static_cast<char*>(nullptr), 0), EvmERROR_NONE);  // caught later
}

TEST_F(EvmItemPkgTest, DumpPrintsHeaderTableAndTrailer) {
  std::vector<unsigned char> buf;
  ASSERT_EQ(build(buf, EvmFALSE, EvmITEM_NAME, "x.y", EvmITEM_PRIORITY, 5, 0), EvmERROR_NONE);
  testing::internal::CaptureStdout();
  EvmItemPkgDump(reinterpret_cast<EvmItemPkg_t*>(buf.data()));
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("\nHeader:\n  Version:     1\n  Magic:       0x80ce3912\n", 0), 0u) << out;
  EXPECT_NE(out.find("  Entry count: 0x2\n  Size:        152 (0x98)\n  Relocatable: No\nTable:\n"), std::string::npos);
  EXPECT_NE(out.find("  ItemId:  1  Value: 0x"), std::string::npos);
  EXPECT_NE(out.find(" [x.y]\n  ItemId:  5  Value: 0x5 \nTrailer:\n  Magic:       0x92f1e021\n"), std::string::npos);
}
