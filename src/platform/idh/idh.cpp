#include "platform/idh/idh.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <vector>

void idhinit() {}
void idhterm() {}

osl_user_id* idh_allocUserID() { return new osl_user_id{static_cast<uid_t>(-1)}; }
osl_privgrp_id* idh_allocPrivGrpID() { return new osl_privgrp_id{static_cast<gid_t>(-1)}; }

int idh_mkUserID(const char* name, osl_user_id** out) {
  *out = idh_allocUserID();
  if (name == nullptr) return EINVAL;
  passwd pw;
  passwd* result = nullptr;
  std::vector<char> buf(16384);
  int rc = getpwnam_r(name, &pw, buf.data(), buf.size(), &result);
  if (rc != 0) return rc;
  if (result == nullptr) return ENOENT;
  (*out)->uid = pw.pw_uid;
  return 0;
}

int idh_mkPrivGrpID(const char* name, osl_privgrp_id** out) {
  *out = idh_allocPrivGrpID();
  if (name == nullptr) return EINVAL;
  group gr;
  group* result = nullptr;
  std::vector<char> buf(16384);
  int rc = getgrnam_r(name, &gr, buf.data(), buf.size(), &result);
  if (rc != 0) return rc;
  if (result == nullptr) return ENOENT;
  (*out)->gid = gr.gr_gid;
  return 0;
}

osl_user_id* idh_cpUserID(const osl_user_id* id) { return id != nullptr ? new osl_user_id(*id) : nullptr; }
osl_privgrp_id* idh_cpPrivGrpID(const osl_privgrp_id* id) { return id != nullptr ? new osl_privgrp_id(*id) : nullptr; }
void idh_freeUserID(osl_user_id* id) { delete id; }
void idh_freePrivGrpID(osl_privgrp_id* id) { delete id; }

void idh_eprintf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
}
