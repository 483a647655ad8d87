#ifndef CAA_LIB_CAAVRG_H
#define CAA_LIB_CAAVRG_H

// The program's door to the cluster registry: the process-wide client handles (cluster and
// node-local, each pair under its own mutex), the reading of one key, the reporting of a client
// failure, the two ends of the process over a registry failure, the host name, and the
// per-module debug levels kept in the registry.
//
// A registry that cannot be reached gives caavrgReadVRGKey a quiet result 2, and a missing key a
// quiet 4, so that callers take their fallback; nothing here ends the process on those.
//
// The second half is the resource store of the suite's resource daemon: a current copy, a history
// copy, a staging area per node with a move into the current copy, and a permission text per
// resource, all below VYN. Those operations end the process on the client failures that the
// daemon cannot work past (each says which), and return the client's result otherwise.
#include <map>
#include <string>

#include "platform/thread/sltypes.h"
#include "platform/trace/dtr.h"

struct prvrg_ctx;
struct prvrg_key;
struct prvrg_security;

// Parts of the debug level keys: SYSTEM.<component>.debug.<host>.<MODULE>.
extern const char* const CAASYSTEM;                // "SYSTEM"
extern const char* const CAAVRG_DEBUG_KEY_PREFIX;  // "debug"
extern const char* const VYND;                     // "vyn"
extern const char* const EVMD;                     // "evm"
extern const char* const DEFAULT;                  // "default"

// Cluster registry levels: 3 DEFAULT, 2 REBOOT, others CACHE. Node-local: 0x30000 DEFAULT,
// 0x20000 REBOOT, others CACHE.

// The DEFAULT handle, else the REBOOT one, trying both levels once per call while neither is
// open; null when neither opens. Never ends the process.
prvrg_ctx* caavrgtrygetctx();
// The DEFAULT/CACHE handle; without one the process ends through caavrgFatal.
prvrg_ctx* caavrggetctx();
prvrg_ctx* caalvggetctx();
// Opens one handle of a level into the matching global; the client's result. On failure the
// client's text goes to *pErrMsg if given.
int caavrginitctx(ub4 bootlevel, std::string* pErrMsg = nullptr);
int caalvginitctx(ub4 bootlevel);
void caavrgTerm();
void caalvgTerm();

// Reads a key's value into val; *size is the buffer's size on entry and as the client sets it on
// return. 0; 2 when there is no handle (pCtx null: the shared one); else the client's result, 4
// for a missing key, which alone is not reported.
int caavrgReadVRGKey(const char* key, char* val, ub4* size, prvrg_ctx* pCtx);

// Logs a client failure with the client's last error text; a bad handle (3) ends the process
// through caavrgExit.
void rtivrg_report_vrg_error(prvrg_ctx* ctx, const char* modulename, const char* vrg_op_name, const char* key,
                             sb4 rc);

// Log " message(File: file, line: line)" and end the process: caavrgFatal as a PANIC with
// status 1, caavrgExit with status 0.
[[noreturn]] void caavrgFatal(const char* file, int line, const std::string& message);
[[noreturn]] void caavrgExit(const char* file, int line, const std::string& message);

// The host name; the process ends when it cannot be had.
std::string caavrgGetHostname();
// caller.debug.<host>.<MODULE>, the module name upper-cased.
std::string caavrgGetDebugKey(const std::string& caller, const std::string& module);
// 1 VYND, 2 EVMD, anything else DEFAULT.
std::string getDebugString(dtrmkey caller);
// The module's level from SYSTEM.<component>.debug.<host>.<MODULE>: 0 (an absent key gives
// level 0) or 2.
int caavrgGetDebugLevel(const std::string& module, ub4* level, dtrmkey caller);
// Stores a module's level under the same key; 0 or the client's result.
int caavrgSetDebugLevel(const std::string& module, ub4 level, dtrmkey caller);

// ---- The resource store ----

