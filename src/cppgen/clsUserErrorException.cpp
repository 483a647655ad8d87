#include "cppgen/clsUserErrorException.h"

#include <sstream>

#include "caa/lib/messages.h"
#include "cppgen/clsAssert.h"
#include "cppgen/clsLog.h"
#include "platform/tfm/tfm.h"

namespace cls {

namespace {

const char kFacility[] = "VYN";
const int kBufLen = 2048;

const CLS_Debug::CLSlog& dbug() {
  static const CLS_Debug::CLSlog* s_dbug = new CLS_Debug::CLSlog("CLSCPPGEN");
  return *s_dbug;
}

void say(void (CLS_Debug::CLSlog::*how)(std::ostream&, CLS_Debug::DebugDetail,
                                        const CLS_Debug::CLSlogModule&, bool) const,
         CLS_Debug::DebugDetail dd, const std::string& text) {
  std::ostringstream os;
  os << text;
  (dbug().*how)(os, dd, CLS_Debug::CLSlogModule::getModuleNone(), false);
}

}  // namespace

void RefCountedDescriptor::delRef() {
  CLS_ASSERT(m_refCount > 0);
  if (--m_refCount == 0) {
    if (m_desc != nullptr) tfmdrm(m_desc);
    delete this;
  }
}

UserErrorException::UserErrorException(const Exception& cause, int msgId, ...)
    : Exception(std::string(), cause), m_tfmDesc(new RefCountedDescriptor) {
  va_list ap;
  va_start(ap, msgId);
  setUserErrorException(0, msgId, &ap);
  va_end(ap);
}

UserErrorException::UserErrorException(int msgId, ...) : m_tfmDesc(new RefCountedDescriptor) {
  va_list ap;
  va_start(ap, msgId);
  setUserErrorException(0, msgId, &ap);
  va_end(ap);
}

UserErrorException::UserErrorException(const std::string& message, int msgId)
    : Exception(message), m_tfmDesc(new RefCountedDescriptor) {
  setMsgId(msgId);
}

UserErrorException::UserErrorException(const Exception* cause)
    : Exception(std::string(), *cause), m_tfmDesc(new RefCountedDescriptor) {}

UserErrorException::UserErrorException(const std::string& message)
    : Exception(message), m_tfmDesc(new RefCountedDescriptor) {}

UserErrorException::UserErrorException() : m_tfmDesc(new RefCountedDescriptor) {}

UserErrorException::UserErrorException(const UserErrorException& other)
    : Exception(other), m_pureMessage(other.m_pureMessage), m_tfmDesc(other.m_tfmDesc) {
  m_tfmDesc->addRef();
}

UserErrorException& UserErrorException::operator=(const UserErrorException& other) {
  if (this == &other) return *this;
  Exception::operator=(other);
  m_pureMessage = other.m_pureMessage;
  m_tfmDesc->delRef();
  m_tfmDesc = other.m_tfmDesc;
  m_tfmDesc->addRef();
  say(&CLS_Debug::CLSlog::out, CLS_Debug::ALGO_FINE, " UserErrorException: in = with id:" + std::to_string(getMsgId()));
  return *this;
}

UserErrorException::~UserErrorException() { m_tfmDesc->delRef(); }

void UserErrorException::setUserErrorException(int rc, int msgId, va_list* pArgs) {
  tfmdsc* list = tfmdl();
  if (list == nullptr) {
    say(&CLS_Debug::CLSlog::log, CLS_Debug::NONE, " UserErrorException: Could not init tfm descriptor");
    return;
  }
  char text[kBufLen];
  int severity = 0;
  if (CAA::zelgetmsg(kFacility, msgId, text, kBufLen, &severity, nullptr) != 0) {
    char line[kBufLen];
    sfmprintf(line, sizeof line, "UserErrorException: BAD MSG ID in set :%d", msgId);
    say(&CLS_Debug::CLSlog::log, CLS_Debug::NONE, line);
    tfmdrm(list);
    return;
  }
  // Each conversion takes exactly one argument; anything else is reported and reads none.
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p != '%') continue;
    char conv = *++p;
    if (conv == '\0') break;
    switch (conv) {
      case 's': tfmdi(list, TFM_TEXT, va_arg(*pArgs, const char*)); break;
      case 'd': tfmdi(list, TFM_SB4, va_arg(*pArgs, int)); break;
      case 'u': tfmdi(list, TFM_UB4, va_arg(*pArgs, unsigned)); break;
      case 'f': tfmdi(list, TFM_FLOAT, static_cast<double>(static_cast<float>(va_arg(*pArgs, double)))); break;
      default:
        say(&CLS_Debug::CLSlog::error, CLS_Debug::NONE,
            " UserErrorException: UNSUPPORTED FORMAT SPECIFIER IN MESSAGE [" + std::to_string(msgId) + "]");
    }
  }
  if (m_tfmDesc->m_desc != nullptr) tfmdrm(m_tfmDesc->m_desc);
  m_tfmDesc->m_desc = list;
  setRc(rc);
  setMsgId(msgId);
  setSeverity(severity);
  updateMessage(m_locale.empty() ? nullptr : m_locale.c_str());
}

void UserErrorException::updateMessage(const char* pLocale) const {
  tfmdsc* list = m_tfmDesc->m_desc;
  if (list == nullptr)
    say(&CLS_Debug::CLSlog::out, CLS_Debug::NONE,
        " Error: UserErrorException: Message can not be updated,since tfmArgs is not correctly initted. "
        "Use correct contructor.");
  say(&CLS_Debug::CLSlog::out, CLS_Debug::NONE,
      std::string(" UserErrorException: Locale is ") + (pLocale != nullptr ? pLocale : "unspecified"));
  char text[kBufLen];
  if (CAA::zelgetmsg(kFacility, getMsgId(), text, kBufLen, nullptr, pLocale) != 0) {
    say(&CLS_Debug::CLSlog::log, CLS_Debug::NONE,
        " Error: UserErrorException bad msg id in update " + std::to_string(getMsgId()));
    return;
  }
  say(&CLS_Debug::CLSlog::out, CLS_Debug::ALGO_FINE, " UserErrorException: size of args is " + std::to_string(tfmdcnt(list)));
  char pure[kBufLen];
  int rc = tfmpd(pure, sizeof pure, text, list);
  if (rc < 0)
    say(&CLS_Debug::CLSlog::log, CLS_Debug::NONE, " Error: UserErrorException tfmpd failed: " + std::to_string(rc));
  m_pureMessage = pure;
  say(&CLS_Debug::CLSlog::out, CLS_Debug::ALGO_FINE, " UserErrorException: m_pureMessage is [" + m_pureMessage + "]");
  char full[kBufLen];
  sfmprintf(full, sizeof full, "%s-%4.4d: %s\n", kFacility, getMsgId(), pure);
  m_message = full;
  say(&CLS_Debug::CLSlog::out, CLS_Debug::ALGO_FINE, " UserErrorException: m_message is [" + m_message + "]");
}

std::string UserErrorException::getPureMessage() const { return getPureMessage(nullptr); }

std::string UserErrorException::getPureMessage(const char* locale) const {
  selectLocale(locale);
  return m_pureMessage;
}

}  // namespace cls
