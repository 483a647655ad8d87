#ifndef CPPGEN_CLSUSERERROREXCEPTION_H
#define CPPGEN_CLSUSERERROREXCEPTION_H

// A failure told to the user as a numbered message of the catalog (facility "VYN"). The
// message's arguments are kept, shared between copies, so that the text can be rendered again
// in another locale long after the arguments are gone.
#include <cstdarg>

#include "cppgen/clsException.h"

struct tfmdsc;

namespace cls {

// The kept arguments, counted by the copies that share them.
struct RefCountedDescriptor {
  unsigned m_refCount = 1;
  tfmdsc* m_desc = nullptr;
  void addRef() { ++m_refCount; }
  void delRef();
};

class UserErrorException : public Exception {
 public:
  // The arguments follow the catalog text's conversions in order: %s a const char*,
  // %d an int, %u an unsigned, %f a double.
  UserErrorException(const Exception& cause, int msgId, ...);
  explicit UserErrorException(int msgId, ...);
  UserErrorException(const std::string& message, int msgId);
  explicit UserErrorException(const Exception* cause);
  explicit UserErrorException(const std::string& message);
  UserErrorException();
  UserErrorException(const UserErrorException& other);
  UserErrorException& operator=(const UserErrorException& other);
  ~UserErrorException() override;

  std::string className() const override { return "UserErrorException"; }
  void updateMessage(const char* locale) const override;
  // The text without the "VYN-nnnn: " prefix and the line feed.
  virtual std::string getPureMessage() const;
  virtual std::string getPureMessage(const char* locale) const;
  virtual void setUserErrorException(int rc, int msgId, va_list* pArgs);

 private:
  mutable std::string m_pureMessage;
  RefCountedDescriptor* m_tfmDesc;
};

}  // namespace cls

#endif
