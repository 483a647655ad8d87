#ifndef EVM_LIBEVM_CLUINFO_H
#define EVM_LIBEVM_CLUINFO_H

// The upper layer of the membership client: one lower-layer context for the whole process, made
// once by clu_ctxinit, and the old interface of numbered information requests over it. Results
// are 0 for success and 1 for failure; every request fails while the context is missing.
//
// Requests of clu_info (see clsclu.h for the numbers):
//   2  int size, char* buffer  byte n is 1 for each node n in the group, below the size
//   3  clu_limits*             min_membid 0, max_membid the largest node number, max_sup_memb
//   8  name, buffer, int len   the interconnect name, which is the node's name
//   10 name, int*              the node's number
//   16 int*                    this node's number (-1 when it is not configured)
#include <cstddef>

#include "clu/clsclu.h"

// The switch of the built-in trace table; 1 at first.
extern int evmclu_tracing;

// Makes the context of the process, once; a second call is a success and changes nothing. Without
// gmxctx a service context is made, tracing through `trace` or else the built-in table (lines to
// the component "CLUCLS" while evmclu_tracing is set). 0, or the failure's code.
int clu_ctxinit(gmxsctx* gmxctx, const gmxtrccb* trace);
// 1 when the process's context exists.
int clu_is_ready();
// 1 when this node is in the group; every failure gives 0.
int clu_is_member();
int clu_info(int op, ...);
int clu_get_info(clu_gen_info** info);
int clu_free_info(clu_gen_info** info);
clscluctx* clugetctx();
gmxsctx* clu_getgmxsctx();

// The allocator handed to the lower layer: what it gives is zeroed.
void* clsclu_malloc(void* mmctx, std::size_t size);
void clsclu_mfree(void* mmctx, void* ptr);

// The built-in trace function: nothing when *flag is 0, else a line of at most 512 bytes to the
// component "CLUCLS".
void evmclstrc(int* flag, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Appends text to <home>/log/evm_clss_<node>.trc; the bytes written, 0 on failure. The home must
// be set.
int evmcls_iprintf(const char* text, int length);

#endif
