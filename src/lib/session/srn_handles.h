#pragma once

#include <sarnet/sarnet.h>

#include <memory>

/// Owners of the library's handles. Stateless, so that an owner is no larger than the bare pointer.
template <auto Delete>
struct SrnDeleter {
  template <class Handle>
  void operator()(Handle* handle) const {
    if (handle != nullptr) Delete(handle);
  }
};

using SrnSessionDeleter = SrnDeleter<srn_session_delete>;
using SRNSessionPtr = std::unique_ptr<srn_session, SrnSessionDeleter>;

using SrnStreamDeleter = SrnDeleter<srn_stream_delete>;
using SRNStreamPtr = std::unique_ptr<srn_stream, SrnStreamDeleter>;

using SrnConnectionDeleter = SrnDeleter<srn_connection_delete>;
using SrnConnectionPtr = std::unique_ptr<srn_connection, SrnConnectionDeleter>;

using SrnPublisherSettingsDeleter = SrnDeleter<srn_publisher_settings_delete>;
using SrnPublisherSettingsPtr =
    std::unique_ptr<srn_publisher_settings, SrnPublisherSettingsDeleter>;

using SrnPublisherDeleter = SrnDeleter<srn_publisher_delete>;
using SrnPublisherPtr = std::unique_ptr<srn_publisher, SrnPublisherDeleter>;

using SrnSubscriberDeleter = SrnDeleter<srn_subscriber_delete>;
using SrnSubscriberPtr = std::unique_ptr<srn_subscriber, SrnSubscriberDeleter>;

/// The library's texts may be null; null reads as the empty text.
inline const char* textOrEmpty(const char* text) { return text != nullptr ? text : ""; }
