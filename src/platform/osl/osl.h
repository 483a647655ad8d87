#ifndef PLATFORM_OSL_OSL_H
#define PLATFORM_OSL_OSL_H

// The OS services layer: the few operating system services the suite needs, over POSIX.
// Every call returns 0 on success; on failure it fills the caller's error record, which
// prints as one line (osrecFormat).
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

struct osrec {
  std::int32_t category_osrec;
  char opname_osrec[33];
  char location_osrec[13];
  char otherinfo_osrec[161];
  std::int32_t depinfo_osrec;  // the operating system's own error number
};

// "category: %d, operation: %s, loc: %s, OS error: %d, other: %s\n"
std::string osrecFormat(const osrec& e);

struct oslctx;
struct osl_user_id { uid_t uid; };
struct osl_privgrp_id { gid_t gid; };
struct osl_process_handle { pid_t pid; };
struct osl_filelist_t;
typedef pid_t osl_pid_t;

enum {
  OSL_SUCC = 0,
  OSL_ERR_FAIL = 1,
  OSL_ERR_NOGROUP = 3,  // the user has no primary group
  OSL_FILELIST_END = 4,
};

// Categories of failure in an osrec.
enum {
  OSL_CAT_NONE = 0,
  OSL_CAT_INIT = 1,
  OSL_CAT_IO = 2,
  OSL_CAT_ID = 3,
  OSL_CAT_PROCESS = 4,
};

// First call of a process. `flags` is kept for the layer's own use.
int osl_meta_init(osrec* e, int flags);
// The process's context, which identity and process calls take. Never null after osl_meta_init.
oslctx* osl_process_ctx();
// ctxgGet(CLSG_OSL) is the conventional way to reach the process context.
enum { CLSG_OSL = 2 };
oslctx* ctxgGet(int which);

// Silences the standard streams: mask bit 2 standard output, bit 4 standard error.
int osl_stdio_nullify(int ctx, osrec* e, int mask);
int osl_path_is_rooted(osrec* e, int flags, const char* path, int* rooted);
int osl_pid_get_self(oslctx* ctx, osrec* e, int flags, osl_pid_t* pid);
int osl_pid_get_parent(oslctx* ctx, osrec* e, int flags, osl_pid_t* pid);
// Writes the line counts of a coverage build now, before a process ends without exit();
// does nothing in any other build.
void osl_flush_coverage();
[[noreturn]] void osl_exit_fast(int code, int flags);

// The calling user (effective identity) and the user database.
int osl_idq_get_user_id(oslctx* ctx, osrec* e, int flags, osl_user_id* out);
int osl_idq_get_user_name(oslctx* ctx, osrec* e, int flags, char* buf, std::size_t size,
                          std::size_t* outlen);
int osl_idq_get_primary_privgrp_name(oslctx* ctx, osrec* e, int flags, char* buf,
                                     std::size_t size, std::size_t* outlen);
int osl_iddb_get_user_name_by_id(oslctx* ctx, osrec* e, int flags, const osl_user_id* id,
                                 char* buf, std::size_t size, std::size_t* outlen);
int osl_iddb_get_privgrp_name_by_id(oslctx* ctx, osrec* e, int flags, const osl_privgrp_id* id,
                                    char* buf, std::size_t size, std::size_t* outlen);
int osl_iddb_get_privgrp_id_by_name(oslctx* ctx, osrec* e, int flags, const char* name,
                                    osl_privgrp_id* out);
int osl_iddb_is_a_privgrp_member_by_id(oslctx* ctx, osrec* e, int flags, const osl_user_id* user,
                                       const osl_privgrp_id* group, int* member);
// The superuser (uid 0) has the rights to manage the cluster.
int osl_iddb_has_ha_privs(oslctx* ctx, osrec* e, int flags, const osl_user_id* user, int* privs);
int osl_iddb_compare_user_id(const osl_user_id* a, const osl_user_id* b);

// Child processes: the program runs with the given argument vector (argv[0] included).
int osl_process_spawn(oslctx* ctx, osrec* e, int flags, const char* program, int argc,
                      char* const argv[], osl_process_handle* handle);
// Waits for the child; *status is its exit status, or 128 + signal when a signal ended it.
int osl_process_join(oslctx* ctx, osrec* e, osl_process_handle* handle, int* status);

// The names in a directory that start with `pattern` (empty: all) and end in "." + `ext`
// (empty: any), in byte order. getentry gives 0 and a name, OSL_FILELIST_END at the end, 1 on failure.
int osl_filelist_open(oslctx* ctx, osrec* e, int flags, const char* dir, const char* pattern,
                      const char* ext, osl_filelist_t** list);
int osl_filelist_getentry(oslctx* ctx, osrec* e, int flags, std::string* name, osl_filelist_t* list);
int osl_filelist_close(oslctx* ctx, osrec* e, int flags, osl_filelist_t* list);

#endif
