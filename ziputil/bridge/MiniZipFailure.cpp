#include "ziputil/bridge/MiniZipFailure.h"

namespace ziputil {

tal::CProps minizipFailureProps(tal::CURI const& uri, int result) {
  tal::CProps props = tal::uriProps(uri);
  props["result"] = tal::toString(result);
  return props;
}

void throwMinizipFailure(tal::P<tal::CError> const& bridgeError, int result, tal::CError const& fallback) {
  if (result == -1 && bridgeError) bridgeError->throwClone();
  fallback.throwClone();
  __builtin_unreachable(); // throwClone never returns; virtual calls lose the attribute
}

tal::P<tal::CError> writeFailure(tal::P<tal::CError> const& before, tal::P<tal::CError> const& after, int result,
                                 tal::CError const& fallback) {
  if (result == 0) return after != before ? after : nullptr;
  if (result == -1 && after) return after;
  return fallback.clone();
}

void throwOpenFailure(tal::P<tal::CError> const& bridgeError, tal::CError const& fallback) {
  throwMinizipFailure(bridgeError, -1, fallback); // no handle: whatever the bridge recorded is the cause
}

} // namespace ziputil
