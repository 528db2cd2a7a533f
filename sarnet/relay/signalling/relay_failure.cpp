#include "relay/signalling/relay_failure.h"

#include <sarnet/sarnet.h>

#include <algorithm>
#include <array>

#include "base/printable_text.h"

namespace sarnet::relay {
namespace {

std::string describe(const std::string& step, const JanusReply& reply) {
  switch (reply.outcome) {
    case JanusReply::Outcome::kTimedOut:
      return "The server did not answer in time while " + step;
    case JanusReply::Outcome::kMalformed:
      return "The server's answer cannot be used while " + step + ": " + reply.text;
    default:
      return "The server refused " + step + ": " + printable_text(reply.text) + " (" +
             std::to_string(reply.error) + ")";
  }
}

// The server reports missing tokens and pins as missing elements.
bool is_unauthorized(int error) {
  constexpr std::array kCodes{JanusError::kUnauthorized, JanusError::kUnauthorizedPlugin,
                              JanusError::kUnauthorizedInRoom, JanusError::kMissingElement};
  return std::ranges::find(kCodes, error) != kCodes.end();
}

}  // namespace

Failure session_failure(const std::string& step, const JanusReply& reply) {
  int code = SRN_SESSION_CONNECTION_FAILED;
  if (reply.outcome == JanusReply::Outcome::kTimedOut) {
    code = SRN_SESSION_CONNECTION_TIMED_OUT;
  } else if (is_unauthorized(reply.error)) {
    code = SRN_SESSION_AUTHORIZATION_FAILURE;
  } else if (reply.error == JanusError::kNoSuchRoom) {
    code = SRN_SESSION_INVALID_SESSION;
  }
  return {code, describe(step, reply)};
}

Failure publisher_failure(const std::string& step, const JanusReply& reply) {
  const int code = reply.outcome == JanusReply::Outcome::kTimedOut
                       ? SRN_PUBLISHER_TIMED_OUT
                       : SRN_PUBLISHER_UNABLE_TO_PUBLISH;
  return {code, describe(step, reply)};
}

Failure subscriber_failure(const std::string& step, const JanusReply& reply) {
  int code = SRN_SUBSCRIBER_WEBRTC_ERROR;
  if (reply.outcome == JanusReply::Outcome::kTimedOut) {
    code = SRN_SUBSCRIBER_TIMED_OUT;
  } else if (reply.error == JanusError::kNoSuchFeed) {
    code = SRN_SUBSCRIBER_SERVER_CANNOT_FIND_STREAM;
  }
  return {code, describe(step, reply)};
}

}  // namespace sarnet::relay
