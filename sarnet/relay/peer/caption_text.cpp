#include "relay/peer/caption_text.h"

#include <glib.h>

#include <cstddef>
#include <nlohmann/json.hpp>

namespace sarnet::relay {

namespace {
constexpr std::size_t kMaxMessage = 65536;
}

std::string encode_caption(std::string_view text, bool is_final) {
  const nlohmann::json caption{{"type", "caption"}, {"text", text}, {"final", is_final}};
  return caption.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::optional<CaptionText> decode_caption(std::string_view message) {
  if (message.empty() || message.size() > kMaxMessage ||
      g_utf8_validate_len(message.data(), message.size(), nullptr) == FALSE) {
    return std::nullopt;
  }
  const nlohmann::json caption = nlohmann::json::parse(message, nullptr, false);
  if (!caption.is_object()) {
    return CaptionText{std::string(message), true};
  }
  const auto type = caption.find("type");
  const auto text = caption.find("text");
  if (type == caption.end() || *type != "caption" || text == caption.end() || !text->is_string()) {
    return std::nullopt;
  }
  const auto is_final = caption.find("final");
  return CaptionText{text->get<std::string>(),
                     is_final == caption.end() || !is_final->is_boolean() || is_final->get<bool>()};
}

}  // namespace sarnet::relay
