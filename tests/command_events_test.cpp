// What the command tells the cluster: "-delete" and "-update" post their events, quiet mode
// sends every text as an event, and a daemon that is down costs the event, never the result.
// Also the rules of "-update": only values that really came change the stored profile.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "daemon_runner.h"
#include "program_runner.h"

namespace fs = std::filesystem;
using vyntest::Outcome;

namespace {

const char kDown[] =
    "Error creating connection to post event \"%s\" return code = 13\n"
    "Error: Connection error\n"
    "Evm log has failed.\n";

class CommandEventsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(home_.root() + "/ipc");
    dir_ = home_.root() + "/p";
  }
  Outcome vyn(std::vector<std::string> args) {
    args.push_back("-dir");
    args.push_back(dir_);
    return vyntest::run(vyntest::binary("vyn_profile"), args,
                        {{"ZEL_VYN_HOME", home_.home()},
                         {"VYN_REGISTRY", home_.root() + "/none.db"},
                         {"VYN_IPC_DIR", home_.root() + "/ipc"},
                         {"LANG", "C"}},
                        home_.work());
  }
  std::string profile(const std::string& name) { return vyntest::slurp(dir_ + "/" + name + ".cap"); }
  static std::string down(const char* event) {
    char text[512];
    std::snprintf(text, sizeof text, kDown, event);
    return text;
  }

  vyntest::TempHome home_;
  std::string dir_;
};

TEST_F(CommandEventsTest, DeleteWithTheDaemonDownKeepsItsResultAndSaysSoInThreeLines) {
  ASSERT_EQ(vyn({"-create", "web", "-t", "application", "-a", "/bin/true"}).status, 0);
  Outcome r = vyn({"-delete", "web"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, down("sys.zel.clu.vyn.res.profile.delete"));
  EXPECT_FALSE(fs::exists(dir_ + "/web.cap"));

  // In quiet mode the same lines are silenced with the rest.
  ASSERT_EQ(vyn({"-create", "web", "-t", "application", "-a", "/bin/true"}).status, 0);
  r = vyn({"-delete", "web", "-q"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out + r.err, "");
}

TEST_F(CommandEventsTest, DeleteAndUpdatePostTheirEventsAndQuietModeSendsItsTexts) {
  vyntest::Daemon daemon(home_);
  ASSERT_NE(daemon.banner(), "");
  ASSERT_EQ(vyn({"-create", "web", "-t", "application", "-a", "/bin/true"}).status, 0);
  Outcome r = vyn({"-update", "web", "-d", "front end"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out + r.err, "");
  r = vyn({"-delete", "web"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out + r.err, "");
  r = vyn({"-delete", "web", "-q"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out + r.err, "");
  r = vyn({"-print", "-q"});  // what "-print" shows goes out as an event too
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out + r.err, "");
  ASSERT_EQ(daemon.stop(), 0);

  std::vector<std::string> names;
  for (EvmEvent_t ev : vyntest::loggedEvents(home_)) {
    std::string name = vyntest::itemName(ev);
    names.push_back(name + " " + vyntest::stringVar(ev, name == "sys.zel.clu.vyn.log.ui" ? "CAA_LOG" : "_name"));
    EvmEventDestroy(ev);
  }
  EXPECT_EQ(names, (std::vector<std::string>{
                       "sys.zel.clu.vyn.res.profile.update web",
                       "sys.zel.clu.vyn.res.profile.delete web",
                       "sys.zel.clu.vyn.log.ui VYN-0170: No profile exists for resource web.\n",
                       "sys.zel.clu.vyn.log.ui \n",
                   }));
}

TEST_F(CommandEventsTest, UpdateChangesOnlyWhatCameAndKeepsTheRest) {
  ASSERT_EQ(vyn({"-create", "web", "-t", "application", "-a", "/bin/true", "-d", "first", "-o", "ci=45,ra=3"}).status, 0);
  std::string before = profile("web");
  ASSERT_NE(before.find("CHECK_INTERVAL=45\n"), std::string::npos);

  // A tag without its value, and options that did not come, leave the stored values alone.
  Outcome r = vyn({"-update", "web", "-d", "-o", "ra=5"});
  EXPECT_EQ(r.status, 0);
  std::string after = profile("web");
  EXPECT_NE(after.find("DESCRIPTION=first\n"), std::string::npos);
  EXPECT_NE(after.find("CHECK_INTERVAL=45\n"), std::string::npos);
  EXPECT_NE(after.find("RESTART_ATTEMPTS=5\n"), std::string::npos);
  EXPECT_FALSE(fs::exists(dir_ + "/web.bak")) << "an update makes no backup";

  // "-f" belongs to no update: the token is reported and nothing changes.
  r = vyn({"-update", "web", "-f", "-d", "other"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.substr(0, 10), "VYN-0160: ");
  EXPECT_EQ(profile("web"), after);

  // A broken rule leaves the file as it was and posts nothing.
  r = vyn({"-update", "web", "-h", "node1"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("VYN-0180: The profile " + dir_ + "/web.cap is not valid."), std::string::npos);
  EXPECT_EQ(r.err.find("Evm log has failed."), std::string::npos);
  EXPECT_EQ(profile("web"), after);

  // So does a value that the profile could not give back as it was.
  r = vyn({"-update", "web", "-d", "two\nlines"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0191: The value of DESCRIPTION holds a line break or a NUL character, which a profile "
                   "cannot hold.\n\n");
  EXPECT_EQ(profile("web"), after);
}

TEST_F(CommandEventsTest, UpdateOfAMissingProfileSays181) {
  Outcome r = vyn({"-update", "ghost", "-d", "x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0181: The profile " + dir_ + "/ghost.cap cannot be read.\n\n");
  r = vyn({"-update"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0181: The profile " + dir_ + "/.cap cannot be read.\n\n");
}

}  // namespace
