#ifndef CAA_SMSEC_AUTH_EXCEPTION_H
#define CAA_SMSEC_AUTH_EXCEPTION_H

// Failures of authentication and authorization. The message is the class family's prefix and
// the particular text joined with nothing between them.
#include <string>

namespace CAA {

class AuthenticationException {
 public:
  AuthenticationException() : exceptionMsg("Authentication Exception:") {}
  virtual ~AuthenticationException() = default;
  virtual std::string getExceptionMessage() const { return exceptionMsg; }

 protected:
  std::string exceptionMsg;
};

class AuthorizationException {
 public:
  AuthorizationException() : exceptionMsg("Authorization Exception:") {}
  virtual ~AuthorizationException() = default;
  virtual std::string getExceptionMessage() const { return exceptionMsg; }

 protected:
  std::string exceptionMsg;
};

// A class whose text is fixed, or given to its constructor.
#define CAA_AUTH_EXCEPTION(Name, Base, text)                                                 \
  class Name : public Base {                                                                 \
   public:                                                                                   \
    Name() : exceptionMsg(text) {}                                                           \
    explicit Name(const std::string& t) : exceptionMsg(t) {}                                 \
    std::string getExceptionMessage() const override { return Base::exceptionMsg + exceptionMsg; } \
                                                                                             \
   protected:                                                                                \
    std::string exceptionMsg;                                                                \
  };

CAA_AUTH_EXCEPTION(UnexpectedAuthMsgException, AuthenticationException, "unexpected authentication message received")
CAA_AUTH_EXCEPTION(UnknownAuthMsgException, AuthenticationException, "unknown message received")
CAA_AUTH_EXCEPTION(SocketFailureException, AuthenticationException, "socket I/O failure")
CAA_AUTH_EXCEPTION(ServerAuthException, AuthenticationException, "authentication server error")
CAA_AUTH_EXCEPTION(UserNotAuthenticatedException, AuthenticationException, "user not authenticated")
CAA_AUTH_EXCEPTION(IllFormatPermission, AuthorizationException, "Unknown or ill-formatted permission setting")
CAA_AUTH_EXCEPTION(IllegalPermissionOp, AuthorizationException, "The permission operation is not applicable")
CAA_AUTH_EXCEPTION(SIAFailure, AuthorizationException, "The SIA function failed")
CAA_AUTH_EXCEPTION(UnknownAclEntry, AuthorizationException, "Unknown Acl entry")
CAA_AUTH_EXCEPTION(AclFileCreationFailure, AuthorizationException, "Failed to create the Acl file")
CAA_AUTH_EXCEPTION(DefaultPermissionMissException, AuthorizationException, "The default permssion file is missing")
CAA_AUTH_EXCEPTION(NoPrivilegeException, AuthorizationException, "User does not have sufficient privilege for the operation")
CAA_AUTH_EXCEPTION(InvalidAclEntryString, AuthorizationException, "The Acl entry String is invalid")
CAA_AUTH_EXCEPTION(IllegalAclEntryType, AuthorizationException, "Illegal Acl entry Type")
CAA_AUTH_EXCEPTION(AuthorizeFileMissException, AuthorizationException, "Both register allow and deny files are missing.")
#undef CAA_AUTH_EXCEPTION

class InvalidIdentity : public AuthorizationException {
 public:
  InvalidIdentity() : exceptionMsg("The input identity is invalid") {}
  explicit InvalidIdentity(const std::string& id) : id(id), exceptionMsg("The input identity " + id + " is invalid") {}
  std::string getExceptionMessage() const override { return AuthorizationException::exceptionMsg + exceptionMsg; }
  const std::string& getId() const { return id; }

 protected:
  std::string id;
  std::string exceptionMsg;
};

class UsernameConflict : public AuthorizationException {
 public:
  UsernameConflict() : exceptionMsg("Username conflicts with the owner of the resource") {}
  explicit UsernameConflict(const std::string& name)
      : exceptionMsg("Username " + name + " conflicts with the owner of the resource") {}
  std::string getExceptionMessage() const override { return AuthorizationException::exceptionMsg + exceptionMsg; }

 protected:
  std::string exceptionMsg;
};

class GroupnameConflict : public AuthorizationException {
 public:
  GroupnameConflict() : exceptionMsg("Groupname conflicts with the primary group of the resource") {}
  explicit GroupnameConflict(const std::string& name)
      : exceptionMsg("Groupname " + name + " conflicts with the primary group of the resource") {}
  std::string getExceptionMessage() const override { return AuthorizationException::exceptionMsg + exceptionMsg; }

 protected:
  std::string exceptionMsg;
};

class AclOperationFailure : public AuthorizationException {
 public:
  AclOperationFailure() : exceptionMsg("The Acl operation failed") {}
  explicit AclOperationFailure(int rc) : exceptionMsg("The Acl operation failed rc=" + std::to_string(rc)) {}
  std::string getExceptionMessage() const override { return AuthorizationException::exceptionMsg + exceptionMsg; }

 protected:
  std::string exceptionMsg;
};

class AclInfoNotAvailable : public AuthorizationException {
 public:
  AclInfoNotAvailable() : exceptionMsg("The Acl information not available") {}
  explicit AclInfoNotAvailable(int rc) : exceptionMsg("The Acl information not available rc=" + std::to_string(rc)) {}
  std::string getExceptionMessage() const override { return AuthorizationException::exceptionMsg + exceptionMsg; }

 protected:
  std::string exceptionMsg;
};

// The one class whose message has no prefix.
class DuplicateAclEntryException : public AuthorizationException {
 public:
  explicit DuplicateAclEntryException(const std::string& text) : exceptionMsg(text) {}
  std::string getExceptionMessage() const override { return exceptionMsg; }

 protected:
  std::string exceptionMsg;
};

}  // namespace CAA

#endif
