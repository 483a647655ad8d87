#include "caa/smsec/identity.h"

#include <sstream>

#include "caa/smsec/auth_exception.h"
#include "cppgen/clsLog.h"
#include "platform/idh/idh.h"

namespace CAA {

namespace {

const CLS_Debug::CLSlog& dbug() {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("VYNSEC");
  return *s_dbug;
}

[[noreturn]] void fail(const std::string& logged, const std::string& thrown) {
  std::ostringstream os;
  os << " " << logged;
  dbug().log(os, CLS_Debug::NONE, CLS_Debug::CLSlogModule::getModuleNone());
  throw InvalidIdentity(thrown);
}

oslctx* ctx() { return ctxgGet(CLSG_OSL); }

}  // namespace

Identity::Identity() : m_uid(nullptr), m_isGroupIdentity(false) {}

Identity::Identity(std::string name, bool group) : m_uid(nullptr), m_isGroupIdentity(false) {
  if (name.empty()) fail("Exception: Identity construction failed with name: ", name);
  if (group) {
    osl_privgrp_id* gid = nullptr;
    int err = idh_mkPrivGrpID(name.c_str(), &gid);
    if (err != 0) {
      idh_freePrivGrpID(gid);
      fail("Exception: Identity construction, group creation failed with name: " + name + " and error: " +
               std::to_string(err),
           name);
    }
    try {
      constructGroupIdentity(gid);
    } catch (...) {
      idh_freePrivGrpID(gid);
      release();
      throw;
    }
    idh_freePrivGrpID(gid);
  } else {
    userName = name;
    int err = idh_mkUserID(name.c_str(), &m_uid);
    if (err != 0) {
      idh_freeUserID(m_uid);
      m_uid = nullptr;
      fail("Exception: Identity construction, user creation failed with name: " + name + " and error: " +
               std::to_string(err),
           name);
    }
  }
}

Identity::Identity(const osl_user_id* id) : m_uid(nullptr), m_isGroupIdentity(false) {
  if (id == nullptr) throw InvalidIdentity("(null)");
  try {
    constructIdentity(const_cast<osl_user_id*>(id));
  } catch (...) {
    release();  // a constructor that throws runs no destructor
    throw;
  }
}

Identity::Identity(const osl_privgrp_id* id) : m_uid(nullptr), m_isGroupIdentity(false) {
  if (id == nullptr) throw InvalidIdentity("(null)");
  try {
    constructGroupIdentity(const_cast<osl_privgrp_id*>(id));
  } catch (...) {
    release();
    throw;
  }
}

Identity::Identity(const Identity& other) : m_uid(nullptr), m_isGroupIdentity(false) { copyFrom(other); }

Identity& Identity::operator=(const Identity& other) {
  if (this != &other) {
    release();
    copyFrom(other);
  }
  return *this;
}

Identity::~Identity() { release(); }

void Identity::release() {
  idh_freeUserID(m_uid);
  m_uid = nullptr;
  for (osl_privgrp_id* g : groups) idh_freePrivGrpID(g);
  groups.clear();
  groupNames.clear();
}

void Identity::copyFrom(const Identity& other) {
  m_uid = idh_cpUserID(other.m_uid);
  m_isGroupIdentity = other.m_isGroupIdentity;
  userName = other.userName;
  for (osl_privgrp_id* g : other.groups) groups.push_back(idh_cpPrivGrpID(g));
  groupNames = other.groupNames;
}

Identity Identity::getCurrentIdentity() {
  osl_user_id* uid = idh_allocUserID();
  osrec e;
  int rc = osl_idq_get_user_id(ctx(), &e, 0, uid);
  if (rc != 0) {
    idh_freeUserID(uid);
    fail("Exception: Current Identity retrieval failed with error: " + std::to_string(rc),
         "Unable to retrieve current identity:" + std::to_string(rc));
  }
  Identity id;
  try {
    id = Identity(static_cast<const osl_user_id*>(uid));
  } catch (...) {
    idh_freeUserID(uid);
    throw;
  }
  char group[32];
  std::size_t len = 0;
  if (osl_idq_get_primary_privgrp_name(ctx(), &e, 0, group, 31, &len) == 0) id.setGroupIdentity(group);
  idh_freeUserID(uid);
  return id;
}

void Identity::constructIdentity(osl_user_id* id) {
  idh_freeUserID(m_uid);
  m_uid = idh_cpUserID(id);
  m_isGroupIdentity = false;
  char name[128];
  std::size_t len = 0;
  osrec e;
  if (osl_iddb_get_user_name_by_id(ctx(), &e, 0, m_uid, name, sizeof name, &len) != 0)
    fail("Exception: User Identity Construction failed with osl_user_id: " + std::to_string(id->uid),
         "no name for osl_user_id value found");
  userName = name;
}

void Identity::constructGroupIdentity(osl_privgrp_id* id) {
  m_isGroupIdentity = true;
  groups.push_back(idh_cpPrivGrpID(id));
  char name[128];
  std::size_t len = 0;
  osrec e;
  if (osl_iddb_get_privgrp_name_by_id(ctx(), &e, 0, id, name, sizeof name, &len) != 0)
    fail("Exception: Group Identity Construction failed with osl_user_id: " + std::to_string(id->gid),
         "no name for osl_user_id value found");
  groupNames.push_back(name);
}

void Identity::setGroupIdentity(const std::string& groupName) {
  if (!isSuperUser() && !belongsToGroup(groupName))
    fail("Exception: setGroupIdentity failed while checking groupname: " + groupName,
         "user id does not belong to the group");
  groupNames.push_back(groupName);
  osl_privgrp_id* gid = idh_allocPrivGrpID();
  osrec e;
  if (osl_iddb_get_privgrp_id_by_name(ctx(), &e, 0, groupName.c_str(), gid) != 0) {
    idh_freePrivGrpID(gid);
    fail("Exception: setGroupIdentity failed while looking group id for  groupname: " + groupName,
         "unable to get the group id from the group name");
  }
  groups.push_back(gid);
}

bool Identity::isSuperUser() const {
  if (m_isGroupIdentity || m_uid == nullptr) return false;
  int privs = 0;
  osrec e;
  return osl_iddb_has_ha_privs(ctx(), &e, 0, m_uid, &privs) == 0 && privs != 0;
}

bool Identity::belongsToGroup(const std::string& groupName) const {
  osl_privgrp_id* gid = idh_allocPrivGrpID();
  osrec e;
  int member = 0;
  bool ok = m_uid != nullptr && osl_iddb_get_privgrp_id_by_name(ctx(), &e, 0, groupName.c_str(), gid) == 0 &&
            osl_iddb_is_a_privgrp_member_by_id(ctx(), &e, 0, m_uid, gid, &member) == 0;
  idh_freePrivGrpID(gid);
  return ok && member != 0;
}

osl_privgrp_id* Identity::getPrimaryGroup() const { return groups.empty() ? nullptr : groups.front(); }

std::string Identity::getPrimaryGroupName() const { return groupNames.empty() ? std::string() : groupNames.front(); }

bool Identity::operator==(const Identity& other) const {
  if (m_uid == nullptr) return other.m_uid == nullptr;
  if (other.m_uid == nullptr) return false;
  return osl_iddb_compare_user_id(m_uid, other.m_uid) == 0;
}

std::string Identity::toString() const {
  std::string s = userName + "/";
  for (const std::string& g : groupNames) s += g + ",";
  return s + "/GI=" + std::to_string(m_isGroupIdentity ? 1 : 0);
}

}  // namespace CAA
