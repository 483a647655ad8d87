#include "caa/smsec/identity.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <string>

#include "caa/smsec/auth_exception.h"

namespace CAA {
namespace {

TEST(IdentityTest, CurrentIdentityKnowsTheSuperuser) {
  Identity me = Identity::getCurrentIdentity();
  EXPECT_EQ(me.isSuperUser(), geteuid() == 0);
  EXPECT_NE(me.getPrimaryGroup(), nullptr);
  // The names come from the user and group databases, as `id` would show them.
  const passwd* pw = getpwuid(geteuid());
  ASSERT_NE(pw, nullptr);
  const group* gr = getgrgid(pw->pw_gid);
  ASSERT_NE(gr, nullptr);
  EXPECT_EQ(me.toString(), std::string(pw->pw_name) + "/" + gr->gr_name + ",/GI=0");

  Identity copy = me;
  Identity& same = copy;
  copy = same;  // assigned to itself
  EXPECT_TRUE(copy == me);
  EXPECT_EQ(copy.toString(), me.toString());
}

TEST(IdentityTest, GroupIdentityIsNeverASuperuser) {
  Identity root("root", true);
  EXPECT_FALSE(root.isSuperUser());
  EXPECT_EQ(root.getPrimaryGroupName(), "root");
  EXPECT_TRUE(Identity() == Identity());
  EXPECT_FALSE(Identity() == Identity("root", false));
}

TEST(IdentityTest, UnknownNamesAreInvalidIdentities) {
  try {
    Identity nobody("no-such-user-here", false);
    FAIL();
  } catch (const InvalidIdentity& e) {
    EXPECT_EQ(e.getExceptionMessage(), "Authorization Exception:The input identity no-such-user-here is invalid");
  }
  EXPECT_THROW(Identity("", false), InvalidIdentity);
  EXPECT_THROW(Identity("no-such-group-here", true), InvalidIdentity);
}

TEST(AuthExceptionTest, MessagesJoinPrefixAndText) {
  EXPECT_EQ(InvalidIdentity("user id does not belong to the group").getExceptionMessage(),
            "Authorization Exception:The input identity user id does not belong to the group is invalid");
  EXPECT_EQ(AclOperationFailure(7).getExceptionMessage(), "Authorization Exception:The Acl operation failed rc=7");
  EXPECT_EQ(SocketFailureException().getExceptionMessage(), "Authentication Exception:socket I/O failure");
  EXPECT_EQ(DuplicateAclEntryException("dup").getExceptionMessage(), "dup");
  const AuthorizationException& base = NoPrivilegeException();
  EXPECT_EQ(base.getExceptionMessage(),
            "Authorization Exception:User does not have sufficient privilege for the operation");
}

}  // namespace
}  // namespace CAA
