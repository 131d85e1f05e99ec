// Errors: the CError family, its property map and the framework functions
// that turn foreign exceptions into errors and report exceptions swallowed in
// destructors.
#pragma once

#include "tal/String.h"

#include <exception>
#include <map>
#include <string>
#include <typeinfo>

namespace tal {

/// String-to-string properties carried by every error, ordered by code unit.
class CProps : public CBase {
public:
  using Map = std::map<String, String, StringLess>;

  CProps() = default;
  CProps(std::initializer_list<std::pair<String const, String>> items) : m_map(items) {}

  /// Insert-or-overwrite access.
  String& operator[](String const& key) { return m_map[key]; }
  /// The value of `key`, or the empty string.
  String get(String const& key) const;
  bool has(String const& key) const { return m_map.count(key) != 0; }
  std::size_t size() const { return m_map.size(); }
  bool empty() const { return m_map.empty(); }
  Map const& items() const { return m_map; }
  bool operator==(CProps const& other) const { return m_map == other.m_map; }
  bool operator!=(CProps const& other) const { return !(*this == other); }

private:
  Map m_map;
};

/// The properties of an error about one resource: {"uri": uri.toString(true)}.
CProps uriProps(CURI const& uri);

/// Root of every error: message, context word, signed 64-bit code (-1 where
/// none), properties and an optional cause.
class CError : public std::exception, public CBase {
public:
  /// A non-null `cause` is copied (clone()), so it may live anywhere, the
  /// caller's stack included; copies of this error share that copy.
  CError(String const& message, String const& context, long long code, CProps const& props, CError const* cause);
  CError(CError const& other);
  CError& operator=(CError const&) = delete;
  ~CError() override;

  /// The message as UTF-8.
  char const* what() const noexcept override;
  /// A heap copy of this error's own class; the result holds the single reference.
  virtual P<CError> clone() const;
  /// Throws a copy of this error's own class.
  [[noreturn]] virtual void throwClone() const;
  /// The cause, or null.
  virtual P<CError> getCause() const;

  String const& getMessage() const { return m_message; }
  String const& getContext() const { return m_context; }
  long long getCode() const { return m_code; }
  CProps const& getProps() const { return m_props; }
  /// Addition: sets one property (insert or overwrite), for code that adds
  /// what it learnt to an error before passing it on.
  void setProp(String const& key, String const& value) { m_props[key] = value; }
  /// Addition: replaces the message, for code that passes an error on with
  /// what it knows about where it happened (what() follows).
  void setMessage(String const& message) { m_message = message; }

protected:
  /// For errors that copy another one: shares `cause` as copies do.
  struct SharedCause {};
  CError(SharedCause, String const& message, String const& context, long long code, CProps const& props,
         P<CError> const& cause);

private:
  String m_message;
  String m_context;
  long long m_code;
  CProps m_props;
  P<CError> m_cause;
  mutable std::string m_what;
};

/// I/O errors: context "IO", the code is a CIOError::Code.
class CIOError : public CError {
public:
  enum Code : std::int32_t {
    Unknown = 0,
    OpenFailed = 1,
    ReadFailed = 2,
    WriteFailed = 3,
    UnexpectedEnd = 4,
    CorruptData = 5,
    BadVersion = 6,
    SeekFailed = 7,
    MoveFailed = 8,
    DeleteFailed = 9,
    StreamClosed = 10,
    PositionNotAligned = 11,
    BufferNotAligned = 12,
    SetLengthFailed = 13,
    LockNotSupported = 14,
  };

  /// An empty `message` is replaced by getDefaultMessage(code).
  CIOError(Code code, String const& message, CProps const& props, CError const* cause);
  CIOError(CIOError const& other) = default;
  ~CIOError() override;

  /// The default message of `code`: codes 0-9 translated through the message
  /// catalogue when the table is first built, 10-13 as written, anything else
  /// empty. The table is built once, on the first call.
  static String getDefaultMessage(Code code);

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

/// A file-system failure: a copy of the wrapped error plus the property
/// "fileSysProblem" holding the problem's number.
class CFileSystemError : public CError {
public:
  enum Problem : std::int32_t {
    Unspecified = 0,
    NotFound = 1,
    AlreadyExists = 2,
    AccessDenied = 3,
    NotADirectory = 4,
    IsADirectory = 5,
    NotSupported = 6,
    InvalidName = 7,
  };

  CFileSystemError(Problem problem, CError const& error);
  CFileSystemError(CFileSystemError const& other) = default;
  ~CFileSystemError() override;

  /// The problem, read back from "fileSysProblem".
  Problem getProblem() const;

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

/// A bad argument: "Invalid argument passed to '<function>': <text>."
class CInvalidArgError : public CError {
public:
  CInvalidArgError(String const& function, String const& text, CProps const& props);
  CInvalidArgError(CInvalidArgError const& other) = default;
  ~CInvalidArgError() override;

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

/// A refused checked cast: "Error casting object 0x... of type A to type B."
class CCastError : public CError {
public:
  CCastError(IBase const* object, std::type_info const* targetType);
  CCastError(CCastError const& other) = default;
  ~CCastError() override;

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

/// An error describing a std::exception that is not a CError: its what() as
/// message, context "std::exception", code -1.
class CStdExceptionError : public CError {
public:
  explicit CStdExceptionError(std::exception const& e);
  CStdExceptionError(CStdExceptionError const& other) = default;
  ~CStdExceptionError() override;

  /// For a CError, a clone (same class, message, context, code, properties and
  /// cause); for any other exception, a CStdExceptionError describing it.
  /// Never null.
  static P<CError> exceptionToError(std::exception* e);

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

/// Handler for exceptions that destructors catch and swallow.
using DestructorExceptionHandler = void (*)(char const* className, std::exception& e, bool flag);

/// Reports an exception a destructor swallowed. The default handler writes one
/// line to standard error: "<className>: exception ignored in destructor: <what>".
void onExceptionInDestructorIgnored(char const* className, std::exception& e, bool flag);
/// Installs `handler` (null restores the default) and returns the previous one.
DestructorExceptionHandler setDestructorExceptionHandler(DestructorExceptionHandler handler);

} // namespace tal
