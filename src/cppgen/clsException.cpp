#include "cppgen/clsException.h"

#include "platform/tfm/tfm.h"

namespace cls {

const char* const COMPID_AGENTS = "Agents";

Exception::Exception() : m_rc(0), m_msgId(0), m_severity(0) {}

Exception::Exception(const std::string& message) : m_message(message), m_rc(0), m_msgId(0), m_severity(0) {}

Exception::Exception(const std::string& message, const Exception& parentException)
    : m_message(message), m_rc(0), m_msgId(0), m_severity(0) {
  parentException.getEntireErrorStack(m_nestedErrorMessages);
}

Exception::Exception(const Exception& other) = default;
Exception& Exception::operator=(const Exception& other) = default;
Exception::~Exception() = default;

void Exception::selectLocale(const char* locale) const {
  if (locale != nullptr) {
    if (sfmclo(locale, m_locale.c_str()) != 0) {
      m_locale = locale;
      updateMessage(locale);
    }
  } else if (!m_locale.empty()) {
    m_locale.clear();
    updateMessage(nullptr);
  }
}

std::string Exception::what() const { return what(nullptr); }

std::string Exception::what(const char* locale) const {
  selectLocale(locale);
  return m_message;
}

const char* Exception::getText() const { return getText(nullptr); }

const char* Exception::getText(const char* locale) const {
  selectLocale(locale);
  return m_message.c_str();
}

std::string Exception::className() const { return "Exception"; }

void Exception::appendToHistory(const Exception& e) { m_nestedErrorMessages.push_back(Exception(e)); }

void Exception::appendToHistory(const NestedErrorHistory& history) {
  for (const Exception& e : history) m_nestedErrorMessages.push_back(e);
}

void Exception::getEntireErrorStack(NestedErrorHistory& history) const {
  // Sliced on purpose: the history keeps texts, not classes.
  Exception self(*this);
  self.m_nestedErrorMessages.clear();
  history.push_back(self);
  for (const Exception& e : m_nestedErrorMessages) history.push_back(e);
}

std::string Exception::getEntireErrorStack() const { return getEntireErrorStack(nullptr); }

std::string Exception::getEntireErrorStack(const char* locale) const {
  std::string all = what(locale);
  for (const Exception& e : m_nestedErrorMessages) {
    all += SEPARATOR;
    all += e.what(locale);
  }
  return all;
}

void Exception::print(std::ostream& o) const { o << className() << " : " << what(); }

void Exception::updateMessage(const char*) const {}

std::ostream& operator<<(std::ostream& o, const Exception& e) {
  e.print(o);
  return o;
}

}  // namespace cls
