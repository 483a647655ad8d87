#ifndef CPPGEN_CLSEXCEPTION_H
#define CPPGEN_CLSEXCEPTION_H

// The root of every failure the suite throws: a message, the locale it is written in, and a
// flat history of the exceptions that led to it, nearest first. The history keeps copies made
// as plain Exceptions: only a cause's text survives, not its class.
#include <cstdint>
#include <list>
#include <ostream>
#include <string>

namespace cls {

class Exception;
typedef std::list<Exception> NestedErrorHistory;

class Exception {
 public:
  static const char SEPARATOR = '\n';

  Exception();
  explicit Exception(const std::string& message);
  // The parent and its whole history go into this exception's history.
  Exception(const std::string& message, const Exception& parentException);
  Exception(const Exception& other);
  Exception& operator=(const Exception& other);
  virtual ~Exception();

  virtual std::string what() const;
  virtual std::string what(const char* locale) const;
  virtual const char* getText() const;
  virtual const char* getText(const char* locale) const;
  virtual std::string className() const;
  virtual void appendToHistory(const Exception& e);
  virtual void appendToHistory(const NestedErrorHistory& history);
  // Appends this exception and then its history.
  virtual void getEntireErrorStack(NestedErrorHistory& history) const;
  // This text and each cause's, one per line, with no line feed at the end.
  virtual std::string getEntireErrorStack() const;
  virtual std::string getEntireErrorStack(const char* locale) const;
  // className(), " : ", what().
  virtual void print(std::ostream& o) const;
  // Renders the message again in a locale; the base has nothing to render.
  virtual void updateMessage(const char* locale) const;

  const NestedErrorHistory& getNestedErrorMessages() const { return m_nestedErrorMessages; }
  std::int32_t getMsgId() const { return m_msgId; }
  void setMsgId(std::int32_t id) { m_msgId = id; }
  std::int32_t getRc() const { return m_rc; }
  void setRc(std::int32_t rc) { m_rc = rc; }
  std::int32_t getSeverity() const { return m_severity; }
  void setSeverity(std::int32_t s) { m_severity = s; }

 protected:
  // Brings m_locale to the asked one (null: the default), rendering again when it changes.
  void selectLocale(const char* locale) const;

  mutable std::string m_message;
  mutable std::string m_locale;
  NestedErrorHistory m_nestedErrorMessages;
  std::int32_t m_rc;
  std::int32_t m_msgId;
  std::int32_t m_severity;
};

std::ostream& operator<<(std::ostream& o, const Exception& e);

class NoMemoryException : public Exception {
 public:
  explicit NoMemoryException(const std::string& message) : Exception(message) {}
  std::string className() const override { return "NoMemoryException"; }
};

class BadIOException : public Exception {
 public:
  explicit BadIOException(const std::string& message) : Exception(message) {}
  std::string className() const override { return "BadIOException"; }
};

extern const char* const COMPID_AGENTS;

class IntException : public Exception {
 public:
  IntException(const std::string& message, int value, const std::string& component)
      : Exception(message), m_value(value), m_component(component) {}
  std::string className() const override { return "IntException"; }

 private:
  [[maybe_unused]] int m_value;  // carried for the thrower; nothing in this program reads it
  std::string m_component;
};

}  // namespace cls

#endif
