#include "ziputil/Version.h"

namespace ziputil {

char const* versionString() noexcept { return ZIPUTIL_VERSION_STRING; }

}  // namespace ziputil
