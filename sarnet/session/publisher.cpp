#include "session/publisher.h"

#include <system_error>
#include <utility>

#include "base/log.h"
#include "base/strand.h"
#include "base/unique_name.h"
#include "session/stream.h"

namespace sarnet {
namespace {

constexpr int kDefaultFps = 30;

}  // namespace

Publisher::Publisher(const Context& context, const srn_publisher_callbacks& callbacks,
                     const PublisherSettings& settings)
    : context_(context),
      table_(&callbacks),
      slots_(callbacks),
      settings_(settings),
      id_(unique_name("publisher")),
      video_(std::make_shared<VideoTrack>(context.counters)) {
  if (settings.capturer != nullptr) capturer_ = *settings.capturer;
}

void* Publisher::user_data() const { return __atomic_load_n(&table_->user_data, __ATOMIC_ACQUIRE); }

std::shared_ptr<Publication> Publisher::bind(const void* session, std::shared_ptr<Strand> strand,
                                             std::shared_ptr<Engine> engine) {
  auto publication = std::make_shared<Publication>(shared_from_this(), session, std::move(strand),
                                                   std::move(engine));
  return binding_.bind(publication) ? publication : nullptr;
}

bool Publisher::unbind(const void* session) { return binding_.unbind(session); }

bool Publisher::send_caption(std::string_view text, bool is_final) {
  if (!captions_) return false;
  const auto publication = binding_.current();
  return publication && publication->send_caption(text, is_final);
}

void Publisher::close() {
  binding_.close();
  gate_.close();
  stop_capturer();
}

bool Publisher::init_capturer(int& fps) {
  fps = kDefaultFps;
  if (!settings_.video_track) return true;
  stop_capturer();  // of a binding that has just ended
  srn_video_capturer* const handle = context_.capturers.add(video_, HandleOwner::kLibrary);
  if (handle == nullptr) return false;
  {
    const common::LockGuard lock(mutex_);
    capturer_handle_ = handle;
  }
  if (capturer_.init != nullptr && capturer_.init(handle, capturer_.user_data) == SRN_FALSE) {
    SARNET_LOG(kWarn, "Publisher " << id_ << ": the video capturer's init failed");
    return false;
  }
  srn_video_capturer_settings wanted{};
  if (capturer_.get_capture_settings != nullptr && !gate_.closed()) {
    if (capturer_.get_capture_settings(handle, capturer_.user_data, &wanted) == SRN_FALSE) {
      SARNET_LOG(kWarn, "Publisher " << id_ << ": the video capturer has no settings");
      return false;
    }
    if (wanted.fps > 0) fps = wanted.fps;
  }
  return true;
}

bool Publisher::start_capturer() {
  if (!settings_.video_track || capturer_.start == nullptr || gate_.closed()) return true;
  const srn_video_capturer* handle = nullptr;
  {
    const common::LockGuard lock(mutex_);
    handle = capturer_handle_;
  }
  if (handle == nullptr) return true;
  if (capturer_.start(handle, capturer_.user_data) != SRN_FALSE) return true;
  SARNET_LOG(kWarn, "Publisher " << id_ << ": the video capturer did not start");
  return false;
}

void Publisher::stop_capturer() {
  srn_video_capturer* handle = nullptr;
  {
    const common::LockGuard lock(mutex_);
    std::swap(handle, capturer_handle_);
  }
  if (handle == nullptr) return;
  if (capturer_.destroy != nullptr) capturer_.destroy(handle, capturer_.user_data);
  // Not earlier: the capturer's own thread may use the handle until destroy has returned.
  context_.capturers.remove(handle, HandleOwner::kLibrary);
}

Publication::Publication(std::shared_ptr<Publisher> publisher, const void* session,
                         std::shared_ptr<Strand> strand, std::shared_ptr<Engine> engine)
    : publisher_(std::move(publisher)),
      session_(session),
      strand_(std::move(strand)),
      engine_(std::move(engine)) {}

void Publication::begin() {
  strand_->post([self = shared_from_this()] { self->begin_on_strand(); });
}

void Publication::begin_on_strand() {
  const EventGate::Pass pass(publisher_->gate_);
  if (!pass || !publisher_->binding_.holds(this)) return;
  const PublisherSettings& settings = publisher_->settings();
  PublishRequest request{publisher_->id(),     settings.name,        settings.audio_track,
                         settings.video_track, kDefaultFps,          settings.stereo,
                         settings.opus_dtx,    publisher_->captions_};
  if (!publisher_->init_capturer(request.video_fps)) {
    failed(SRN_PUBLISHER_UNABLE_TO_PUBLISH, "The video capturer could not be initialised");
    return;
  }
  const auto stream = engine_->publish(request, shared_from_this());
  if (!stream) {
    failed(SRN_PUBLISHER_SESSION_DISCONNECTED, "The session is over");
    return;
  }
  bool ended = false;
  try {
    const common::LockGuard lock(mutex_);
    ended = ended_;
    if (!ended) {
      stream_ = stream;
      // Under the lock, so that end() finds either nothing or all of it.
      if (request.has_audio) {
        publisher_->context_.audio_device.capture().add(stream, settings.stereo);
      }
      if (request.has_video) publisher_->video_->connect(stream, request.video_fps);
    }
  } catch (const std::system_error& e) {
    failed(SRN_PUBLISHER_UNABLE_TO_PUBLISH,
           std::string("The captured audio cannot be carried: ") + e.what());
    return;
  }
  if (ended) {
    engine_->unpublish(stream);
    publisher_->stop_capturer();
    return;
  }
  if (!publisher_->start_capturer()) {
    failed(SRN_PUBLISHER_UNABLE_TO_PUBLISH, "The video capturer could not be started");
  }
}

void Publication::end() {
  std::shared_ptr<PublishedStream> stream;
  {
    const common::LockGuard lock(mutex_);
    if (ended_) return;
    ended_ = true;
    stream = std::exchange(stream_, nullptr);
  }
  if (stream) {
    publisher_->context_.audio_device.capture().remove(stream.get());
    publisher_->video_->connect(nullptr, kDefaultFps);
    engine_->unpublish(stream);
  }
  const auto self = shared_from_this();
  publisher_->binding_.forget(this);
  strand_->post([self] {
    const EventGate::Pass pass(self->publisher_->gate_);
    // Bound again in the meantime: the capturer is the new binding's.
    if (pass && self->publisher_->binding_.holds(nullptr)) self->publisher_->stop_capturer();
  });
}

bool Publication::send_caption(std::string_view text, bool is_final) {
  // Under the lock, so that captions of several threads go out one at a time; sinks only post.
  const common::LockGuard lock(mutex_);
  if (!stream_) return false;
  stream_->on_caption(text, is_final);
  return true;
}

void Publication::session_over() {
  if (publisher_->binding_.holds(this)) lost();
}

void Publication::lost() {
  end();
  const EventGate::Pass pass(publisher_->gate_);
  if (!pass) return;
  publisher_->stop_capturer();
  if (!std::exchange(announced_, false) || publisher_->slots_.on_stream_destroyed == nullptr) {
    return;
  }
  const LentStream stream(publisher_->context_, info_);
  publisher_->slots_.on_stream_destroyed(publisher_->handle(), publisher_->user_data(),
                                         stream.get());
}

void Publication::failed(int code, const std::string& text) {
  end();
  const EventGate::Pass pass(publisher_->gate_);
  if (!pass) return;
  publisher_->stop_capturer();
  if (publisher_->slots_.on_error == nullptr) return;
  publisher_->slots_.on_error(publisher_->handle(), publisher_->user_data(), text.c_str(),
                              static_cast<srn_publisher_error_code>(code));
}

void Publication::published(const StreamInfo& stream) {
  strand_->post([self = shared_from_this(), stream] {
    const EventGate::Pass pass(self->publisher_->gate_);
    if (!pass || !self->publisher_->binding_.holds(self.get())) return;
    self->info_ = stream;
    self->announced_ = true;
    const auto& publisher = *self->publisher_;
    if (publisher.slots_.on_stream_created == nullptr) return;
    const LentStream lent(publisher.context_, stream);
    publisher.slots_.on_stream_created(publisher.handle(), publisher.user_data(), lent.get());
  });
}

void Publication::unpublished() {
  strand_->post([self = shared_from_this()] { self->session_over(); });
}

void Publication::publication_failed(int code, const std::string& text) {
  strand_->post([self = shared_from_this(), code, text] {
    if (self->publisher_->binding_.holds(self.get())) self->failed(code, text);
  });
}

}  // namespace sarnet
