#include "ziputil/writing/SiblingFiles.h"

#include <atomic>
#include <cstdio>
#include <random>

namespace ziputil {

tal::CURI freshSibling(tal::IFileSystem* fileSystem, tal::CURI const& uri) {
  static std::atomic<unsigned long long> counter{0};
  std::random_device device;
  for (;;) {
    unsigned long long const n = (static_cast<unsigned long long>(device()) << 32) ^ device() ^ ++counter;
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".tmp-%016llx", n);
    tal::String const path = uri.getPath() + tal::String(suffix);
    auto present = [](bool has, tal::String const& value) { return has ? tal::TConstOptRef<tal::String>(value) : nullptr; };
    tal::CURI const sibling(uri.getScheme(), path, present(uri.hasUser(), uri.getUser()),
                            present(uri.hasPassword(), uri.getPassword()),
                            present(uri.hasAuthority(), uri.getHost()), uri.getPort(),
                            present(uri.hasQuery(), uri.getQuery()), nullptr);
    if (!fileSystem->exists(sibling)) return sibling;
  }
}

void removeQuietly(tal::IFileSystem* fileSystem, tal::CURI const& uri) noexcept {
  try {
    fileSystem->remove(uri);
  } catch (...) {
    // nothing more can be done for a file that cannot be removed
  }
}

} // namespace ziputil
