#ifndef PLATFORM_VYNAPI_VYNAPI_H
#define PLATFORM_VYNAPI_VYNAPI_H

// The resource-registration client: hands resources and their attributes to the cluster's
// resource store (the current copy, VYN.CUR in the registry). Plain functions with status codes.
//
// A caller brings the library up with vynapi_init_vyn, builds resources (a name and attributes)
// into a list, and registers the list; each resource's outcome comes back as an entry of a status
// list, with a text for the user. A list owns the resources appended to it.
//
// Registering checks every resource before it writes anything, and writes each attribute as one
// change of the store; a store that fails in the middle of a resource (it stayed locked) leaves
// the attributes written before, and the status says so.
#include "platform/thread/sltypes.h"

typedef int VYNAPI_STAT;
enum {
  VYNAPI_STAT_SUCCESS = 0,
  VYNAPI_STAT_BAD_ARGUMENT = 4,        // a null handle, or a list without resources
  VYNAPI_STAT_CONNECTION = 184,        // the resource store cannot be reached
  VYNAPI_STAT_FAILURE = 200,           // anything else; the status entry tells what
  VYNAPI_STAT_INVALID_NAME = 227,      // a resource or attribute name, or a value, that cannot be stored
  VYNAPI_STAT_NOT_REGISTERED = 212,    // an update of a resource the store does not hold
  VYNAPI_STAT_IS_REGISTERED = 211,     // a registration of a resource the store holds already
  VYNAPI_STAT_AUTHENTICATION_FAILURE = 249,  // the caller may not change the store
  VYNAPI_STAT_BUSY = 413,              // the store stayed locked by another process
  VYNAPI_STAT_NOT_INITIALIZED = 451,   // no vynapi_init_vyn, or after vynapi_term_vyn
};

// Flags of vynapi_register_resource2.
enum {
  // Change only the given attributes of a resource already registered; without it, register
  // resources that are new.
  VYNAPI_FLAG_UPDATE = 16,
};

enum vynapi_msgtype {
  vynapi_msgtype_error = 1,
  vynapi_msgtype_warning = 2,
  vynapi_msgtype_progress = 3,
};

struct vynapi_ctx;
struct vynapi_res;
struct vynapi_reslist;

// Told what happens as it happens: pId is the resource's name.
typedef void (*vynapi_msg2_cb)(void* pArg, const zeltext* pId, const zeltext* pMsg, vynapi_msgtype msgtype);

// Opens the library's connection to the store; one at a time in a process. *ctx, if asked
// for, names it for vynapi_term_vyn.
VYNAPI_STAT vynapi_init_vyn(vynapi_ctx** ctx);
VYNAPI_STAT vynapi_term_vyn(vynapi_ctx* ctx);

VYNAPI_STAT vynapi_res_create(vynapi_res** res, const char* name);
VYNAPI_STAT vynapi_res_destroy(vynapi_res* res);
// Sets (or replaces) an attribute of the resource in memory.
VYNAPI_STAT vynapi_res_set_attr(vynapi_res* res, const char* name, const char* value);
// The text of the outcome of the last registration of the resource: a status entry's text.
// Null for a resource that was not registered. The text lives as long as the resource.
VYNAPI_STAT vynapi_res_get_op_status(vynapi_res* res, const char** text);
const char* vynapi_res_get_name(const vynapi_res* res);

VYNAPI_STAT vynapi_reslist_create(vynapi_reslist** list);
// Destroys the list with the resources it owns.
VYNAPI_STAT vynapi_reslist_destroy(vynapi_reslist* list);
VYNAPI_STAT vynapi_reslist_append(vynapi_reslist* list, vynapi_res* res);
// The first resource of the list, still owned by it; VYNAPI_STAT_FAILURE for an empty list.
VYNAPI_STAT vynapi_reslist_first(vynapi_reslist* list, vynapi_res** res);

// Registers (or, with VYNAPI_FLAG_UPDATE, updates) each resource of list. For each one an entry
// of the same name goes to statusList, whose op status tells the outcome; msg2, if given, is told
// of each resource changed, as progress. The result is the first failure's code, or VYNAPI_STAT_SUCCESS.
VYNAPI_STAT vynapi_register_resource2(vynapi_reslist* list, ub4 flags, vynapi_msg2_cb msg2, void* pArg,
                                      vynapi_reslist* statusList);

#endif
