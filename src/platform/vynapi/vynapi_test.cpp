#include "platform/vynapi/vynapi.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "caa/lib/caavrg.h"
#include "platform/registry/prvrg.h"
#include "platform/registry/prvrg_test_util.h"
#include "platform/trace/dtr.h"

namespace {

namespace fs = std::filesystem;

class VynapiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vyn_vynapi.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    fs::create_directories(dir_ + "/log");
    setenv("ZEL_VYN_HOME", dir_.c_str(), 1);
    setenv("VYN_REGISTRY", (dir_ + "/reg.db").c_str(), 1);
    setenv("VYN_NODE_NAME", "thisnode", 1);
    dtrSetProgram("vynapi");
  }
  void TearDown() override {
    if (ctx_ != nullptr) vynapi_term_vyn(ctx_);
    if (store_ != nullptr) prvrg_terminate(store_);
    unsetenv("VYN_REGISTRY");
    unsetenv("VYN_NODE_NAME");
    dtrreset();
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  // A store with its main keys; `resources` are registered, complete.
  void makeStore(const std::vector<std::string>& resources) {
    char err[1024];
    std::size_t len = sizeof err;
    ASSERT_EQ(prvrg_init_ext(&store_, PRVRG_LEVEL_DEFAULT, err, &len, PRVRG_FLAG_CREATE), 0) << err;
    set("VYN.HIS", nullptr);
    set("VYN.SEC", nullptr);
    set("VYN.CUR", nullptr);
    set("SYSTEM.gmx.node.2", "thisnode");
    for (const std::string& r : resources) {
      set("VYN.CUR." + r + ".IS_UNREGISTERING", "0");
      set("VYN.CUR." + r + ".CHECK_INTERVAL", "60");
    }
    ASSERT_EQ(vynapi_init_vyn(&ctx_), VYNAPI_STAT_SUCCESS);
  }
  void set(const std::string& key, const char* value) {
    int rc = value == nullptr ? prvrg_create_key(store_, nullptr, key.c_str(), nullptr, nullptr, prvrg_security{})
                              : prvrg_create_n_set_key(store_, nullptr, key.c_str(), nullptr, nullptr, 3, value,
                                                       std::strlen(value) + 1, prvrg_security{});
    ASSERT_EQ(rc, 0) << key;
  }
  std::string get(const std::string& key) {
    prvrg_key* k = nullptr;
    if (prvrg_open_key(store_, &k, key.c_str()) != 0) return "<absent>";
    char buf[256] = "";
    std::size_t len = sizeof buf;
    int type = 0;
    int rc = prvrg_get_value(store_, k, &type, buf, &len);
    prvrg_close_key(store_, k);
    return rc == 0 ? buf : "<no value>";
  }

  // Registers one resource with the attributes; the result, the status text and the messages.
  VYNAPI_STAT registerOne(const std::string& name, const std::vector<std::pair<std::string, std::string>>& attrs,
                          ub4 flags, std::string* status = nullptr) {
    vynapi_reslist* list = nullptr;
    vynapi_reslist* statusList = nullptr;
    vynapi_res* res = nullptr;
    EXPECT_EQ(vynapi_reslist_create(&list), 0);
    EXPECT_EQ(vynapi_reslist_create(&statusList), 0);
    EXPECT_EQ(vynapi_res_create(&res, name.c_str()), 0);
    for (const auto& a : attrs) EXPECT_EQ(vynapi_res_set_attr(res, a.first.c_str(), a.second.c_str()), 0);
    EXPECT_EQ(vynapi_reslist_append(list, res), 0);
    messages_.clear();
    VYNAPI_STAT rc = vynapi_register_resource2(list, flags, &VynapiTest::collect, &messages_, statusList);
    vynapi_res* first = nullptr;
    const char* text = nullptr;
    if (vynapi_reslist_first(statusList, &first) == 0) {
      EXPECT_EQ(vynapi_res_get_op_status(first, &text), 0);
      EXPECT_STREQ(vynapi_res_get_name(first), name.c_str());
    }
    if (status != nullptr) *status = text != nullptr ? text : "<none>";
    vynapi_reslist_destroy(list);
    vynapi_reslist_destroy(statusList);
    return rc;
  }
  static void collect(void* arg, const zeltext* id, const zeltext* msg, vynapi_msgtype type) {
    static_cast<std::vector<std::string>*>(arg)->push_back(std::string(reinterpret_cast<const char*>(id)) + ": " +
                                                          reinterpret_cast<const char*>(msg) + " (" +
                                                          std::to_string(type) + ")");
  }

  std::string dir_;
  prvrg_ctx* store_ = nullptr;
  vynapi_ctx* ctx_ = nullptr;
  std::vector<std::string> messages_;
};

TEST_F(VynapiTest, AnUpdateChangesOnlyTheGivenAttributesOfARegisteredResource) {
  makeStore({"web!1"});
  std::string status;
  EXPECT_EQ(registerOne("web.1", {{"CHECK_INTERVAL", "30"}, {"HOSTING_MEMBERS", "n1 n2"}}, VYNAPI_FLAG_UPDATE,
                        &status),
            VYNAPI_STAT_SUCCESS);
  EXPECT_EQ(status, "Resource web.1 updated.");
  EXPECT_EQ(messages_, std::vector<std::string>{"web.1: Resource web.1 updated. (3)"});
  EXPECT_EQ(get("VYN.CUR.web!1.CHECK_INTERVAL"), "30");
  EXPECT_EQ(get("VYN.CUR.web!1.HOSTING_MEMBERS"), "n1 n2");
  EXPECT_EQ(get("VYN.CUR.web!1.IS_UNREGISTERING"), "0");

  EXPECT_EQ(registerOne("db", {{"CHECK_INTERVAL", "30"}}, VYNAPI_FLAG_UPDATE, &status), VYNAPI_STAT_NOT_REGISTERED);
  EXPECT_EQ(status, "Resource db is not registered.");
  EXPECT_TRUE(messages_.empty()) << "a failure is told by its status alone";
  EXPECT_EQ(get("VYN.CUR.db"), "<absent>");
}