// The key tree. A resource is one key below a location, its attributes one key each below it:
// VYN.CUR.<resource>.<attribute>, holding a text value.
extern const char* const CAARESROOT;   // "VYN"
extern const char* const CAARESCUR;    // "VYN.CUR": the current resources
extern const char* const CAARESHIS;    // "VYN.HIS": their history
extern const char* const CAARESSEC;    // "VYN.SEC": one key per resource, valued with its permission text
extern const char* const CAARESSTAGE;  // "VYN.STAGE.node", followed by the member id of the staging node
// A resource name may hold dots; as a key part each CAARESSP stands as CAARESEXC, so that one
// resource is always one key level. Attribute names are taken as they are.
extern const char* const CAARESSP;     // "."
extern const char* const CAARESEXC;    // "!"
extern const char* const USRZELDEBUG;  // "USR_ZEL_DEBUG": the attribute holding a resource's debug level
// A resource without this attribute in the current copy is incomplete and skipped by caavrgGetres.
extern const char* const CAARESUNREG;  // "IS_UNREGISTERING"

// Where an operation works. STAGE is the staging key of the local node, whose member id comes from
// CAA::Cluster (and may throw what it throws); a write makes that key when the node has none yet.
enum caavrgResourceLoc { CURRENT = 0, HISTORY = 1, STAGE = 2 };

// Values are read into buffers of this size, terminator included.
const ub4 CAAVRG_VALUE_SIZE = 65535;

// Every operation below takes an optional handle pCtx; without one it takes caavrggetctx() (the
// process ends when no handle is open), except where it says otherwise. Results are 0 or the
// client's, unless stated.

// Makes VYN.CUR, VYN.HIS and VYN.SEC below VYN (and VYN itself when the store has none yet),
// stopping at the first failure.
int caavrgCrRoot();
// Adds the resource's key under loc. Ends the process when the location cannot be opened or the
// key not created.
int caavrgAddResource(const std::string& resname, caavrgResourceLoc loc, prvrg_ctx* pCtx = nullptr);
// Moves the resource from the local node's staging key into the current copy, which must not hold
// it yet. Without pCtx the handle is caavrgtrygetctx(); 2 when there is none.
int caavrgCommitResource(const std::string& resname, prvrg_ctx* pCtx = nullptr);
// Deletes the resource with its attributes below subtreeValue: CAARESCUR, CAARESHIS, CAARESSEC or
// CAARESSTAGE (the local node's); 2 for any other subtree.
int caavrgRemove(const std::string& resname, const std::string& subtreeValue, prvrg_ctx* pCtx = nullptr);
// 0 when the resource is present below subtreeValue (CAARESCUR, CAARESHIS or CAARESSEC), 1 when
// absent, 2 for any other subtree. Ends the process when the key cannot be opened for another
// reason than its absence.
int caavrgLookup(const std::string& resname, const std::string& subtreeValue, prvrg_ctx* pCtx = nullptr);
// Writes one attribute, making its key (and the resource's) when missing. 4 when the key vanished
// meanwhile; every other failure ends the process.
int caavrgSetvalue(const std::string& resname, const std::string& attr, const std::string& val,
                   caavrgResourceLoc loc, prvrg_ctx* pCtx = nullptr);
// Reads one attribute into val: 4, quietly, when it is missing; a value that cannot be read ends
// the process.
int caavrgGetvalue(const std::string& resname, const std::string& attr, std::string& val, caavrgResourceLoc loc,
                   prvrg_ctx* pCtx = nullptr);
// All attributes of a resource, by name; STAGE reads the current copy. 0, 1 (and an empty map)
// when the resource is absent, 2 on any failure.
int caavrgGetValues(const std::string& resname, std::map<std::string, std::string>& map, caavrgResourceLoc loc,
                    prvrg_ctx* pCtx = nullptr);
