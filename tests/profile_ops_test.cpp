// The profile command from the outside: each test runs the built program in a private copy of
// the shipped home, with its profiles in a scratch directory, and checks what a user sees
// (standard output, standard error, exit status) and what is left on disk. Several runs at once
// must take turns on one profile, and a run killed at any moment leaves nothing the next keeps.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "program_runner.h"

namespace {

using vyntest::Outcome;
using vyntest::slurp;
typedef Outcome Result;

// A live process, not one that has ended and waits to be reaped.
bool alive(int pid) {
  if (pid <= 0 || kill(pid, 0) != 0) return false;
  std::string status = slurp("/proc/" + std::to_string(pid) + "/status");
  return status.find("State:\tZ") == std::string::npos;
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

class ProfileCommand : public ::testing::Test {
 protected:
  ProfileCommand() : root(home_.root()), home(home_.home()), pd(root + "/pd") {}

  std::map<std::string, std::string> env() const {
    return {{"ZEL_VYN_HOME", home}, {"VYN_REGISTRY", root + "/no-registry.db"}, {"LANG", "C"}, {"LC_ALL", "C"}};
  }
  // Runs the command in the scratch directory with the given arguments.
  Result run(const std::vector<std::string>& args) { return vyntest::run(program, args, env(), root); }
  // Starts it, to run beside others.
  vyntest::Running start(const std::vector<std::string>& args) { return vyntest::start(program, args, env(), root); }
  void put(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
  std::string cap(const std::string& name) { return pd + "/" + name + ".cap"; }
  std::vector<std::string> createArgs(const std::string& name, const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args = {"-create", name, "-t", "application", "-dir", pd};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }
  Result create(const std::string& name, const std::vector<std::string>& extra = {}) {
    return run(createArgs(name, extra));
  }
  // The names in the profile directory, sorted.
  std::vector<std::string> files() {
    std::vector<std::string> names;
    for (auto& e : std::filesystem::directory_iterator(pd)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  // The value of one attribute in a stored profile, or "(none)".
  std::string attr(const std::string& name, const std::string& key) {
    std::string text = "\n" + slurp(cap(name));
    std::size_t at = text.find("\n" + key + "=");
    if (at == std::string::npos) return "(none)";
    at += key.size() + 2;
    return text.substr(at, text.find('\n', at) - at);
  }

  vyntest::TempHome home_;
  const std::string program = vyntest::binary("vyn_profile");
  std::string root, home, pd;
};

TEST_F(ProfileCommand, CreatePrintValidateDelete) {
  Result r = create("web", {"-d", "front end", "-h", "n1 n2", "-p", "favored", "-o", "ci=30,as=always,bt=12:30"});
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_EQ(r.out + r.err, "");
  std::string text = slurp(cap("web"));
  EXPECT_EQ(text.find("NAME=web\nTYPE=application\nACTION_SCRIPT=" + pd + "/web.scr\nACTIVE_PLACEMENT=0\n"), 0u);
  EXPECT_NE(text.find("\nAUTO_START=always\nCHECK_INTERVAL=30\nDESCRIPTION=front end\n"), std::string::npos);
  EXPECT_NE(text.find("\nHOSTING_MEMBERS=n1 n2\n"), std::string::npos);
  EXPECT_NE(text.find("\nREBALANCE=t:*:12:30\n"), std::string::npos);  // mended short form
  EXPECT_FALSE(exists(pd + "/web.scr"));  // named, not made, without -B

  r = run({"-validate", "web", "-dir", pd});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out + r.err, "");

  put(cap("db"), "# kept as written\nNAME=db\nTYPE=application\nno newline at the end");
  r = run({"-print", "-dir", pd});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "\nFILE_NAME=db.cap\n# kept as written\nNAME=db\nTYPE=application\nno newline at the end\n\n"
                   "FILE_NAME=web.cap\n" + text + "\n");
  r = run({"-print", "gone", "web", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, text + "\nVYN-0181: The profile gone cannot be read.\n\n\n");

  r = run({"-delete", "web", "-dir", pd});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_FALSE(exists(cap("web")));
  r = run({"-delete", "web", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0170: No profile exists for resource web.\n\n");
}

TEST_F(ProfileCommand, PrintOfAnEmptyDirectoryIsOneEmptyLine) {
  Result r = run({"-print", "-dir", pd});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "\n");
}

TEST_F(ProfileCommand, PrintOfManyProfilesIsWrittenAsItGoesAndComesOutWhole) {
  ASSERT_EQ(create("seed").status, 0);
  std::string seed = slurp(cap("seed"));
  // Some 300 KiB of text: written out in several pieces, which must join without a seam. A
  // profile that cannot be read is left out and makes the status 1.
  std::string want = "\n";
  std::vector<std::string> names;
  for (int i = 0; i < 600; ++i) names.push_back("r" + std::to_string(i * 37 % 600) + std::string(i % 50, 'x'));
  names.push_back("seed");
  std::sort(names.begin(), names.end());
  for (const std::string& n : names) {
    std::string text = n == "seed" ? seed : "# " + n + "\n" + seed;
    if (n == names[300]) {
      std::filesystem::create_directory(cap(n));  // opens, but does not read
      continue;
    }
    if (n != "seed") put(cap(n), text);
    want += "FILE_NAME=" + n + ".cap\n" + text + "\n";
  }
  Result r = run({"-print", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, want);
}

TEST_F(ProfileCommand, ReplacingNeedsForceAndKeepsABackup) {
  ASSERT_EQ(create("r", {"-d", "first"}).status, 0);
  std::string first = slurp(cap("r"));
  Result r = create("r", {"-d", "second"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0162: " + cap("r") + " already exists. Use -f to replace it.\n\n");
  EXPECT_EQ(slurp(cap("r")), first);
  r = create("r", {"-d", "second", "-f"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(slurp(pd + "/r.bak"), first);
  EXPECT_NE(slurp(cap("r")).find("DESCRIPTION=second\n"), std::string::npos);
  // A profile that fails its rules leaves the stored one alone.
  r = create("r", {"-o", "ci=-5", "-f"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Error: CHECK_INTERVAL out of range: -5\nError: CHECK_INTERVAL out of range: -5\n");
  EXPECT_EQ(r.err, "VYN-0180: The profile " + cap("r") + " is not valid.\n\n");
  EXPECT_NE(slurp(cap("r")).find("DESCRIPTION=second\n"), std::string::npos);
}

TEST_F(ProfileCommand, ResourceNames) {
  EXPECT_EQ(create(std::string(127, 'n')).status, 0);
  Result r = create(std::string(128, 'n'));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0174: The resource name " + std::string(128, 'n') + " is longer than 127 characters.\n\n");
  r = create("bad!name");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Error: Invalid Name character\n");
  EXPECT_FALSE(exists(cap("bad!name")));
  r = create(".hidden");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Error: Improper Name: .hidden\n");
}

TEST_F(ProfileCommand, SubOptionTextFaults) {
  struct Case {
    std::string text, err;
  } cases[] = {
      {"as", "VYN-0150: The -o option text \"as\" is not valid.\n\nVYN-0152: Bad sub-option field #1, 'as'.\n\n"
             "VYN-0153: A sub-option must be given as name=value.\n\n"},
      {"as=1,", "VYN-0150: The -o option text \"as=1,\" is not valid.\n\n"
                "VYN-0151: The -o option text must not end with a comma.\n\n"},
      {"ci=5,xx=1", "VYN-0150: The -o option text \"ci=5,xx=1\" is not valid.\n\n"
                    "VYN-0152: Bad sub-option field #2, 'xx=1'.\n\nVYN-0160: Unknown or misplaced argument: xx\n\n"},
      {"=1", "VYN-0150: The -o option text \"=1\" is not valid.\n\nVYN-0152: Bad sub-option field #1, '=1'.\n\n"
             "VYN-0153: A sub-option must be given as name=value.\n\n"},
  };
  for (const Case& c : cases) {
    Result r = create("r", {"-o", c.text});
    EXPECT_EQ(r.status, 1) << c.text;
    EXPECT_EQ(r.err, c.err);
    EXPECT_FALSE(exists(cap("r")));
  }
  // Past 21 fields the rest stays in the last one, commas and all.
  std::string many;
  for (int i = 0; i < 22; ++i) many += (i ? "," : "") + std::string("ci=1");
  Result r = create("r", {"-o", many});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Bad sub-option field #21, 'ci=1,ci=1'.\n\nVYN-0153"), std::string::npos) << r.err;
  // Commas inside the value of bt survive, and quotes become blanks that reading trims.
  r = create("r", {"-o", "bt=t:1,2:3:4,ci=\"30\""});
  EXPECT_EQ(r.status, 0) << r.err << r.out;
  std::string text = slurp(cap("r"));
  EXPECT_NE(text.find("\nREBALANCE=t:1,2:3:4\n"), std::string::npos);
  EXPECT_NE(text.find("\nCHECK_INTERVAL= 30 \n"), std::string::npos);
  EXPECT_EQ(run({"-validate", "r", "-dir", pd}).status, 0);  // the blanks go on reading
}

TEST_F(ProfileCommand, UnknownTokensOfTheSecondScan) {
  Result r = create("r", {"-B"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0160: Unknown or misplaced argument: \n\nVYN-0160: Unknown or misplaced argument: -B\n\n");
  // No action script, no "-B": the closing object takes both tokens and shows the last.
  r = run({"-create", "n", "-t", "network", "-dir", pd, "-s", "10.0.0.0", "-B", "/bin/true"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0160: Unknown or misplaced argument: /bin/true\n\n");
  EXPECT_FALSE(exists(cap("n")));
  r = run({"-create", "r", "-t", "nosuch", "-dir", pd});
  EXPECT_EQ(r.err, "VYN-0175: The type definition for resource type nosuch cannot be read.\n\n");
}

TEST_F(ProfileCommand, ActionScriptFromABinaryRunsForReal) {
  Result r = create("sl", {"-B", "/bin/sleep 300"});
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  std::string script = pd + "/sl.scr";
  EXPECT_NE(slurp(cap("sl")).find("ACTION_SCRIPT=" + script + "\n"), std::string::npos);
  ASSERT_TRUE(exists(script));
  EXPECT_EQ(std::system((script + " check").c_str()), 256);
  EXPECT_EQ(std::system((script + " start").c_str()), 0);
  EXPECT_EQ(std::system((script + " check").c_str()), 0);
  std::string pid = slurp(pd + "/sl.pid");
  EXPECT_FALSE(pid.empty());
  EXPECT_TRUE(alive(std::atoi(pid.c_str())));
  EXPECT_EQ(std::system((script + " stop").c_str()), 0);
  EXPECT_EQ(std::system((script + " check").c_str()), 256);
  EXPECT_FALSE(alive(std::atoi(pid.c_str())));

  // With -f the template replaces an existing script; without it the script is kept, the
  // profile is written all the same, and the status says 1.
  r = create("sl", {"-B", "/bin/true", "-f"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(slurp(script).find("PROGRAM='/bin/true'"), std::string::npos);
  put(pd + "/other.scr", "keep");
  r = create("other", {"-B", "/bin/true"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0162: " + pd + "/other.scr already exists. Use -f to replace it.\n\n");
  EXPECT_EQ(slurp(pd + "/other.scr"), "keep");
  EXPECT_TRUE(exists(cap("other")));

  // A script named with a directory is made there.
  r = create("named", {"-a", root + "/scripts/named.sh", "-B", "/bin/true"});
  EXPECT_EQ(r.status, 1);  // no such directory: the template says so
  EXPECT_NE(r.err.find("does not exist"), std::string::npos);
  EXPECT_NE(r.err.find("Action script creation returned 1\n"), std::string::npos);
  mkdir((root + "/scripts").c_str(), 0755);
  r = create("named", {"-a", root + "/scripts/named.sh", "-B", "/bin/true", "-f"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(exists(root + "/scripts/named.sh"));
}

TEST_F(ProfileCommand, ScriptOfAFailedCreateIsTakenBack) {
  Result r = create("r", {"-B", "/bin/true", "-p", "restricted"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Error: HOSTING_MEMBERS is required for: restricted placement policy\n");
  EXPECT_FALSE(exists(pd + "/r.scr"));
  EXPECT_FALSE(exists(cap("r")));

  put(home + "/bin/vyntmpl.scr", "#!/bin/sh\nexit 3\n");
  r = create("r", {"-B", "/bin/true"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "Action script creation returned 3\n");
  EXPECT_NE(slurp(cap("r")).find("ACTION_SCRIPT=" + pd + "/r.scr\n"), std::string::npos);
}

TEST_F(ProfileCommand, CreateFromATemplateFile) {
  put(home + "/bin/in.cap", "NAME=other\nTYPE=application\nACTION_SCRIPT=/x.scr\nPLACEMENT=balanced\nAUTO_START=1\n");
  Result r = run({"-create", "fromfile", "-I", "in.cap", "-dir", pd});
  EXPECT_EQ(r.status, 0) << r.err << r.out;
  std::string text = slurp(cap("fromfile"));
  EXPECT_EQ(text.find("NAME=fromfile\nTYPE=application\nACTION_SCRIPT=fromfilescr\nAC"), 0u);
  EXPECT_NE(text.find("\nDESCRIPTION=fromfile\n"), std::string::npos);

  put(root + "/bad.cap", "NAME=x\nTYPE=application\nPLACEMENT=sideways\nAUTO_START=never\nREBALANCE=12\n");
  r = run({"-create", "bad", "-I", root + "/bad.cap", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "Error: PLACEMENT invalid: sideways\n");  // no fixup, no message 180
  EXPECT_EQ(r.err, "");
  r = run({"-create", "bad", "-I", "missing.cap", "-dir", pd});
  EXPECT_EQ(r.err, "VYN-0185: The template file " + home + "/bin/missing.cap cannot be read.\n\n");
  put(root + "/syntax.cap", "NAME=x\njust words\n");
  r = run({"-create", "bad", "-I", root + "/syntax.cap", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out.find("Syntax error in " + root + "/syntax.cap, line number 2: \"just words\"\n(File: caa_profile"), 0u);
}

TEST_F(ProfileCommand, Templates) {
  ASSERT_EQ(create("r", {"-d", "desc", "-a", "/opt/r.scr"}).status, 0);
  Result r = run({"-template", "r", "-dir", pd});
  EXPECT_EQ(r.status, 0) << r.err << r.out;
  std::string text = slurp(root + "/template.cap");
  EXPECT_EQ(text.substr(0, 38), "NAME=\nTYPE=application\nACTION_SCRIPT=\n");
  EXPECT_NE(text.find("\nDESCRIPTION=\n"), std::string::npos);
  r = run({"-template", "r", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0162: ./template.cap already exists. Use -f to replace it.\n\n");

  r = run({"-template", "-t", "application", "-O", root + "/app.cap"});
  EXPECT_EQ(r.status, 0) << r.err;
  text = slurp(root + "/app.cap");
  EXPECT_EQ(text.substr(0, 23), "NAME=\nTYPE=application\n");
  EXPECT_NE(text.find("\nREBALANCE=\nREQUIRED_RESOURCES=\nRESTART_ATTEMPTS=1\n"), std::string::npos);
  // A type template goes through -create -I once filled in.
  put(root + "/app.cap", "NAME=\n" + text.substr(6));
  r = run({"-create", "filled", "-I", root + "/app.cap", "-dir", pd});
  EXPECT_EQ(r.status, 0) << r.out;

  r = run({"-template", "-t", "application", "-O", root + "/no/such/dir/t.cap"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out.find("Error creating profile file " + root + "/no/such/dir/t.cap\n(File: caa_profile, line: "), 0u);
  r = run({"-template", "missing", "-dir", pd, "-O", root + "/m.cap"});
  EXPECT_EQ(r.err, "VYN-0181: The profile " + cap("missing") + " cannot be read.\n\n");
}

TEST_F(ProfileCommand, BrokenTypeDefinitions) {
  std::string tdir = home + "/vyn/template/";
  put(tdir + "dup.tdf", "ATTRIBUTE: A\nSWITCH: -d\nATTRIBUTE: B\nSWITCH: -x\nATTRIBUTE: C\nSWITCH: -x\n");
  Result r = run({"-create", "r", "-t", "dup", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0186: The type definition of dup gives one switch to more than one attribute:\n\n"
                   "VYN-0187:   switch    -d is claimed by: A DESCRIPTION\n\n"
                   "VYN-0187:   switch    -x is claimed by: B C\n\n");
  put(tdir + "eq.tdf", "ATTRIBUTE: E\nSWITCH: -e\nDEFAULT: a=b\n");
  r = run({"-template", "-t", "eq", "-O", root + "/eq.cap"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0161: The type definition entry for E cannot be turned into an option.\n\n");
  put(tdir + "bad.tdf", "ATTRIBUTE: A\nthis line has no colon\n");
  r = run({"-create", "r", "-t", "bad", "-dir", pd});
  EXPECT_EQ(r.out.find("Syntax error in bad, line number 2: \"this line has no colon\"\n(File: caa_template, line: "), 0u);
  EXPECT_EQ(r.err, "VYN-0175: The type definition for resource type bad cannot be read.\n\n");
  std::remove((tdir + "generic.tdf").c_str());
  r = create("r");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0175: The type definition for resource type application cannot be read.\n\n");
}

TEST_F(ProfileCommand, ValidateReportsEveryFaultThenTheVerdict) {
  mkdir(pd.c_str(), 0755);
  put(cap("v"), "NAME=w\nTYPE=application\nTARGET=x\nPLACEMENT=balanced\nHOSTING_MEMBERS=a\nAUTO_START=maybe\n"
                "ACTION_SCRIPT=/s\nJUNK=1\n");
  Result r = run({"-validate", "v", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "Error: NAME attribute must be the same as filename\nError: TARGET is a keyword\n"
            "Error: Invalid attribute, JUNK, in the profile.\nError: Invalid attribute, TARGET, in the profile.\n"
            "Error: AUTO_START invalid: maybe\nError: No HOSTING_MEMBERS is needed for balanced placement policy\n");
  EXPECT_EQ(r.err, "VYN-0180: The profile " + cap("v") + " is not valid.\n\n");

  std::string junk = "NAME=j\n";
  for (int i = 0; i < 3000; ++i) junk += static_cast<char>((i * 7919) % 256);
  put(cap("j"), junk);
  r = run({"-validate", "j", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("Syntax error in " + cap("j")), std::string::npos);

  r = run({"-validate", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0181: The profile " + pd + "/.cap cannot be read.\n\nVYN-0180: The profile " + pd +
                       "/.cap is not valid.\n\n");
}

// Eight updates at once, each of another attribute, round after round: every one of them stays.
TEST_F(ProfileCommand, ConcurrentUpdatesOfOneProfileLoseNoChange) {
  ASSERT_EQ(create("r").status, 0);
  const std::vector<std::string> subs = {"ci", "ft", "fi", "ra", "fd", "st", "rt", "pt"};
  const std::vector<std::string> keys = {"CHECK_INTERVAL", "FAILURE_THRESHOLD", "FAILURE_INTERVAL", "RESTART_ATTEMPTS",
                                         "FAILOVER_DELAY", "SCRIPT_TIMEOUT",    "START_TIMEOUT",    "STOP_TIMEOUT"};
  int lost = 0;
  for (int round = 1; round <= 6; ++round) {
    std::string value = std::to_string(100 + round);
    std::vector<vyntest::Running> runs;
    for (const std::string& sub : subs) runs.push_back(start({"-update", "r", "-dir", pd, "-o", sub + "=" + value}));
    for (auto& r : runs) EXPECT_EQ(r.wait().status, 0);
    for (const std::string& key : keys) lost += attr("r", key) != value;
  }
  EXPECT_EQ(lost, 0) << "changes lost out of " << 6 * subs.size();
  EXPECT_EQ(files(), std::vector<std::string>{"r.cap"}) << "no lock or temporary file stays";
}

// Creates of one new profile at once, without -f: one makes it, the others are told it exists.
TEST_F(ProfileCommand, ConcurrentCreatesMakeTheProfileOnce) {
  for (int round = 0; round < 4; ++round) {
    std::remove(cap("r").c_str());
    std::vector<vyntest::Running> runs;
    for (int i = 0; i < 6; ++i) runs.push_back(start(createArgs("r", {"-d", "by" + std::to_string(i)})));
    std::string winner;
    for (int i = 0; i < 6; ++i) {
      Outcome o = runs[i].wait();
      if (o.status == 0) {
        EXPECT_EQ(winner, "") << "a second create succeeded";
        winner = "by" + std::to_string(i);
      } else {
        EXPECT_EQ(o.err, "VYN-0162: " + cap("r") + " already exists. Use -f to replace it.\n\n");
      }
    }
    EXPECT_NE(winner, "");
    EXPECT_EQ(attr("r", "DESCRIPTION"), winner) << "the profile is the one whose create said so";
  }
  EXPECT_EQ(files(), std::vector<std::string>{"r.cap"});
}

// An update and a delete at once: whatever the order, a delete that succeeded leaves no profile,
// and an update either succeeded before it or found nothing.
TEST_F(ProfileCommand, UpdateRacingDeleteEndsAsEachReported) {
  for (int round = 0; round < 12; ++round) {
    ASSERT_EQ(create("r", {"-f"}).status, 0);
    vyntest::Running update = start({"-update", "r", "-dir", pd, "-d", "changed"});
    vyntest::Running del = start({"-delete", "r", "-dir", pd});
    Outcome u = update.wait(), d = del.wait();
    EXPECT_EQ(d.status, 0) << d.err;
    if (u.status != 0) {
      EXPECT_EQ(u.err, "VYN-0181: The profile " + cap("r") + " cannot be read.\n\n");
    }
    EXPECT_FALSE(exists(cap("r"))) << "round " << round << ": the deleted profile came back";
  }
}

// A name that leads out of the working directory is refused by every operation before it
// touches a file, the lock file included.
TEST_F(ProfileCommand, NamesThatLeaveTheWorkingDirectoryAreRefusedEverywhere) {
  std::filesystem::create_directories(pd);
  std::string victim = root + "/victim.cap";
  put(victim, "NAME=victim\nTYPE=application\n");
  put(root + "/in.cap", "NAME=\nTYPE=application\n");
  const std::vector<std::vector<std::string>> lines = {
      {"-delete", "../victim"},
      {"-print", "r", "../victim"},
      {"-validate", "a/../../victim"},
      {"-update", "../victim", "-d", "x"},
      {"-create", "../victim", "-t", "application", "-f"},
      {"-create", "a/../../victim", "-t", "application"},
      {"-create", "../victim", "-I", root + "/in.cap", "-f"},
      {"-template", "../victim", "-O", root + "/t.cap"},
  };
  for (std::vector<std::string> args : lines) {
    std::string name = args[0] == "-print" ? args[2] : args[1];
    args.push_back("-dir");
    args.push_back(pd);
    Result r = run(args);
    EXPECT_EQ(r.status, 1) << args[0];
    EXPECT_EQ(r.err, "VYN-0190: The resource name " + name +
                         " is not valid: a resource name may not contain \"/\".\n\n")
        << args[0];
    EXPECT_EQ(r.out, "") << args[0];
  }
  EXPECT_EQ(slurp(victim), "NAME=victim\nTYPE=application\n");
  EXPECT_FALSE(exists(root + "/victim.bak"));
  EXPECT_FALSE(exists(root + "/t.cap"));
  EXPECT_TRUE(files().empty());
}

// What another user puts where a lock file belongs is refused, never followed or waited on.
TEST_F(ProfileCommand, APlantedLockFileIsRefusedNotFollowed) {
  ASSERT_EQ(create("r").status, 0);
  std::string stored = slurp(cap("r"));
  std::string lock = pd + "/.r.cap.lock", victim = root + "/victim";
  put(victim, "keep");
  ASSERT_EQ(symlink(victim.c_str(), lock.c_str()), 0);
  Result r = run({"-update", "r", "-dir", pd, "-d", "x"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0195: The lock of the profile cannot be taken: " + lock +
                       ": Too many levels of symbolic links.\n\n");
  EXPECT_EQ(slurp(victim), "keep");
  std::remove(lock.c_str());
  ASSERT_EQ(mkfifo(lock.c_str(), 0666), 0);
  Outcome o = start({"-delete", "r", "-dir", pd}).wait(20000);
  EXPECT_EQ(o.status, 1);
  EXPECT_EQ(o.err, "VYN-0195: The lock of the profile cannot be taken: " + lock + ": not a regular file.\n\n");
  EXPECT_EQ(slurp(cap("r")), stored);
}

// A value that the profile could not give back as it was is refused before anything is written:
// no profile, no backup, no change of the stored one.
TEST_F(ProfileCommand, ValuesThatCouldNotBeReadBackAreRefused) {
  ASSERT_EQ(create("r", {"-d", "kept"}).status, 0);
  std::string stored = slurp(cap("r"));
  std::string room = std::to_string(10238 - std::string("DESCRIPTION=").size());
  struct Case {
    std::vector<std::string> opts;
    std::string err;
  } cases[] = {
      {{"-d", "web\nACTION_SCRIPT=/tmp/evil.sh"},
       "VYN-0191: The value of DESCRIPTION holds a line break or a NUL character, which a profile cannot hold.\n\n"},
      {{"-d", std::string(20000, 'x')},
       "VYN-0192: The value of DESCRIPTION is 20000 characters long; a profile can hold at most " + room +
           " characters for it.\n\n"},
      {{"-d", "ends in \\"},
       "VYN-0193: The value of DESCRIPTION ends in a backslash, which would join the next line of the profile to "
       "it.\n\n"},
      {{"-o", "ut=5m\\"},
       "VYN-0193: The value of UPTIME_THRESHOLD ends in a backslash, which would join the next line of the profile "
       "to it.\n\n"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> update = {"-update", "r", "-dir", pd};
    update.insert(update.end(), c.opts.begin(), c.opts.end());
    Result r = run(update);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, c.err);
    EXPECT_TRUE(slurp(cap("r")) == stored) << "the stored profile changed";
    r = create("r", [&] { auto o = c.opts; o.push_back("-f"); return o; }());
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, c.err);
    EXPECT_TRUE(slurp(cap("r")) == stored) << "the stored profile changed";
    r = create("new", c.opts);
    EXPECT_EQ(r.err, c.err);
  }
  EXPECT_EQ(files(), std::vector<std::string>{"r.cap"}) << "no backup, no new profile";

  // The same for what a template file brings: a value that ends in a backslash, or one that
  // continuation lines made too long for one line.
  put(root + "/slash.cap", "NAME=\nTYPE=application\nDESCRIPTION=ends in \\\\\n\n");
  Result r = run({"-create", "s", "-I", root + "/slash.cap", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0193: The value of DESCRIPTION ends in a backslash, which would join the next line of the "
                   "profile to it.\n\n");
  put(root + "/long.cap", "NAME=\nTYPE=application\nDESCRIPTION=" + std::string(6000, 'x') + "\\\n" +
                              std::string(4239, 'x') + "\n");
  r = run({"-create", "s", "-I", root + "/long.cap", "-dir", pd});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "VYN-0192: The value of DESCRIPTION is 10239 characters long; a profile can hold at most " + room +
                       " characters for it.\n\n");
  EXPECT_FALSE(exists(cap("s")));
}

// An input that is no regular file is refused at once, instead of being read forever.
TEST_F(ProfileCommand, InputThatIsNotARegularFileIsRefusedAtOnce) {
  std::string fifo = root + "/fifo.cap";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& input : {std::string("/dev/zero"), fifo, root}) {
    Outcome o = start({"-create", "r", "-I", input, "-dir", pd}).wait(20000);
    EXPECT_EQ(o.status, 1) << input;
    EXPECT_EQ(o.err, "VYN-0185: The template file " + input + " cannot be read.\n\n");
  }
  EXPECT_TRUE(files().empty());
}

// A replaced profile keeps its owner, group and mode.
TEST_F(ProfileCommand, AReplacedProfileKeepsOwnerGroupAndMode) {
  ASSERT_EQ(create("r").status, 0);
  ASSERT_EQ(chmod(cap("r").c_str(), 0640), 0);
  bool root_user = geteuid() == 0;
  if (root_user) {
    ASSERT_EQ(chown(cap("r").c_str(), 4242, 4343), 0);
  }
  const std::vector<std::vector<std::string>> lines = {{"-update", "r", "-dir", pd, "-d", "changed"},
                                                        createArgs("r", {"-f", "-d", "again"})};
  for (const std::vector<std::string>& args : lines) {
    Result r = run(args);
    EXPECT_EQ(r.status, 0) << r.err;
    struct stat st;
    ASSERT_EQ(stat(cap("r").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u) << args[0];
    if (root_user) {
      EXPECT_EQ(st.st_uid, 4242u) << args[0];
      EXPECT_EQ(st.st_gid, 4343u) << args[0];
    }
  }
  EXPECT_EQ(attr("r", "DESCRIPTION"), "again");
}

// Runs killed at random moments leave debris at most until the next run in the directory.
TEST_F(ProfileCommand, AKilledRunLeavesNothingThatTheNextRunKeeps) {
  ASSERT_EQ(create("r").status, 0);
  srand(42);
  for (int i = 0; i < 30; ++i) {
    vyntest::Running r = i % 2 == 0 ? start({"-update", "r", "-dir", pd, "-d", "round" + std::to_string(i)})
                                     : start(createArgs("r", {"-f", "-d", "round" + std::to_string(i)}));
    usleep(static_cast<useconds_t>(rand() % 25000));
    kill(r.pid(), SIGKILL);
    r.wait();
  }
  Result r = run({"-update", "r", "-dir", pd, "-d", "last"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(attr("r", "DESCRIPTION"), "last");
  std::vector<std::string> left = files();
  left.erase(std::remove(left.begin(), left.end(), "r.bak"), left.end());
  EXPECT_EQ(left, std::vector<std::string>{"r.cap"});
  EXPECT_EQ(run({"-validate", "r", "-dir", pd}).status, 0);
}

}  // namespace
