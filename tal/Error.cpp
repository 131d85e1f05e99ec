#include "tal/Error.h"

#include <wx/intl.h>
#include <wx/translation.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace tal {

CProps uriProps(CURI const& uri) {
  CProps props;
  props["uri"] = uri.toString(true);
  return props;
}


String CProps::get(String const& key) const {
  auto const it = m_map.find(key);
  return it == m_map.end() ? String() : it->second;
}

// ---- CError ---------------------------------------------------------------

CError::CError(String const& message, String const& context, long long code, CProps const& props, CError const* cause)
    : std::exception(), CBase(), m_message(message), m_context(context), m_code(code), m_props(props),
      m_cause(cause ? cause->clone() : P<CError>()) {} // the caller's cause may live on its stack

CError::CError(SharedCause, String const& message, String const& context, long long code, CProps const& props,
               P<CError> const& cause)
    : std::exception(), CBase(), m_message(message), m_context(context), m_code(code), m_props(props), m_cause(cause) {}

CError::CError(CError const& other)
    : std::exception(other), CBase(), m_message(other.m_message), m_context(other.m_context), m_code(other.m_code),
      m_props(other.m_props), m_cause(other.m_cause) {}

CError::~CError() = default;

char const* CError::what() const noexcept {
  try {
    m_what = m_message.toUTF8();
  } catch (...) {
    m_what.clear();
  }
  return m_what.c_str();
}

P<CError> CError::clone() const { return P<CError>::adopt(new CError(*this)); }

void CError::throwClone() const { throw CError(*this); }

P<CError> CError::getCause() const { return m_cause; }

// ---- CIOError -------------------------------------------------------------

namespace {

String defaultMessageFor(std::int32_t code) {
  static char const* const texts[14] = {
      "Unknown I/O error.",
      "Error opening file or stream.",
      "Error reading data.",
      "Error writing data.",
      "Unexpected end of data.",
      "The data is invalid or corrupted.",
      "Unsupported or invalid data version.",
      "Error seeking to new position.",
      "Error moving a file.",
      "Error deleting a file.",
      "Error: stream has been closed.",
      "Error: stream position is not aligned correctly.",
      "Error: buffer passed to stream is not aligned correctly.",
      "Error changing the size of a file.",
  };
  // Codes 0-9 go through the message catalogue; 10-13 are kept as written.
  struct Table {
    String aMessages[14];
    Table() {
      for (int i = 0; i < 10; ++i) aMessages[i] = String(wxGetTranslation(wxString(texts[i]), wxString()));
      for (int i = 10; i < 14; ++i) aMessages[i] = String(texts[i]);
    }
  };
  static Table const table;
  auto const index = static_cast<std::uint32_t>(code);
  return index <= 13 ? table.aMessages[index] : String();
}

} // namespace

CIOError::CIOError(Code code, String const& message, CProps const& props, CError const* cause)
    : CError(message.empty() ? getDefaultMessage(code) : message, String("IO"),
             static_cast<long long>(static_cast<std::uint32_t>(code)), props, cause) {}

CIOError::~CIOError() = default;

String CIOError::getDefaultMessage(Code code) { return defaultMessageFor(code); }

P<CError> CIOError::clone() const { return P<CError>::adopt(new CIOError(*this)); }

void CIOError::throwClone() const { throw CIOError(*this); }

// ---- CFileSystemError -----------------------------------------------------

namespace {

CProps withProblem(CProps props, CFileSystemError::Problem problem) {
  char text[32];
  std::snprintf(text, sizeof text, "%lld", static_cast<long long>(static_cast<std::uint32_t>(problem)));
  props["fileSysProblem"] = String(text);
  return props;
}

} // namespace

CFileSystemError::CFileSystemError(Problem problem, CError const& error)
    : CError(SharedCause(), error.getMessage(), error.getContext(), error.getCode(),
             withProblem(error.getProps(), problem), error.getCause()) {}

CFileSystemError::~CFileSystemError() = default;

CFileSystemError::Problem CFileSystemError::getProblem() const {
  long value = 0;
  if (!getProps().get("fileSysProblem").ToLong(&value)) return Unspecified;
  return static_cast<Problem>(value);
}

P<CError> CFileSystemError::clone() const { return P<CError>::adopt(new CFileSystemError(*this)); }

void CFileSystemError::throwClone() const { throw CFileSystemError(*this); }

// ---- CInvalidArgError -----------------------------------------------------

CInvalidArgError::CInvalidArgError(String const& function, String const& text, CProps const& props)
    : CError(String("Invalid argument passed to '") + function + String("': ") + text + String("."), String(), -1,
             props, nullptr) {}

CInvalidArgError::~CInvalidArgError() = default;

P<CError> CInvalidArgError::clone() const { return P<CError>::adopt(new CInvalidArgError(*this)); }

void CInvalidArgError::throwClone() const { throw CInvalidArgError(*this); }

// ---- CCastError -----------------------------------------------------------

namespace {

String typeName(std::type_info const& type) {
  char const* name = type.name();
  if (*name == '*') ++name;
  return String(name);
}

String castMessage(IBase const* object, std::type_info const* target) {
  String message;
  if (!object) {
    message = String("Error casting an unspecified object");
  } else {
    char address[32];
    std::snprintf(address, sizeof address, "0x%016llx",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(object)));
    message = String("Error casting object ") + String(address) + String(" of type ") + typeName(typeid(*object));
  }
  if (target)
    message += String(" to type ") + typeName(*target) + String(".");
  else
    message += String(" to an unspecified type.");
  return message;
}

} // namespace

CCastError::CCastError(IBase const* object, std::type_info const* targetType)
    : CError(castMessage(object, targetType), String(), -1, CProps(), nullptr) {}

CCastError::~CCastError() = default;

P<CError> CCastError::clone() const { return P<CError>::adopt(new CCastError(*this)); }

void CCastError::throwClone() const { throw CCastError(*this); }

// ---- CStdExceptionError ---------------------------------------------------

CStdExceptionError::CStdExceptionError(std::exception const& e)
    : CError(String::fromUTF8(e.what(), std::strlen(e.what())), String("std::exception"), -1, CProps(), nullptr) {}

CStdExceptionError::~CStdExceptionError() = default;

P<CError> CStdExceptionError::exceptionToError(std::exception* e) {
  if (auto const* error = dynamic_cast<CError*>(e)) return error->clone();
  if (!e) return P<CError>::adopt(new CError("Unknown exception.", "std::exception", -1, CProps(), nullptr));
  return P<CError>::adopt(new CStdExceptionError(*e));
}

P<CError> CStdExceptionError::clone() const { return P<CError>::adopt(new CStdExceptionError(*this)); }

void CStdExceptionError::throwClone() const { throw CStdExceptionError(*this); }

// ---- Exceptions swallowed in destructors ----------------------------------

namespace {

void writeToStderr(char const* className, std::exception& e, bool) {
  std::fprintf(stderr, "%s: exception ignored in destructor: %s\n", className ? className : "?", e.what());
}

std::atomic<DestructorExceptionHandler> g_destructorHandler{&writeToStderr};

} // namespace

void onExceptionInDestructorIgnored(char const* className, std::exception& e, bool flag) {
  try {
    g_destructorHandler.load()(className, e, flag);
  } catch (...) {
    // A report must never throw out of a destructor.
  }
}

DestructorExceptionHandler setDestructorExceptionHandler(DestructorExceptionHandler handler) {
  return g_destructorHandler.exchange(handler ? handler : &writeToStderr);
}

} // namespace tal
