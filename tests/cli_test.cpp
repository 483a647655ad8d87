// The command's front end from outside: the usage text, the choice of one usage group, the
// working directories, the home, and bad input of every class. Operations themselves are
// tested elsewhere; here a line either reaches an operation (no usage) or does not.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "program_runner.h"

namespace fs = std::filesystem;
using vyntest::Outcome;

namespace {

const char kUsage[] =
    "This command is deprecated; use \"vynctl <add|modify> resource\" instead.\n"
    "This form of the command will be removed in a future release.\n"
    "\n"
    "Usage:  vyn_profile -create resource_name -t application\n"
    "          [-dir directory_path] [-a action_script] [-B binary_pathname]\n"
    "          [-d description] [-h hosting_members] [-r required_resources]\n"
    "          [-l optional_resources] [-p placement_policy]\n"
    "          [-o as=auto_start,ci=check_interval,ft=failure_threshold,\n"
    "          fi=failure_interval,ra=restart_attempts,fd=failover_delay,\n"
    "          st=script_timeout,ap=active_placement,\n"
    "          ut=uptime_threshold,rt=start_timeout,pt=stop_timeout] [-f] [-q]\n"
    "\n"
    "        vyn_profile -create resource_name -I template_file [-dir directory_path] [-f] [-q]\n"
    "\n"
    "        vyn_profile -delete resource_name [-dir directory_path] [-q]\n"
    "\n"
    "        vyn_profile -print [resource_name [...]] [-dir directory_path] [-q]\n"
    "\n"
    "        vyn_profile -template resource_name [-dir directory_path] [-O template_file]\n"
    "\n"
    "        vyn_profile -template -t application [-O template_file]\n"
    "\n"
    "        vyn_profile -update resource_name [-dir directory_path] [option ...] [-o option,...] [-q]\n"
    "\n"
    "        vyn_profile -validate resource_name [-dir directory_path] [-q]\n";

const int kNobody = 65534;

class CliTest : public ::testing::Test {
 protected:
  std::map<std::string, std::string> env() const {
    return {{"ZEL_VYN_HOME", home_.home()}, {"VYN_REGISTRY", home_.root() + "/none.db"}, {"LANG", "C"}};
  }
  Outcome vyn(const std::vector<std::string>& args) { return vyn(args, env()); }
  Outcome vyn(const std::vector<std::string>& args, const std::map<std::string, std::string>& e, int uid = -1) {
    return vyntest::run(vyntest::binary("vyn_profile"), args, e, home_.work(), uid);
  }
  Outcome vrg(const std::vector<std::string>& args) {
    return vyntest::run(vyntest::binary("vyn_vrg"), args, {{"VYN_REGISTRY", home_.root() + "/reg.db"}}, home_.work());
  }
  // A directory an unprivileged user may create things in.
  std::string openDir(const std::string& name) {
    std::string d = home_.root() + "/" + name;
    fs::create_directories(d);
    fs::permissions(d, fs::perms::all);
    return d;
  }
  static bool root() { return geteuid() == 0; }

  void expectUsage(const Outcome& r, const std::string& what) {
    EXPECT_EQ(r.status, 1) << what;
    EXPECT_EQ(r.out, kUsage) << what;
    EXPECT_EQ(r.err, "") << what;
  }
  // The line was understood: an operation ran, whatever it then said.
  void expectReachedOperation(const Outcome& r, const std::string& what) {
    EXPECT_EQ(r.out.find("Usage:"), std::string::npos) << what;
  }

  vyntest::TempHome home_;
};

TEST_F(CliTest, NoArgumentsShowsDeprecationLinesAndUsage) {
  expectUsage(vyn({}), "no arguments");
}

TEST_F(CliTest, LineThatFitsNoGroupOrSeveralShowsUsage) {
  std::string d = home_.root() + "/d";
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"-delete", "r", "-f"},                               // -f is foreign to -delete
           {"-delete"},                                          // mandatory name missing
           {"-create", "r", "-t", "application", "-update"},     // two groups complete
           {"-template", "r", "-t", "application"},              // each group has a foreign token
           {"-create", "r"},                                     // neither -t nor -I
           {"-create", "r", "-t"},                               // -t without its value
           {"-create", "r", "-t", "-x"},                         // the value of -t may not be a tag
           {"-print", "-x"},                                     // unknown tag
           {"-validate", "a", "b"},                              // a second bare word
           {"bogus"},
           {""},
           {"-dir", d}}) {
    std::string what;
    for (const std::string& a : args) what += a + " ";
    expectUsage(vyn(args), what);
  }
}

