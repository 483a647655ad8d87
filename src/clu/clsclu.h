#ifndef CLU_CLSCLU_H
#define CLU_CLSCLU_H

// The lower layer of the membership client: a context that holds the cluster's sizes and names,
// the map of configured nodes, and a cached copy of the member list, over the group membership
// service (gmx). A node is up when it is in the cluster's membership group "<cluster>_NG".
//
// Plain functions on a plain structure; each gives clscluretSUCC or clscluretFAIL, and every entry
// but clsclu_term refuses a null context or one without the magic.
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "platform/gmx/gmx.h"

struct dtrcomp;

enum { clscluretSUCC = 0, clscluretFAIL = 1 };

// Requests of clsclu_info and clu_info, with their arguments after the number:
enum {
  CLU_INFO_MEMBSTATE = 2,         // int size, char* buffer: byte n is 1 for every node n in the group
  CLU_INFO_LIMITS = 3,            // clu_limits*
  CLU_INFO_CLU_NAME = 6,          // char* buffer, int length (clsclu_info only)
  CLU_INFO_INTERCONNECT = 8,      // const char* name, char* buffer, int length (clu_info only)
  CLU_INFO_MEMBERID_BY_NAME = 10, // const char* name, int* id
  CLU_INFO_NODENAME_BY_ID = 13,   // int id, char* buffer, int length (clsclu_info only)
  CLU_INFO_MY_ID = 16,            // int* id
};

typedef int memberid_t;

struct clu_limits {
  memberid_t min_membid;
  memberid_t max_membid;
  int max_sup_memb;
};

// One member of the list. Only hostname, memberid and state are filled; the rest stay zero.
struct clu_member_info {
  char* hostname;
  char* cluintername;
  char* cluinteraddr;
  int base_version;
  int clu_version;
  char* cnx_nodename;
  memberid_t memberid;
  int running_vers;
  int state;  // 1 in the group, 0 not
  int cnx_state;
  int comm_state;
  long incarn;
  int csid;
  int expected_votes;
  int votes;
  int vers;
  long mtime;
  long umtime;
  long reserved[8];
};

// The member list: one entry per configured node, in ascending node number. Of the scalar fields
// only clu_num_of_members and my_memberid are set; the others are carried along.
struct clu_gen_info {
  int clu_num_of_members;
  memberid_t my_memberid;
  char* clu_name;
  long incarn;
  int spare;
  int current_votes;
  int qdisk;
  int qdisk_votes;
  char* qdisk_name;
  int cev;
  clu_member_info* memblist;
};

// The caller's allocator; malloc may give null.
typedef void* (*clsclu_malloc_t)(void* mmctx, std::size_t size);
typedef void (*clsclu_mfree_t)(void* mmctx, void* ptr);
struct clsclucb {
  void* mmctx;
  clsclu_malloc_t malloc;
  clsclu_mfree_t mfree;
};

typedef void (*clsclu_trcfn_t)(void* trcctx, const char* fmt, ...);

enum { CLSCLU_OWN_GMXCTX = 1, CLSCLU_HAS_MUTEX = 2 };

struct clscluctx {
  std::uint32_t majik_clscluctx;  // "cUlC"
  std::uint32_t flags_clscluctx;  // CLSCLU_OWN_GMXCTX, CLSCLU_HAS_MUTEX
  gmxsctx* gmxctx_clscluctx;
  void* scx_clscluctx;
  void* mmctx_clscluctx;
  clsclu_malloc_t malloc_clscluctx;
  clsclu_mfree_t mfree_clscluctx;
  std::uint16_t resvd1_clscluctx;
  std::int16_t trclvl_clscluctx;  // 3; negative: no tracing
  clsclu_trcfn_t trcfn_clscluctx;
  void* trcctx_clscluctx;
  gmxnode lnode_clscluctx;
  gmxnode mxgrsz_clscluctx;
  gmxnode mxclsz_clscluctx;
  std::uint32_t nodenl_clscluctx;
  dtrcomp* compid_clscluctx;
  unsigned char* cfgmap_clscluctx;  // bit n (of byte n/8, lowest first) for configured node n
  std::uint32_t cfnodes_clscluctx;
  std::uint32_t clnmlen_clscluctx;
  char* clname_clscluctx;
  std::uint32_t cgnmlen_clscluctx;
  char* cgname_clscluctx;  // the cluster's name and "_NG"
  pthread_mutex_t mutex_clscluctx;  // guards geninfo and the maps in clsclu_get_info
  clu_gen_info* geninfo_clscluctx;
  void* ghdl_clscluctx;
  unsigned char* mmap_clscluctx;  // the group's members, as cfgmap
};

// The magic: the bytes "cUlC" in memory.
constexpr std::uint32_t CLSCLU_MAGIC =
    __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0x436c5563u : 0x63556c43u;

// Makes a context over gmxctx, or over a service context of its own when gmxctx is null. On
// failure *ctx is null and the result clscluretFAIL.
int clsclu_init(clscluctx** ctx, gmxsctx* gmxctx, const clsclucb* cb);
int clsclu_info(clscluctx* ctx, int op, ...);
// A private copy of the member list, brought up to date; free it with clsclu_free_info.
int clsclu_get_info(clscluctx* ctx, clu_gen_info** info);
// Releases such a copy and clears *info; a null copy is a success.
int clsclu_free_info(clscluctx* ctx, clu_gen_info** info);
// Ends the context; null is a success.
int clsclu_term(clscluctx* ctx);
// The trace function of a context: a line to the component "CLSCLU".
void clsclu_trc(void* trcctx, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

#endif
