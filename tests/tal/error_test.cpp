#include "tal/Error.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

using tal::CError;
using tal::CFileSystemError;
using tal::CIOError;
using tal::CProps;
using tal::String;

namespace {

std::string U(String const& s) { return s.toUTF8(); }

TEST(ErrorTest, ConstructorCopyAndWhat) {
  CError cause(String("cause"), String("c"), 5, CProps(), nullptr);
  CProps props{{"uri", "mem:/x"}, {"k", "v"}};
  CError e(String::fromUTF8("caf\xC3\xA9 failed"), String("ctx"), 42, props, &cause);
  EXPECT_EQ(U(e.getMessage()), "caf\xC3\xA9 failed");
  EXPECT_STREQ(e.what(), "caf\xC3\xA9 failed"); // UTF-8
  EXPECT_EQ(U(e.getContext()), "ctx");
  EXPECT_EQ(e.getCode(), 42);
  EXPECT_EQ(e.getProps(), props);
  ASSERT_NE(e.getCause(), nullptr);
  EXPECT_EQ(U(e.getCause()->getMessage()), "cause");
  CError copy(e);
  EXPECT_EQ(copy.getMessage(), e.getMessage());
  EXPECT_EQ(copy.getCause().get(), e.getCause().get()); // the cause is shared
  EXPECT_STREQ(copy.what(), e.what());
}

TEST(ErrorTest, DefaultMessagesOfEveryCode) {
  char const* const expected[] = {"Unknown I/O error.",
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
                                  "Error changing the size of a file."};
  for (int code = 0; code <= 13; ++code) {
    EXPECT_EQ(U(CIOError::getDefaultMessage(static_cast<CIOError::Code>(code))), expected[code]) << code;
    CIOError e(static_cast<CIOError::Code>(code), String(), CProps(), nullptr);
    EXPECT_EQ(U(e.getMessage()), expected[code]);
  }
  EXPECT_EQ(U(CIOError::getDefaultMessage(CIOError::LockNotSupported)), "");
  EXPECT_EQ(U(CIOError::getDefaultMessage(static_cast<CIOError::Code>(-1))), "");
  EXPECT_EQ(U(CIOError::getDefaultMessage(static_cast<CIOError::Code>(INT_MAX))), "");
  EXPECT_EQ(U(CIOError(CIOError::LockNotSupported, String(), CProps(), nullptr).getMessage()), "");
}

TEST(ErrorTest, IOErrorFields) {
  CIOError e(CIOError::WriteFailed, String(), CProps{{"uri", "u"}}, nullptr);
  EXPECT_EQ(U(e.getMessage()), "Error writing data.");
  EXPECT_EQ(U(e.getContext()), "IO");
  EXPECT_EQ(e.getCode(), 3);
  EXPECT_EQ(e.getProps(), (CProps{{"uri", "u"}}));
  EXPECT_EQ(U(CIOError(CIOError::ReadFailed, String("own"), CProps(), nullptr).getMessage()), "own");
}

TEST(ErrorTest, FileSystemErrorCopiesAndAddsTheProblem) {
  CError cause(String("root"), String(), -1, CProps(), nullptr);
  CIOError io(CIOError::ReadFailed, String("read"), CProps{{"uri", "u"}, {"fileSysProblem", "9"}}, &cause);
  CFileSystemError e(CFileSystemError::Unspecified, io);
  EXPECT_EQ(U(e.getMessage()), "read");
  EXPECT_EQ(U(e.getContext()), "IO");
  EXPECT_EQ(e.getCode(), CIOError::ReadFailed);
  EXPECT_EQ(e.getProps(), (CProps{{"uri", "u"}, {"fileSysProblem", "0"}}));
  EXPECT_EQ(e.getCause().get(), io.getCause().get());
  EXPECT_EQ(e.getProblem(), CFileSystemError::Unspecified);
  CFileSystemError n(CFileSystemError::NotSupported, CError(String("no"), String(), -1, CProps(), nullptr));
  EXPECT_EQ(U(n.getProps().get("fileSysProblem")), "6");
  EXPECT_EQ(n.getProblem(), CFileSystemError::NotSupported);
}

TEST(ErrorTest, InvalidArgumentMessage) {
  tal::CInvalidArgError e(String("CZipWriter::beginAddFile"), String("relativeURIInArchive is invalid"),
                          CProps{{"relativeURIInArchive", "/x"}});
  EXPECT_EQ(U(e.getMessage()),
            "Invalid argument passed to 'CZipWriter::beginAddFile': relativeURIInArchive is invalid.");
  EXPECT_EQ(U(e.getContext()), "");
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_EQ(e.getCause(), nullptr);
}

TEST(ErrorTest, CastErrorWithoutObjectOrType) {
  tal::CCastError e(nullptr, nullptr);
  EXPECT_EQ(U(e.getMessage()), "Error casting an unspecified object to an unspecified type.");
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_TRUE(e.getProps().empty());
}

template <class E> void expectCloneKeepsClass(E const& error) {
  tal::P<CError> clone = error.clone();
  ASSERT_NE(dynamic_cast<E*>(clone.get()), nullptr);
  CError const& cloned = *clone;
  EXPECT_EQ(typeid(cloned), typeid(E));
  EXPECT_EQ(clone->getRefCount(), 1);
  EXPECT_EQ(clone->getMessage(), error.getMessage());
  try {
    clone->throwClone();
  } catch (E const& caught) {
    EXPECT_EQ(typeid(caught), typeid(E));
    EXPECT_EQ(caught.getProps(), error.getProps());
    return;
  } catch (...) {
  }
  ADD_FAILURE() << typeid(E).name();
}

TEST(ErrorTest, CloneAndThrowCloneKeepTheDynamicClass) {
  expectCloneKeepsClass(CError(String("e"), String(), -1, CProps(), nullptr));
  expectCloneKeepsClass(CIOError(CIOError::SeekFailed, String(), CProps{{"uri", "u"}}, nullptr));
  expectCloneKeepsClass(
      CFileSystemError(CFileSystemError::NotSupported, CError(String("x"), String(), -1, CProps(), nullptr)));
  expectCloneKeepsClass(tal::CInvalidArgError(String("f"), String("t"), CProps()));
  expectCloneKeepsClass(tal::CCastError(nullptr, &typeid(int)));
  expectCloneKeepsClass(tal::CStdExceptionError(std::runtime_error("std")));
}

TEST(ErrorTest, ThrowCloneOfFileSystemErrorHeldAsBase) {
  tal::P<CError> held = CFileSystemError(CFileSystemError::Unspecified,
                                         CIOError(CIOError::ReadFailed, String("r"), CProps(), nullptr))
                            .clone();
  EXPECT_THROW(held->throwClone(), CFileSystemError);
}

TEST(ErrorTest, AssigningThePointerToTheSameErrorKeepsItAlive) {
  tal::P<CError> a = CError(String("alive"), String(), -1, CProps(), nullptr).clone();
  tal::P<CError> b = a;
  a = b;
  b = a;
  EXPECT_EQ(a->getRefCount(), 2);
  EXPECT_EQ(U(b->getMessage()), "alive");
}

TEST(ErrorTest, ExceptionToError) {
  CError cause(String("cause"), String(), -1, CProps(), nullptr);
  CFileSystemError original(CFileSystemError::NotSupported,
                            CIOError(CIOError::WriteFailed, String("w"), CProps{{"uri", "u"}}, &cause));
  tal::P<CError> converted = tal::CStdExceptionError::exceptionToError(&original);
  CError const& convertedError = *converted;
  ASSERT_EQ(typeid(convertedError), typeid(CFileSystemError));
  EXPECT_EQ(converted->getMessage(), original.getMessage());
  EXPECT_EQ(converted->getContext(), original.getContext());
  EXPECT_EQ(converted->getCode(), original.getCode());
  EXPECT_EQ(converted->getProps(), original.getProps());
  EXPECT_EQ(converted->getCause().get(), original.getCause().get());
  std::runtime_error foreign("plain failure");
  tal::P<CError> described = tal::CStdExceptionError::exceptionToError(&foreign);
  ASSERT_NE(described, nullptr);
  EXPECT_EQ(U(described->getMessage()), "plain failure");
  EXPECT_STREQ(described->what(), "plain failure");
  EXPECT_EQ(described->getCode(), -1);
}

std::string g_reported;

void recordingHandler(char const* className, std::exception& e, bool flag) {
  g_reported += std::string(className) + "|" + e.what() + "|" + (flag ? "1" : "0") + "\n";
}

void throwingHandler(char const*, std::exception&, bool) { throw std::logic_error("handler failed"); }

TEST(ErrorTest, DestructorReportsGoToStderrOrToAnInstalledHandler) {
  std::runtime_error e("boom");
  testing::internal::CaptureStderr();
  tal::onExceptionInDestructorIgnored("ziputil::CZipReader", e, true);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ziputil::CZipReader: exception ignored in destructor: boom\n");
  tal::DestructorExceptionHandler previous = tal::setDestructorExceptionHandler(&recordingHandler);
  tal::onExceptionInDestructorIgnored("X", e, true);
  EXPECT_EQ(g_reported, "X|boom|1\n");
  tal::setDestructorExceptionHandler(&throwingHandler);
  EXPECT_NO_THROW(tal::onExceptionInDestructorIgnored("Z", e, true)); // a report never throws
  EXPECT_EQ(tal::setDestructorExceptionHandler(nullptr), &throwingHandler); // null restores the default
  testing::internal::CaptureStderr();
  tal::onExceptionInDestructorIgnored("Y", e, true);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Y: exception ignored in destructor: boom\n");
  tal::setDestructorExceptionHandler(previous);
}

// ---- more of the error family --------------------------------------------------

struct CRecordingObject : tal::CBase {};

void expectFields(CError const& e, std::type_info const& type, std::string const& message, std::string const& context,
                  long long code, CProps const& props, CError const* cause) {
  EXPECT_EQ(typeid(e), type);
  EXPECT_EQ(U(e.getMessage()), message);
  EXPECT_EQ(U(e.getContext()), context);
  EXPECT_EQ(e.getCode(), code);
  EXPECT_EQ(e.getProps(), props);
  EXPECT_EQ(e.getCause().get(), cause);
}

TEST(ErrorTest, ACopyIsANewObjectSharingTheCause) {
  tal::P<CError> cause = CError(String("cause"), String(), -1, CProps(), nullptr).clone();
  tal::P<CError> held;
  {
    CError e(String("m"), String("c"), -7, CProps{{"a", "1"}}, cause.get());
    EXPECT_EQ(cause->getRefCount(), 1); // the error holds a copy of the cause, not the caller's object
    held = e.getCause();
    ASSERT_NE(held, nullptr);
    EXPECT_NE(held.get(), cause.get());
    EXPECT_EQ(U(held->getMessage()), "cause");
    EXPECT_EQ(held->getRefCount(), 2);
    CError copy(e);
    EXPECT_EQ(copy.getRefCount(), 1);
    EXPECT_EQ(held->getRefCount(), 3); // copies share it
    expectFields(copy, typeid(CError), "m", "c", -7, CProps{{"a", "1"}}, held.get());
    tal::P<CError> clone = e.clone();
    EXPECT_EQ(e.getRefCount(), 1); // cloning leaves the original's count alone
    EXPECT_EQ(clone->getRefCount(), 1);
    EXPECT_EQ(held->getRefCount(), 4);
  }
  EXPECT_EQ(held->getRefCount(), 1); // destroyed errors released it
}

TEST(ErrorTest, ACauseOnTheStackOutlivesItsScope) {
  tal::P<CError> error;
  {
    CIOError cause(CIOError::ReadFailed, String("on the stack"), CProps{{"uri", "mem:/c"}}, nullptr);
    error = CError(String("outer"), String(), -1, CProps(), &cause).clone();
  }
  tal::P<CError> cause = error->getCause();
  ASSERT_NE(cause, nullptr);
  CError const& copied = *cause;
  EXPECT_EQ(typeid(copied), typeid(CIOError)); // copied as its own class
  EXPECT_EQ(U(cause->getMessage()), "on the stack");
  EXPECT_EQ(cause->getProps(), (CProps{{"uri", "mem:/c"}}));
  EXPECT_EQ(cause->getRefCount(), 2);
}

TEST(ErrorTest, WhatOfTextThatCannotBeEncodedIsEmpty) {
  wchar_t const lone[] = {L'x', static_cast<wchar_t>(0xD800), 0};
  CError e(String(lone), String(), -1, CProps(), nullptr);
  EXPECT_STREQ(e.what(), "");
  CError empty(String(), String(), -1, CProps(), nullptr);
  EXPECT_STREQ(empty.what(), "");
}

TEST(ErrorTest, IOErrorKeepsPropertiesAndCauseAndStoresTheCodeUnsigned) {
  CError cause(String("below"), String(), -1, CProps(), nullptr);
  CIOError e(CIOError::LockNotSupported, String(), CProps{{"uri", "mem:/a"}}, &cause);
  expectFields(e, typeid(CIOError), "", "IO", 14, CProps{{"uri", "mem:/a"}}, e.getCause().get());
  ASSERT_NE(e.getCause(), nullptr);
  EXPECT_EQ(U(e.getCause()->getMessage()), "below");
  CIOError closed(CIOError::StreamClosed, String(), CProps(), nullptr);
  expectFields(closed, typeid(CIOError), "Error: stream has been closed.", "IO", 10, CProps(), nullptr);
  CIOError odd(static_cast<CIOError::Code>(-2), String(), CProps(), nullptr);
  EXPECT_EQ(odd.getCode(), 0xFFFFFFFELL); // extended without sign
  EXPECT_EQ(U(odd.getMessage()), "");
}

TEST(ErrorTest, FileSystemErrorWrappingAnotherOverwritesTheProblem) {
  CFileSystemError inner(CFileSystemError::NotSupported,
                         CError(String("n"), String(), -1, CProps{{"uri", "u"}}, nullptr));
  CFileSystemError outer(CFileSystemError::Unspecified, inner);
  expectFields(outer, typeid(CFileSystemError), "n", "", -1, (CProps{{"uri", "u"}, {"fileSysProblem", "0"}}), nullptr);
  EXPECT_EQ(outer.getProblem(), CFileSystemError::Unspecified);
  CFileSystemError plain(CFileSystemError::NotSupported, CError(String("x"), String("ctx"), 99, CProps(), nullptr));
  expectFields(plain, typeid(CFileSystemError), "x", "ctx", 99, CProps{{"fileSysProblem", "6"}}, nullptr);
}

TEST(ErrorTest, CastErrorMessagesWithOnlyOneSideKnown) {
  tal::CCastError noObject(nullptr, &typeid(CRecordingObject));
  EXPECT_EQ(U(noObject.getMessage()),
            std::string("Error casting an unspecified object to type ") + typeid(CRecordingObject).name() + ".");
  tal::P<CRecordingObject> object = tal::newObj<CRecordingObject>();
  tal::IBase const* asBase = object.get();
  char address[32];
  std::snprintf(address, sizeof address, "0x%016llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(asBase)));
  tal::CCastError noType(asBase, nullptr);
  EXPECT_EQ(U(noType.getMessage()), std::string("Error casting object ") + address + " of type " +
                                        typeid(CRecordingObject).name() + " to an unspecified type.");
  expectFields(noType, typeid(tal::CCastError), U(noType.getMessage()), "", -1, CProps(), nullptr);
  EXPECT_EQ(std::strlen(address), 18u); // "0x" and 16 hexadecimal digits
}

TEST(ErrorTest, ThrowCloneKeepsEveryField) {
  CError cause(String("c"), String(), -1, CProps(), nullptr);
  CIOError original(CIOError::SeekFailed, String("s"), CProps{{"result", "-104"}}, &cause);
  tal::P<CError> held = original.clone();
  try {
    held->throwClone();
  } catch (CIOError const& e) {
    expectFields(e, typeid(CIOError), "s", "IO", 7, CProps{{"result", "-104"}}, original.getCause().get());
    return;
  }
  ADD_FAILURE();
}

TEST(ErrorTest, ExceptionToErrorKeepsEveryErrorClass) {
  CIOError io(CIOError::ReadFailed, String(), CProps(), nullptr);
  tal::CInvalidArgError arg(String("f"), String("t"), CProps{{"k", "v"}});
  tal::CCastError cast(nullptr, nullptr);
  CError plain(String("p"), String(), -1, CProps(), nullptr);
  std::exception* const errors[] = {&io, &arg, &cast, &plain};
  for (std::exception* e : errors) {
    tal::P<CError> converted = tal::CStdExceptionError::exceptionToError(e);
    ASSERT_NE(converted, nullptr);
    CError const& convertedError = *converted;
    std::exception const& original = *e;
    EXPECT_EQ(typeid(convertedError), typeid(original));
    EXPECT_NE(static_cast<std::exception*>(converted.get()), e); // a copy, not the original
    EXPECT_EQ(converted->getRefCount(), 1);
    EXPECT_STREQ(converted->what(), e->what());
  }
}

TEST(ErrorTest, ExceptionToErrorDescribesAForeignException) {
  std::runtime_error foreign("d\xC3\xA9j\xC3\xA0 vu");
  tal::P<CError> described = tal::CStdExceptionError::exceptionToError(&foreign);
  ASSERT_NE(described, nullptr);
  expectFields(*described, typeid(tal::CStdExceptionError), "d\xC3\xA9j\xC3\xA0 vu", "std::exception", -1, CProps(),
               nullptr);
  EXPECT_EQ(described->getRefCount(), 1);
  EXPECT_THROW(described->throwClone(), tal::CStdExceptionError);
  std::bad_alloc noMemory;
  tal::P<CError> fromBadAlloc = tal::CStdExceptionError::exceptionToError(&noMemory);
  ASSERT_NE(fromBadAlloc, nullptr);
  EXPECT_EQ(U(fromBadAlloc->getMessage()), noMemory.what());
}

TEST(ErrorTest, PropertiesAreOrderedByCodeUnitAndOverwritten) {
  CProps props;
  props["b"] = String("2");
  props["B"] = String("1");
  props["a"] = String("3");
  props["b"] = String("4");
  ASSERT_EQ(props.size(), 3u);
  std::string order;
  for (auto const& item : props.items()) order += U(item.first) + "=" + U(item.second) + ";";
  EXPECT_EQ(order, "B=1;a=3;b=4;");
  EXPECT_EQ(U(props.get("missing")), "");
  EXPECT_FALSE(props.has("missing"));
  EXPECT_TRUE(props.has("B"));
  tal::CURI const uri(String("mem:/dir/x.zip"));
  EXPECT_EQ(tal::uriProps(uri), (CProps{{"uri", uri.toString(true)}}));
}

} // namespace