// The values of all direct subkeys of any key, by their names; results as caavrgGetValues.
int caavrgGetSubKeyVals(const std::string& key, std::map<std::string, std::string>& map, prvrg_ctx* pCtx = nullptr);
// One step of a walk over the resources of CURRENT or HISTORY (not STAGE), on the shared handle.
// Start with a null vrghdl; each call gives the next complete resource's name in resname (dots
// restored) and how many subkeys remain, and 0. At the end resname is empty, remain -1, and the
// result 16. Resources whose current copy lacks IS_UNREGISTERING are logged and passed over.
// The walk's key is the caller's to close with caavrgcloseKey. Ends the process when the location
// cannot be opened or the enumeration fails.
int caavrgGetres(std::string& resname, prvrg_key*& vrghdl, int& remain, caavrgResourceLoc loc);
// Closes a handle of the walk; null does nothing. A failure ends the process.
void caavrgcloseKey(prvrg_key* key);
// A resource's permission text, kept as the value of VYN.SEC.<resource>.
int caavrgSetPerm(const std::string& resname, const std::string& val);
int caavrgGetPerm(const std::string& resname, std::string& val);
// From the left, puts dest's first character in place of each occurrence of src's first character.
void caavrgResTrans(std::string& str, const char* src, const char* dest);
// The security of a new key below key: key's own owner names, all rights to the owner and none to
// anybody else. The permission words are set whatever the result.
int caavrgSetSecurity(prvrg_ctx* ctx, prvrg_key* key, prvrg_security& sec);
// Stores a module's debug level (above 10 taken as 10): with caller 3 the module names a resource,
// whose USR_ZEL_DEBUG attribute takes it if the resource is current; else it goes to the module's
// key under SYSTEM. 0 or 2.
int caavrgSetDebugLevel(void* cookie, const zeltext* module, ub4 level, dtrmkey caller);
// Creates `key` below SYSTEM and sets it to the valSize bytes of value (opening a DEFAULT handle
// when none is open and none is given). 0 or 2.
int caavrgWrite(const char* key, const char* value, ub4 valSize, prvrg_ctx* pCtx = nullptr);
// Creates rkey.keyname.
int caavrgCreateKey(const char* rkey, const char* keyname);
// The result of opening the key: 0 when it exists, 4 when not.
int caavrgCheckKey(const char* keyname, prvrg_ctx* pCtx = nullptr);
// Deletes a key with everything below it.
int caavrgDeleteKey(const char* keyname, prvrg_ctx* pCtx = nullptr);
// Stores a node's version as SYSTEM.vyn.<vers_extkey>.<node>; $_VYN_CONFIG_VERSION, when set,
// replaces version_str.
int caavrgWriteVersion(const char* node, const char* version_str, const char* vers_extkey);

namespace CAA {

// The registry keys that the suite knows: CaaVRGKeys for the resource daemon and the command,
// QemsdVRGKeys for the lower-stack daemon.
struct CaaVRGKeys {
  static const char* const AuthDirKey;      // "SYSTEM.vyn.authloc"
  static const char* const AuthSecurity;    // "SYSTEM.vyn.usersecurity"
  static const char* const AuthAllow;       // "SYSTEM.vyn.allow"
  static const char* const AuthDeny;        // "SYSTEM.vyn.deny"
  static const char* const AuthDefaultAcl;  // "SYSTEM.vyn.default_acl"
  static const char* const DefaultDir;      // "SYSTEM.vyn.user_default_dir"
  static const char* const CommUIPort;      // "SYSTEM.vyn.uiport"
  static const char* const CommE2EPort;     // "SYSTEM.vyn.e2eport"
};

struct QemsdVRGKeys {
  static const char* const AuthDirKey;      // "SYSTEM.qemsd.authloc"
  static const char* const AuthSecurity;    // "SYSTEM.qemsd.usersecurity"
  static const char* const AuthAllow;       // "SYSTEM.qemsd.allow"
  static const char* const AuthDeny;        // "SYSTEM.qemsd.deny"
  static const char* const AuthDefaultAcl;  // "SYSTEM.qemsd.default_acl"
  static const char* const DefaultDir;      // "SYSTEM.qemsd.user_default_dir"
  static const char* const CommUIPort;      // "SYSTEM.qemsd.uiport"
  static const char* const CommE2EPort;     // "SYSTEM.qemsd.e2eport"
};

using ::caavrgReadVRGKey;
using ::caavrgTerm;
using ::caavrgtrygetctx;
using ::rtivrg_report_vrg_error;

}  // namespace CAA

using CAA::CaaVRGKeys;
using CAA::QemsdVRGKeys;

#endif