TEST_F(VynapiTest, WhatTheStoreCouldNotGiveBackIsRefusedBeforeAnythingIsWritten) {
  makeStore({"web", "a!b"});
  std::string status;
  struct Case {
    std::string name, attr, value, text;
  };
  for (const Case& c : std::vector<Case>{
           {"a!b", "CHECK_INTERVAL", "1", "The resource name \"a!b\" is not valid."},
           {"", "CHECK_INTERVAL", "1", "The resource name \"\" is not valid."},
           {"a..b", "CHECK_INTERVAL", "1", "The resource name \"a..b\" is not valid."},
           {"../x", "CHECK_INTERVAL", "1", "The resource name \"../x\" is not valid."},
           {std::string(128, 'r'), "CHECK_INTERVAL", "1",
            "The resource name \"" + std::string(128, 'r') + "\" is not valid."},
           {"web", "A.B", "1", "The attribute name \"A.B\" of resource web is not valid."},
           {"web", "", "1", "The attribute name \"\" of resource web is not valid."},
           {"web", "CHECK_INTERVAL", "1\n2",
            "The value of attribute CHECK_INTERVAL of resource web cannot be stored: it is too long or holds a line break."},
           {"web", "CHECK_INTERVAL", std::string(65535, 'v'),
            "The value of attribute CHECK_INTERVAL of resource web cannot be stored: it is too long or holds a line break."},
       }) {
    EXPECT_EQ(registerOne(c.name, {{"AAA_FIRST", "x"}, {c.attr, c.value}}, VYNAPI_FLAG_UPDATE, &status),
              VYNAPI_STAT_INVALID_NAME)
        << c.name << " " << c.attr;
    EXPECT_EQ(status, c.text);
  }
  EXPECT_EQ(get("VYN.CUR.web.AAA_FIRST"), "<absent>");
  EXPECT_EQ(get("VYN.CUR.a!b.AAA_FIRST"), "<absent>");
  EXPECT_EQ(get("VYN.CUR.web.CHECK_INTERVAL"), "60");
}

TEST_F(VynapiTest, ANewResourceAppearsWholeOrNotAtAll) {
  makeStore({"web"});
  std::string status;
  EXPECT_EQ(registerOne("db.main", {{"CHECK_INTERVAL", "5"}}, 0, &status), VYNAPI_STAT_SUCCESS);
  EXPECT_EQ(status, "Resource db.main registered.");
  EXPECT_EQ(get("VYN.CUR.db!main.NAME"), "db.main");
  EXPECT_EQ(get("VYN.CUR.db!main.IS_UNREGISTERING"), "0");
  EXPECT_EQ(get("VYN.CUR.db!main.CHECK_INTERVAL"), "5");
  EXPECT_EQ(get("VYN.STAGE.node2.db!main"), "<absent>") << "nothing stays staged";
  EXPECT_EQ(registerOne("web", {{"CHECK_INTERVAL", "5"}}, 0, &status), VYNAPI_STAT_IS_REGISTERED);
  EXPECT_EQ(status, "Resource web is registered already.");
  EXPECT_EQ(get("VYN.CUR.web.CHECK_INTERVAL"), "60");
}

TEST_F(VynapiTest, AStoreThatCannotServeIsTheCallersStatus) {
  EXPECT_EQ(vynapi_init_vyn(&ctx_), VYNAPI_STAT_CONNECTION) << "no store at all";
  makeStore({"web"});
  vynapi_ctx* second = nullptr;
  EXPECT_EQ(vynapi_init_vyn(&second), VYNAPI_STAT_FAILURE) << "one connection at a time";
  vynapi_reslist* empty = nullptr;
  ASSERT_EQ(vynapi_reslist_create(&empty), 0);
  EXPECT_EQ(vynapi_register_resource2(empty, VYNAPI_FLAG_UPDATE, nullptr, nullptr, nullptr), VYNAPI_STAT_BAD_ARGUMENT);
  vynapi_res* none = nullptr;
  EXPECT_EQ(vynapi_reslist_first(empty, &none), VYNAPI_STAT_FAILURE);
  vynapi_reslist_destroy(empty);

  std::string status;
  {
    vyntest::StoreLocker locker(dir_ + "/reg.db");
    ASSERT_TRUE(locker.locked());
    EXPECT_EQ(registerOne("web", {{"CHECK_INTERVAL", "5"}}, VYNAPI_FLAG_UPDATE, &status), VYNAPI_STAT_BUSY);
  }
  EXPECT_EQ(status.rfind("Resource web cannot be changed now: registry store " + dir_ + "/reg.db", 0), 0u) << status;
  EXPECT_EQ(get("VYN.CUR.web.CHECK_INTERVAL"), "60");

  ASSERT_EQ(vynapi_term_vyn(ctx_), VYNAPI_STAT_SUCCESS);
  ctx_ = nullptr;
  EXPECT_EQ(registerOne("web", {{"CHECK_INTERVAL", "5"}}, VYNAPI_FLAG_UPDATE), VYNAPI_STAT_NOT_INITIALIZED);
}

}  // namespace
