#include "platform/osl/osl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

TEST(OslTest, FileListGivesMatchingNamesInByteOrder) {
  char tmpl[] = "/tmp/osl_test.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  std::string dir = tmpl;
  for (const char* n : {"b.cap", "a.cap", "B.cap", "a.bak", "cap", "x.capx"}) std::ofstream(dir + "/" + n) << "";
  osrec e;
  osl_filelist_t* list = nullptr;
  ASSERT_EQ(osl_filelist_open(osl_process_ctx(), &e, 0, dir.c_str(), "", "cap", &list), 0);
  std::vector<std::string> names;
  std::string name;
  while (osl_filelist_getentry(osl_process_ctx(), &e, 0, &name, list) == 0) names.push_back(name);
  EXPECT_EQ(osl_filelist_getentry(osl_process_ctx(), &e, 0, &name, list), OSL_FILELIST_END);
  osl_filelist_close(osl_process_ctx(), &e, 0, list);
  EXPECT_EQ(names, (std::vector<std::string>{"B.cap", "a.cap", "b.cap"}));
  std::filesystem::remove_all(dir);

  EXPECT_EQ(osl_filelist_open(osl_process_ctx(), &e, 0, "/no/such/dir", "", "cap", &list), OSL_ERR_FAIL);
  EXPECT_EQ(osrecFormat(e), "category: 2, operation: osl_filelist_open, loc: opendir, OS error: 2, other: /no/such/dir\n");
}

TEST(OslTest, SpawnedChildReportsItsExitStatus) {
  osrec e;
  osl_process_handle h;
  char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>("exit 3"), nullptr};
  ASSERT_EQ(osl_process_spawn(osl_process_ctx(), &e, 0, "/bin/sh", 3, argv, &h), 0);
  int status = -1;
  ASSERT_EQ(osl_process_join(osl_process_ctx(), &e, &h, &status), 0);
  EXPECT_EQ(status, 3);

  char* bad[] = {const_cast<char*>("none"), nullptr};
  ASSERT_EQ(osl_process_spawn(osl_process_ctx(), &e, 0, "/no/such/program", 1, bad, &h), 0);
  ASSERT_EQ(osl_process_join(osl_process_ctx(), &e, &h, &status), 0);
  EXPECT_EQ(status, 127);
}

TEST(OslTest, IdentitiesOfTheCaller) {
  osrec e;
  osl_user_id me;
  ASSERT_EQ(osl_idq_get_user_id(osl_process_ctx(), &e, 0, &me), 0);
  int privs = -1;
  ASSERT_EQ(osl_iddb_has_ha_privs(osl_process_ctx(), &e, 0, &me, &privs), 0);
  EXPECT_EQ(privs, geteuid() == 0 ? 1 : 0);
  char name[128];
  std::size_t len = 0;
  osl_user_id ghost{54321};
  EXPECT_NE(osl_iddb_get_user_name_by_id(osl_process_ctx(), &e, 0, &ghost, name, sizeof name, &len), 0);
  int rooted = -1;
  osl_path_is_rooted(&e, 0, "/a", &rooted);
  EXPECT_EQ(rooted, 1);
  osl_path_is_rooted(&e, 0, "a", &rooted);
  EXPECT_EQ(rooted, 0);
}

}  // namespace
