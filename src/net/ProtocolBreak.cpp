#include "net/ProtocolBreak.h"

#include "platform/foundation/FatalError.h"
#include "settings/Settings.h"

namespace tarvo {

void protocolBreak(std::string_view message) {
  if (Settings::shared().deliveryOptions.get().dropsProtocolBreaks) throw ProtocolBreak{std::string(message)};
  platform::fatalError(message);
}

}  // namespace tarvo