TEST_F(CliTest, EachUsageGroupReachesItsOperation) {
  std::string d = home_.root() + "/p";
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"-create", "r", "-t", "application", "-dir", d},
           {"-create", "r", "-t", "application", "-I", "f", "-dir", d},  // foreign tokens pass group 1
           {"-create", "r", "-I", "f", "-dir", d, "-f"},
           {"-delete", "r", "-dir", d},
           {"-print", "-dir", d},
           {"-print", "a", "b", "c", "-dir", d},
           {"-template", "r", "-dir", d, "-O", home_.root() + "/t.cap"},
           {"-template", "-t", "application", "-O", home_.root() + "/t2.cap"},
           {"-update", "-dir", d},
           {"-validate", "-dir", d}}) {
    std::string what;
    for (const std::string& a : args) what += a + " ";
    expectReachedOperation(vyn(args), what);
  }
}

TEST_F(CliTest, QuietUsageWritesNothing) {
  Outcome r = vyn({"-template", "r", "-q"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

TEST_F(CliTest, DirIsMadeBeforeTheVerdict) {
  std::string d = home_.root() + "/made/by/scan";
  expectUsage(vyn({"-dir", d}), "-dir alone");
  EXPECT_TRUE(fs::is_directory(d));
}

TEST_F(CliTest, DirThatCannotBeMadeEndsWithMessage241AndNoUsage) {
  Outcome r = vyn({"-print", "-dir", "/proc/no/such/dir"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "VYN-0241: The directory /proc/no/such/dir cannot be used: it does not exist and cannot be created.\n\n");

  r = vyn({"-print", "-dir", ""});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0241: The directory  cannot be used: it does not exist and cannot be created.\n\n");
}

TEST_F(CliTest, WithoutAHomeTheCommandEndsWithStatusOne) {
  std::map<std::string, std::string> e = env();
  e.erase("ZEL_VYN_HOME");
  Outcome r = vyn({"-print"}, e);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, "registry store " + home_.root() + "/none.db does not exist\n");
  EXPECT_FALSE(fs::exists(home_.root() + "/none.db")) << "a read never creates the store";

  e["ZEL_VYN_HOME"] = "";  // set but empty counts as unset
  EXPECT_EQ(vyn({}, e).status, 1);
}

TEST_F(CliTest, HomeComesFromTheRegistryWhenTheEnvironmentLacksIt) {
  ASSERT_EQ(vrg({"set", "SYSTEM.ZEL_VYN_HOME", home_.home()}).status, 0);
  std::map<std::string, std::string> e = {{"VYN_REGISTRY", home_.root() + "/reg.db"}, {"LANG", "C"}};
  expectUsage(vyn({}, e), "home from the registry");
}

TEST_F(CliTest, MessagesFallBackToEnglishAndNeverCrashWithoutACatalog) {
  std::map<std::string, std::string> e = env();
  e["LANG"] = "de_DE.UTF-8";
  expectUsage(vyn({}, e), "German environment, English catalog only");

  fs::remove_all(home_.home() + "/vyn/mesg");
  Outcome r = vyn({});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out.substr(0, 36), "Message not found\nMessage not found\n");
}

TEST_F(CliTest, HugeArgumentIsOnlyAnotherUnknownToken) {
  expectUsage(vyn({"-print", std::string(100000, 'x'), "-x"}), "huge token");
  Outcome r = vyn({"-print", "-dir", std::string(4096, 'd')});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("VYN-0241: "), std::string::npos);
}

TEST_F(CliTest, UnprivilegedUserWorksInTheDefaultDirectory) {
  if (!root()) GTEST_SKIP() << "needs root to run as another user";
  fs::permissions(home_.root(), fs::perms::all);
  std::string fromEnv = openDir("envdefault") + "/mine";
  std::map<std::string, std::string> e = env();
  e["ZEL_VYN_DEFAULT_PATH"] = fromEnv;
  expectReachedOperation(vyn({"-print"}, e, kNobody), "default from the environment");
  EXPECT_TRUE(fs::is_directory(fromEnv));

  std::string fromReg = openDir("regdefault") + "/mine";
  ASSERT_EQ(vrg({"set", "SYSTEM.vyn.user_default_dir", fromReg}).status, 0);
  fs::permissions(home_.root() + "/reg.db", fs::perms::all);
  e = env();
  e["VYN_REGISTRY"] = home_.root() + "/reg.db";
  expectReachedOperation(vyn({"-print"}, e, kNobody), "default from the registry");
  EXPECT_TRUE(fs::is_directory(fromReg));

  // Neither: the public directory, made again if it went missing.
  fs::permissions(home_.home() + "/vyn", fs::perms::all);
  fs::remove_all(home_.home() + "/vyn/public");
  expectReachedOperation(vyn({"-print"}, env(), kNobody), "public directory");
  EXPECT_TRUE(fs::is_directory(home_.home() + "/vyn/public"));
}

TEST_F(CliTest, UserWithoutAnIdentityEndsWithOneLine) {
  if (!root()) GTEST_SKIP() << "needs root to run as another user";
  fs::permissions(home_.home() + "/log", fs::perms::all);  // the trace file can be written
  Outcome r = vyn({"-print"}, env(), 54321);  // a uid with no password entry
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "vyn_profile: Authorization Exception:The input identity no name for osl_user_id value found is invalid\n");
}

}  // namespace
