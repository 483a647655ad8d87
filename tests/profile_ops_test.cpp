// The profile command from the outside: each test runs the built program in a private copy of
// the shipped home, with its profiles in a scratch directory, and checks what a user sees
// (standard output, standard error, exit status) and what is left on disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Result {
  std::string out, err;
  int status = -1;
};

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// A live process, not one that has ended and waits to be reaped.
bool alive(int pid) {
  if (pid <= 0 || kill(pid, 0) != 0) return false;
  std::string status = slurp("/proc/" + std::to_string(pid) + "/status");
  return status.find("State:\tZ") == std::string::npos;
}

bool exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

class ProfileCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* home = std::getenv("VYN_TEST_HOME");
    const char* bin = std::getenv("VYN_BIN_DIR");
    ASSERT_NE(home, nullptr);
    ASSERT_NE(bin, nullptr);
    program = std::string(bin) + "/vyn_profile";
    char tmpl[] = "/tmp/vyn_profile_ops_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root = tmpl;
    this->home = root + "/home";
    pd = root + "/pd";
    ASSERT_EQ(std::system(("cp -r '" + std::string(home) + "' '" + this->home + "'").c_str()), 0);
  }
  void TearDown() override {
    std::system(("rm -rf '" + root + "'").c_str());
  }

  // Runs the command in the scratch directory with the given arguments.
  Result run(std::vector<std::string> args) {
    Result r;
    std::string outPath = root + "/stdout", errPath = root + "/stderr";
    std::vector<std::string> env = {"ZEL_VYN_HOME=" + home, "VYN_REGISTRY=" + root + "/no-registry.db", "LANG=C",
                                    "LC_ALL=C", "PATH=/usr/bin:/bin"};
    std::vector<char*> envp, argv;
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    args.insert(args.begin(), program);
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
      if (chdir(root.c_str()) != 0) _exit(126);
      int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(o, 1);
      dup2(e, 2);
      execve(program.c_str(), argv.data(), envp.data());
      _exit(127);
    }
    int raw = 0;
    waitpid(pid, &raw, 0);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    r.out = slurp(outPath);
    r.err = slurp(errPath);
    return r;
  }
  void put(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
  std::string cap(const std::string& name) { return pd + "/" + name + ".cap"; }
  Result create(const std::string& name, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"-create", name, "-t", "application", "-dir", pd};
    args.insert(args.end(), extra.begin(), extra.end());
    return run(args);
  }

  std::string program, root, home, pd;
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

}  // namespace
