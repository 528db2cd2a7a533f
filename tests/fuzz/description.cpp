// A server's session descriptions: an offer, and after a line "----" one that follows it. What is
// read must be good enough to be answered, and the answer must be understood by whoever reads the
// same way.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "relay/media/sdp/negotiation.h"

namespace {

using namespace sarnet::relay::sdp;

void require(bool holds) {
  if (!holds) __builtin_trap();
}

bool read(std::string_view text, Description& description) {
  std::string error;
  const bool good = read_description(text, description, error);
  require(good == error.empty());
  return good;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  constexpr std::string_view kNext = "\n----\n";
  const std::size_t end = text.find(kNext);
  Description offer;
  if (!read(text.substr(0, end), offer)) return 0;
  Description next;
  if (end != std::string_view::npos && read(text.substr(end + kNext.size()), next)) {
    fault_of_successor(offer, next);
    fault_of_answer(offer, next);
  }
  const TransportInfo own{
      "ours", std::string(22, 'p'), {"sha-256", std::vector<std::uint8_t>(32, 7)}, Setup::kEither};
  const Description answer = make_answer(offer, own);
  require(answer.sections.size() == offer.sections.size());
  Description again;
  // With nothing accepted it is no description that we would take ourselves.
  if (read(write_description(answer, 1, 1), again)) require(fault_of_answer(offer, again).empty());
  return 0;
}
