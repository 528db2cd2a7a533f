#include "relay/peer/services.h"

namespace sarnet {
namespace relay {
namespace {

RelayServices lent;

}  // namespace

const RelayServices& services() { return lent; }

void set_services(const RelayServices& services) { lent = services; }

}  // namespace relay

// The plug-in's own side of core/log.h: the library's symbols are not to be seen from here.
bool log_enabled(LogLevel level) {
  return relay::lent.log_enabled != nullptr && relay::lent.log_enabled(level);
}

void write_log(LogLevel level, const std::string& text) { relay::lent.write_log(level, text); }

}  // namespace sarnet
