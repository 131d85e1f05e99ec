#include "StreamChecks.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace testsupport {

void expectIOError(std::function<void()> const& call, tal::CIOError::Code code, std::string const& message,
                   tal::CProps const& props) {
  try {
    call();
    ADD_FAILURE() << "no error thrown; expected: " << message;
  } catch (tal::CIOError const& e) {
    EXPECT_EQ(typeid(e), typeid(tal::CIOError));
    EXPECT_EQ(e.getCode(), code);
    EXPECT_EQ(e.getMessage().toUTF8(), message);
    EXPECT_EQ(e.getContext().toUTF8(), "IO");
    EXPECT_EQ(e.getProps(), props);
    EXPECT_EQ(e.getCause().get(), nullptr);
  }
}

void expectIOError(std::function<void()> const& call, tal::CIOError::Code code, std::string const& message,
                   tal::CURI const& uri) {
  expectIOError(call, code, message, tal::uriProps(uri));
}

void expectClosedStreamRefusesAll(tal::IInOutStream& s, tal::CURI const& uri) {
  char b[1];
  std::vector<std::pair<char const*, std::function<void()>>> const calls = {
      {"readLax", [&] { s.readLax(b, 1); }},
      {"read", [&] { s.read(b, 1); }},
      {"readAvailable", [&] { s.readAvailable(b, 1); }},
      {"waitReadable", [&] { s.waitReadable(0); }},
      {"isEndOfStream", [&] { s.isEndOfStream(); }},
      {"isEndOfStream_NonBlocking", [&] { s.isEndOfStream_NonBlocking(); }},
      {"write", [&] { s.write(b, 1, nullptr); }},
      {"writeKeepBuffer", [&] { s.writeKeepBuffer(tal::TConstBufferSlice<unsigned char>(nullptr, 0, 0), nullptr); }},
      {"createWriteBarrier", [&] { s.createWriteBarrier(nullptr); }},
      {"flush", [&] { s.flush(); }},
      {"setLength", [&] { s.setLength(0); }},
      {"seek", [&] { s.seek(0); }},
      {"getLength", [&] { s.getLength(); }},
      {"getPosition", [&] { s.getPosition(); }},
      {"lockRange", [&] { s.lockRange(0, 1, tal::IStreamBase::LockShared); }},
      {"close", [&] { s.close(); }},
  };
  for (auto const& call : calls) {
    SCOPED_TRACE(call.first);
    expectIOError(call.second, tal::CIOError::StreamClosed, "Error: stream has been closed.", uri);
  }
}

} // namespace testsupport
