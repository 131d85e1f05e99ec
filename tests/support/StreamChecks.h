// Checks of the errors streams throw, shared by the stream tests.
#pragma once

#include "tal/Stream.h"

#include <functional>
#include <string>

namespace testsupport {

/// Expects `call` to throw exactly a tal::CIOError (not a subclass) with `code`,
/// `message`, context "IO", properties `props` and no cause.
void expectIOError(std::function<void()> const& call, tal::CIOError::Code code, std::string const& message,
                   tal::CProps const& props);
/// As above, with the single property {"uri": uri.toString(true)}.
void expectIOError(std::function<void()> const& call, tal::CIOError::Code code, std::string const& message,
                   tal::CURI const& uri);

/// Expects every operation of a closed file-system stream but getURI to throw
/// CIOError StreamClosed with the default message and {"uri": uri}.
void expectClosedStreamRefusesAll(tal::IInOutStream& stream, tal::CURI const& uri);

} // namespace testsupport
