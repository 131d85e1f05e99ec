#include "tal/Error.h"

#include <gtest/gtest.h>

#include <climits>
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
  EXPECT_EQ(U(e.getMessage()), "Invalid argument passed to 'CZipWriter::beginAddFile': relativeURIInArchive is invalid.");
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
  EXPECT_EQ(typeid(*clone), typeid(E));
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
  expectCloneKeepsClass(CFileSystemError(CFileSystemError::NotSupported, CError(String("x"), String(), -1, CProps(), nullptr)));
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
  ASSERT_EQ(typeid(*converted), typeid(CFileSystemError));
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

} // namespace
