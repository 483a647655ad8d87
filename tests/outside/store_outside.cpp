// A resource daemon of the suite keeping its resources in the store: built apart from the
// project, with nothing but the compiler, the headers and the built static libraries. It walks
// through the life of a resource by the names a caller knows, and says what differed.
// Exit status 0 when everything held.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "caa/lib/caavrg.h"
#include "platform/registry/prvrg.h"

namespace {

int g_failures = 0;

void expect(bool ok, const char* what) {
  if (!ok) {
    std::printf("FAILED: %s\n", what);
    ++g_failures;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::string home = argc > 1 ? argv[1] : "/tmp";
  setenv("VYN_REGISTRY", (home + "/registry.db").c_str(), 1);
  setenv("VYN_NODE_NAME", "outside", 1);
  // The installation makes the store and the suite's system key; the daemon finds them.
  char err[1024] = "";
  std::size_t len = sizeof err;
  prvrg_ctx* installer = nullptr;
  if (prvrg_init_ext(&installer, 3, err, &len, PRVRG_FLAG_CREATE) != 0 ||
      prvrg_create_key(installer, nullptr, "SYSTEM.vyn", nullptr, nullptr, prvrg_security{}) != 0) {
    std::printf("FAILED: no store: %s\n", err);
    return 1;
  }
  prvrg_terminate(installer);

  expect(caavrginitctx(3, nullptr) == 0, "caavrginitctx");
  expect(caavrgCrRoot() == 0, "caavrgCrRoot");
  expect(caavrgAddResource("app.one", STAGE, nullptr) == 0, "caavrgAddResource in the stage");
  expect(caavrgSetvalue("app.one", "NAME", "app.one", STAGE, nullptr) == 0, "caavrgSetvalue");
  expect(caavrgSetvalue("app.one", "IS_UNREGISTERING", "0", STAGE, nullptr) == 0, "caavrgSetvalue");
  expect(caavrgCommitResource("app.one", nullptr) == 0, "caavrgCommitResource");
  expect(caavrgLookup("app.one", CAARESCUR, nullptr) == 0, "caavrgLookup");
  std::string value;
  expect(caavrgGetvalue("app.one", "NAME", value, CURRENT, nullptr) == 0 && value == "app.one", "caavrgGetvalue");
  std::map<std::string, std::string> values;
  expect(caavrgGetValues("app.one", values, CURRENT, nullptr) == 0 && values.size() == 2, "caavrgGetValues");
  expect(caavrgSetPerm("app.one", "rwx") == 0 && caavrgGetPerm("app.one", value) == 0 && value == "rwx",
         "caavrgSetPerm, caavrgGetPerm");

  prvrg_key* walk = nullptr;
  std::string name;
  int remain = 0;
  expect(caavrgGetres(name, walk, remain, CURRENT) == 0 && name == "app.one" && remain == 0, "caavrgGetres");
  expect(caavrgGetres(name, walk, remain, CURRENT) == 16 && name.empty() && remain == -1, "caavrgGetres at the end");
  caavrgcloseKey(walk);

  expect(caavrgRemove("app.one", CAARESCUR, nullptr) == 0 && caavrgLookup("app.one", CAARESCUR, nullptr) == 1,
         "caavrgRemove");
  expect(caavrgWrite("vyn.uiport", "6001", 5, nullptr) == 0, "caavrgWrite");
  expect(caavrgWriteVersion("outside", "1.0", "version") == 0 && caavrgCheckKey("SYSTEM.vyn.version.outside") == 0,
         "caavrgWriteVersion");
  expect(std::string(CaaVRGKeys::CommUIPort) == "SYSTEM.vyn.uiport" &&
             std::string(QemsdVRGKeys::AuthAllow) == "SYSTEM.qemsd.allow",
         "the suite's keys");
  caavrgTerm();
  return g_failures == 0 ? 0 : 1;
}
