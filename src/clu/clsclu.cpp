#include "clu/clsclu.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/thread/nxthr.h"
#include "platform/trace/dtr.h"

namespace {

const char kTraceComp[] = "CLSCLU";

bool valid(const clscluctx* ctx) { return ctx != nullptr && ctx->majik_clscluctx == CLSCLU_MAGIC; }

std::size_t mapBytes(const clscluctx* ctx) { return (ctx->mxclsz_clscluctx + 7) / 8; }

bool bit(const unsigned char* map, std::size_t size, std::uint32_t n) {
  return n / 8 < size && (map[n / 8] >> (n % 8) & 1) != 0;
}

void* alloc(clscluctx* ctx, std::size_t size) {
  void* p = ctx->malloc_clscluctx(ctx->mmctx_clscluctx, size);
  if (p != nullptr) std::memset(p, 0, size);
  return p;
}

void release(clscluctx* ctx, void* p) {
  if (p != nullptr) ctx->mfree_clscluctx(ctx->mmctx_clscluctx, p);
}

char* copyText(clscluctx* ctx, const char* text) {
  if (text == nullptr) return nullptr;
  std::size_t len = std::strlen(text) + 1;
  char* p = static_cast<char*>(alloc(ctx, len));
  if (p != nullptr) std::memcpy(p, text, len);
  return p;
}

#define TRC(ctx, ...)                                                                    \
  do {                                                                                   \
    if ((ctx)->trcfn_clscluctx != nullptr && (ctx)->trclvl_clscluctx >= 0)              \
      (ctx)->trcfn_clscluctx((ctx)->trcctx_clscluctx, __VA_ARGS__);                      \
  } while (0)

// Trace lines of the service context this layer makes for itself.
void gmxTrace(int* flag, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void gmxTrace(int* /*flag*/, const char* fmt, ...) {
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  if (dtrcomp* comp = dtrgetcompid(kTraceComp)) dtrprintft(comp, 1, "%s", line);
}
const gmxtrccb kGmxTrace = {gmxTrace};

void freeList(clscluctx* ctx, clu_gen_info* info) {
  if (info == nullptr) return;
  if (info->memblist != nullptr)
    for (int i = 0; i < info->clu_num_of_members; ++i) release(ctx, info->memblist[i].hostname);
  release(ctx, info->memblist);
  release(ctx, info->clu_name);
  release(ctx, info->qdisk_name);
  release(ctx, info);
}

// A fresh member list from the service: one entry per configured node. Null on failure.
clu_gen_info* getinfo(clscluctx* ctx) {
  std::size_t size = mapBytes(ctx);
  int rc = gmxgsqgrp(ctx->gmxctx_clscluctx, ctx->cgname_clscluctx, ctx->mmap_clscluctx, size);
  if (rc != GMX_SUCC) {
    TRC(ctx, "clsclu_getinfo: gmxgsqgrp failed, rc %d", rc);
    return nullptr;
  }
  clu_gen_info* info = static_cast<clu_gen_info*>(alloc(ctx, sizeof(clu_gen_info)));
  if (info == nullptr) return nullptr;
  info->my_memberid = ctx->lnode_clscluctx == GMX_NO_NODE ? -1 : static_cast<memberid_t>(ctx->lnode_clscluctx);
  info->clu_name = copyText(ctx, ctx->clname_clscluctx);
  info->memblist = static_cast<clu_member_info*>(alloc(ctx, sizeof(clu_member_info) * ctx->mxclsz_clscluctx));
  if (info->clu_name == nullptr || info->memblist == nullptr) {
    TRC(ctx, "clsclu_getinfo: no memory");
    freeList(ctx, info);
    return nullptr;
  }
  char* name = static_cast<char*>(alloc(ctx, ctx->nodenl_clscluctx));
  if (name == nullptr) {
    freeList(ctx, info);
    return nullptr;
  }
  std::uint32_t seen = 0;
  for (std::uint32_t n = 0; n < ctx->mxclsz_clscluctx && seen < ctx->cfnodes_clscluctx; ++n) {
    if (!bit(ctx->cfgmap_clscluctx, size, n)) continue;
    ++seen;
    clu_member_info& m = info->memblist[info->clu_num_of_members];
    rc = gmxnsqname(ctx->gmxctx_clscluctx, n, name, ctx->nodenl_clscluctx);
    if (rc != GMX_SUCC) {
      TRC(ctx, "clsclu_getinfo: gmxnsqname of node %u failed, rc %d", n, rc);
      release(ctx, name);
      freeList(ctx, info);
      return nullptr;
    }
    m.hostname = copyText(ctx, name);
    ++info->clu_num_of_members;
    if (m.hostname == nullptr) {
      release(ctx, name);
      freeList(ctx, info);
      return nullptr;
    }
    m.memberid = static_cast<memberid_t>(n);
    m.state = bit(ctx->mmap_clscluctx, size, n) ? 1 : 0;
  }
  release(ctx, name);
  return info;
}

}  // namespace

void clsclu_trc(void* trcctx, const char* fmt, ...) {
  clscluctx* ctx = static_cast<clscluctx*>(trcctx);
  if (ctx == nullptr || ctx->trclvl_clscluctx < 0) return;
  char line[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(line, sizeof line, fmt, ap);
  va_end(ap);
  dtrprintft(ctx->compid_clscluctx, 1, "%s", line);
}

int clsclu_init(clscluctx** out, gmxsctx* gmxctx, const clsclucb* cb) {
  if (out == nullptr) return clscluretFAIL;
  *out = nullptr;
  if (cb == nullptr || cb->malloc == nullptr || cb->mfree == nullptr) return clscluretFAIL;
  clscluctx* ctx = static_cast<clscluctx*>(cb->malloc(cb->mmctx, sizeof(clscluctx)));
  if (ctx == nullptr) return clscluretFAIL;
  std::memset(ctx, 0, sizeof *ctx);
  ctx->majik_clscluctx = CLSCLU_MAGIC;
  *out = ctx;
  ctx->mmctx_clscluctx = cb->mmctx;
  ctx->malloc_clscluctx = cb->malloc;
  ctx->mfree_clscluctx = cb->mfree;

  if (nxthrInitctx() != 0) std::fputs("clsclu_init: no thread context\n", stderr);
  ctx->compid_clscluctx = dtrgetcompid(kTraceComp);
  if (ctx->compid_clscluctx == nullptr)
    ctx->compid_clscluctx = dtrcompreg("CLSCLU layer", kTraceComp, 512, 1, 1, nullptr, 0);
  if (ctx->compid_clscluctx == nullptr) ctx->compid_clscluctx = dtrgetcompid(kTraceComp);  // another thread won
  ctx->trclvl_clscluctx = 3;
  ctx->trcfn_clscluctx = clsclu_trc;
  ctx->trcctx_clscluctx = ctx;

  int rc = GMX_SUCC;
  std::uint32_t value = 0;
  std::size_t len = 100;
  if (gmxctx != nullptr) {
    ctx->gmxctx_clscluctx = gmxctx;
  } else {
    rc = gmxsinit(&ctx->gmxctx_clscluctx, &kGmxTrace, nullptr);
    if (rc != GMX_SUCC) {
      TRC(ctx, "clsclu_init: GMX init failed, rc %d", rc);
      goto done;
    }
    ctx->flags_clscluctx |= CLSCLU_OWN_GMXCTX;
  }

  if ((rc = gmxnsqlnum(ctx->gmxctx_clscluctx, &ctx->lnode_clscluctx)) != GMX_SUCC) {
    TRC(ctx, "clsclu_init: gmxnsqlnum failed, rc %d", rc);
    goto done;
  }
  if ((rc = gmxsattrib(ctx->gmxctx_clscluctx, GMX_ATTR_NSCFG, &value)) != GMX_SUCC) {
    TRC(ctx, "clsclu_init: gmxsattrib(NSCFG) failed, rc %d", rc);
    goto done;
  }
  ctx->mxclsz_clscluctx = value;
  if ((rc = gmxsattrib(ctx->gmxctx_clscluctx, GMX_ATTR_GSDGRPSZ, &value)) != GMX_SUCC) {
    TRC(ctx, "clsclu_init: gmxsattrib(GSDGRPSZ) failed, rc %d", rc);
    goto done;
  }
  ctx->mxgrsz_clscluctx = value;
  if ((rc = gmxsattrib(ctx->gmxctx_clscluctx, GMX_ATTR_NSNAMEL, &value)) != GMX_SUCC) {
    TRC(ctx, "clsclu_init: gmxsattrib(NSNAMEL) failed, rc %d", rc);
    goto done;
  }
  ctx->nodenl_clscluctx = value;

  ctx->mmap_clscluctx = static_cast<unsigned char*>(alloc(ctx, mapBytes(ctx)));
  ctx->cfgmap_clscluctx = static_cast<unsigned char*>(alloc(ctx, mapBytes(ctx)));
  if (ctx->mmap_clscluctx == nullptr || ctx->cfgmap_clscluctx == nullptr) {
    TRC(ctx, "clsclu_init: no memory for the node maps");
    rc = GMX_ERR_FAIL;
    goto done;
  }
  if ((rc = gmxnsNodeList(ctx->gmxctx_clscluctx, ctx->cfgmap_clscluctx, mapBytes(ctx), &ctx->cfnodes_clscluctx)) !=
      GMX_SUCC) {
    TRC(ctx, "clsclu_init: gmxnsNodeList failed, rc %d", rc);
    goto done;
  }
  if (pthread_mutex_init(&ctx->mutex_clscluctx, nullptr) != 0) {
    TRC(ctx, "clsclu_init: no mutex");
    rc = GMX_ERR_FAIL;
    goto done;
  }
  ctx->flags_clscluctx |= CLSCLU_HAS_MUTEX;

  // Most names fit the first buffer; a longer one is asked for again in a buffer of its size.
  ctx->clname_clscluctx = static_cast<char*>(alloc(ctx, len));
  if (ctx->clname_clscluctx == nullptr) {
    rc = GMX_ERR_FAIL;
    goto done;
  }
  rc = gmxnsqclname(ctx->gmxctx_clscluctx, ctx->clname_clscluctx, &len);
  if (rc == GMX_ERR_TOOLONG) {
    release(ctx, ctx->clname_clscluctx);
    ctx->clname_clscluctx = static_cast<char*>(alloc(ctx, len));
    if (ctx->clname_clscluctx == nullptr) {
      rc = GMX_ERR_FAIL;
      goto done;
    }
    rc = gmxnsqclname(ctx->gmxctx_clscluctx, ctx->clname_clscluctx, &len);
  }
  if (rc != GMX_SUCC) {
    TRC(ctx, "clsclu_init: gmxnsqclname failed, rc %d", rc);
    goto done;
  }
  ctx->clnmlen_clscluctx = static_cast<std::uint32_t>(std::strlen(ctx->clname_clscluctx));

  ctx->cgnmlen_clscluctx = ctx->clnmlen_clscluctx + 3;
  ctx->cgname_clscluctx = static_cast<char*>(alloc(ctx, ctx->cgnmlen_clscluctx + 1));
  if (ctx->cgname_clscluctx == nullptr) {
    rc = GMX_ERR_FAIL;
    goto done;
  }
  std::memcpy(ctx->cgname_clscluctx, ctx->clname_clscluctx, ctx->clnmlen_clscluctx);
  std::memcpy(ctx->cgname_clscluctx + ctx->clnmlen_clscluctx, "_NG", 4);

  ctx->geninfo_clscluctx = getinfo(ctx);
  if (ctx->geninfo_clscluctx == nullptr) {
    TRC(ctx, "clsclu_init: clsclu_getinfo failed");
    rc = GMX_ERR_FAIL;
  }

done:
  TRC(ctx, "clsclu_init: rc %d", rc);
  if (rc != GMX_SUCC) {
    clsclu_term(ctx);
    *out = nullptr;
    return clscluretFAIL;
  }
  return clscluretSUCC;
}

int clsclu_info(clscluctx* ctx, int op, ...) {
  if (!valid(ctx)) return clscluretFAIL;
  int result = clscluretFAIL;
  va_list ap;
  va_start(ap, op);
  switch (op) {
    case CLU_INFO_MEMBSTATE: {
      int size = va_arg(ap, int);
      char* buf = va_arg(ap, char*);
      if (size < 0 || buf == nullptr) break;
      std::memset(buf, 0, static_cast<std::size_t>(size));
      std::size_t bytes = mapBytes(ctx);
      unsigned char map[(GMX_MAX_NODES + 7) / 8];
      std::vector<unsigned char> big;
      unsigned char* m = map;
      if (bytes > sizeof map) {
        big.resize(bytes);
        m = big.data();
      }
      int rc = gmxgsqgrp(ctx->gmxctx_clscluctx, ctx->cgname_clscluctx, m, bytes);
      if (rc != GMX_SUCC) {
        TRC(ctx, "clsclu_info(MEMBSTATE): gmxgsqgrp failed, rc %d", rc);
        break;
      }
      for (std::uint32_t n = 0; n < ctx->mxclsz_clscluctx && n < static_cast<std::uint32_t>(size); ++n)
        if (bit(m, bytes, n)) buf[n] = 1;
      result = clscluretSUCC;
      break;
    }
    case CLU_INFO_LIMITS: {
      clu_limits* limits = va_arg(ap, clu_limits*);
      if (limits == nullptr) break;
      limits->min_membid = 0;
      limits->max_sup_memb = static_cast<int>(ctx->mxclsz_clscluctx);
      limits->max_membid = static_cast<memberid_t>(ctx->mxclsz_clscluctx) - 1;
      result = clscluretSUCC;
      break;
    }
    case CLU_INFO_CLU_NAME: {
      char* buf = va_arg(ap, char*);
      int len = va_arg(ap, int);
      if (buf == nullptr || len <= 0 || static_cast<std::uint32_t>(len) <= ctx->clnmlen_clscluctx) break;
      std::memcpy(buf, ctx->clname_clscluctx, ctx->clnmlen_clscluctx + 1);
      result = clscluretSUCC;
      break;
    }
    case CLU_INFO_MEMBERID_BY_NAME: {
      const char* name = va_arg(ap, const char*);
      int* id = va_arg(ap, int*);
      gmxnode node = 0;
      if (name == nullptr || id == nullptr) break;
      int rc = gmxnsqanum(ctx->gmxctx_clscluctx, name, &node);
      if (rc != GMX_SUCC) {
        TRC(ctx, "clsclu_info(MEMBERID_BY_NAME): no node %s, rc %d", name, rc);
        break;
      }
      *id = static_cast<int>(node);
      result = clscluretSUCC;
      break;
    }
    case CLU_INFO_NODENAME_BY_ID: {
      int id = va_arg(ap, int);
      char* buf = va_arg(ap, char*);
      int len = va_arg(ap, int);
      if (buf == nullptr || len <= 0) break;
      std::memset(buf, 0, static_cast<std::size_t>(len));
      if (id < 0) break;
      if (gmxnsqname(ctx->gmxctx_clscluctx, static_cast<gmxnode>(id), buf, static_cast<std::size_t>(len)) == GMX_SUCC)
        result = clscluretSUCC;
      break;
    }
    case CLU_INFO_MY_ID: {
      int* id = va_arg(ap, int*);
      if (id == nullptr) break;
      *id = ctx->lnode_clscluctx == GMX_NO_NODE ? -1 : static_cast<int>(ctx->lnode_clscluctx);
      result = clscluretSUCC;
      break;
    }
    default:
      break;
  }
  va_end(ap);
  return result;
}

int clsclu_get_info(clscluctx* ctx, clu_gen_info** out) {
  if (!valid(ctx) || out == nullptr) return clscluretFAIL;
  std::size_t size = mapBytes(ctx);
  unsigned char* oldmap = static_cast<unsigned char*>(alloc(ctx, size));
  clu_gen_info* info = static_cast<clu_gen_info*>(alloc(ctx, sizeof(clu_gen_info)));
  char* name = static_cast<char*>(alloc(ctx, ctx->clnmlen_clscluctx + 1));
  clu_member_info* members = static_cast<clu_member_info*>(alloc(ctx, sizeof(clu_member_info) * ctx->mxclsz_clscluctx));
  if (info != nullptr) {
    info->clu_name = name;
    info->memblist = members;
  } else {
    release(ctx, name);
    release(ctx, members);
  }
  bool ok = oldmap != nullptr && info != nullptr && name != nullptr && members != nullptr;

  if (ok) {
    pthread_mutex_lock(&ctx->mutex_clscluctx);
    std::uint32_t oldcount = ctx->cfnodes_clscluctx;
    std::memcpy(oldmap, ctx->cfgmap_clscluctx, size);
    int rc = gmxnsNodeList(ctx->gmxctx_clscluctx, ctx->cfgmap_clscluctx, size, &ctx->cfnodes_clscluctx);
    if (rc == GMX_SUCC) rc = gmxgsqgrp(ctx->gmxctx_clscluctx, ctx->cgname_clscluctx, ctx->mmap_clscluctx, size);
    if (rc != GMX_SUCC) {
      TRC(ctx, "clsclu_get_info: the service failed, rc %d", rc);
      ok = false;
    } else if (oldcount != ctx->cfnodes_clscluctx || std::memcmp(oldmap, ctx->cfgmap_clscluctx, size) != 0 ||
               ctx->geninfo_clscluctx == nullptr) {
      freeList(ctx, ctx->geninfo_clscluctx);
      ctx->geninfo_clscluctx = getinfo(ctx);
      ok = ctx->geninfo_clscluctx != nullptr;
    }
    if (ok) {
      const clu_gen_info* c = ctx->geninfo_clscluctx;
      info->my_memberid = c->my_memberid;
      info->incarn = c->incarn;
      info->spare = c->spare;
      info->current_votes = c->current_votes;
      info->qdisk = c->qdisk;
      info->qdisk_votes = c->qdisk_votes;
      info->cev = c->cev;
      std::memcpy(info->clu_name, ctx->clname_clscluctx, ctx->clnmlen_clscluctx + 1);
      for (int i = 0; i < c->clu_num_of_members && ok; ++i) {
        clu_member_info& m = members[i];
        m.memberid = c->memblist[i].memberid;
        m.hostname = copyText(ctx, c->memblist[i].hostname);
        info->clu_num_of_members = i + 1;
        ok = m.hostname != nullptr;
        m.state = bit(ctx->mmap_clscluctx, size, static_cast<std::uint32_t>(m.memberid)) ? 1 : 0;
      }
    }
    pthread_mutex_unlock(&ctx->mutex_clscluctx);
  }
  release(ctx, oldmap);
  if (!ok) {
    freeList(ctx, info);
    return clscluretFAIL;
  }
  *out = info;
  return clscluretSUCC;
}

int clsclu_free_info(clscluctx* ctx, clu_gen_info** info) {
  if (!valid(ctx)) return clscluretFAIL;
  if (info == nullptr || *info == nullptr) return clscluretSUCC;
  freeList(ctx, *info);
  *info = nullptr;
  return clscluretSUCC;
}

int clsclu_term(clscluctx* ctx) {
  if (ctx == nullptr) return clscluretSUCC;
  if (ctx->majik_clscluctx != CLSCLU_MAGIC) return clscluretFAIL;
  if (ctx->flags_clscluctx & CLSCLU_HAS_MUTEX) pthread_mutex_destroy(&ctx->mutex_clscluctx);
  freeList(ctx, ctx->geninfo_clscluctx);
  if (ctx->flags_clscluctx & CLSCLU_OWN_GMXCTX) gmxsterm(ctx->gmxctx_clscluctx);
  release(ctx, ctx->cfgmap_clscluctx);
  release(ctx, ctx->mmap_clscluctx);
  release(ctx, ctx->clname_clscluctx);
  release(ctx, ctx->cgname_clscluctx);
  ctx->majik_clscluctx = 0;
  release(ctx, ctx);
  return clscluretSUCC;
}
