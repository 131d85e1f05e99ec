#include "ziputil/Methods.h"

#include "ziputil/codecs/EntryDecoder.h"

namespace ziputil {

std::string compressionMethodName(int method) { return codecs::methodName(method); }

bool canReadMethod(int method) { return codecs::canDecode(method); }

} // namespace ziputil
