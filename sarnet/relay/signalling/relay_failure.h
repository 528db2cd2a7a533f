#pragma once

#include <optional>
#include <string>

#include "relay/signalling/janus_reply.h"

namespace sarnet::relay {

// What a program gets: a code of the contract's enumerations and what happened at which step.
struct Failure {
  int code = 0;
  std::string text;
};

// What a reply means to a session, a publisher or a subscriber that was at `step` ("entering the
// room"). For replies that are not ok.
Failure session_failure(const std::string& step, const JanusReply& reply);
Failure publisher_failure(const std::string& step, const JanusReply& reply);
Failure subscriber_failure(const std::string& step, const JanusReply& reply);

}  // namespace sarnet::relay
