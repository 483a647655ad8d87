#ifndef CAA_SMSEC_IDENTITY_H
#define CAA_SMSEC_IDENTITY_H

// Who a user or a group is: an identity handle, the name, and the groups (the primary first).
// The command asks one question of it: whether the caller is a superuser.
// Failures are logged and thrown as InvalidIdentity.
#include <string>
#include <vector>

#include "platform/osl/osl.h"

namespace CAA {

class Identity {
 public:
  Identity();
  Identity(std::string name, bool group);
  explicit Identity(const osl_user_id* id);
  explicit Identity(const osl_privgrp_id* id);
  Identity(const Identity& other);
  Identity& operator=(const Identity& other);
  ~Identity();

  // The user who runs the process, with the primary group.
  static Identity getCurrentIdentity();

  void constructIdentity(osl_user_id* id);
  void constructGroupIdentity(osl_privgrp_id* id);
  void setGroupIdentity(const std::string& groupName);

  bool isSuperUser() const;
  bool belongsToGroup(const std::string& groupName) const;
  osl_user_id* getUser() const { return m_uid; }
  osl_privgrp_id* getPrimaryGroup() const;
  std::string getPrimaryGroupName() const;
  const std::string& getUserName() const { return userName; }
  bool operator==(const Identity& other) const;
  // "user/group,.../GI=0"
  std::string toString() const;

 private:
  void release();
  void copyFrom(const Identity& other);

  osl_user_id* m_uid;
  bool m_isGroupIdentity;
  std::string userName;
  std::vector<osl_privgrp_id*> groups;
  std::vector<std::string> groupNames;
};

}  // namespace CAA

#endif
