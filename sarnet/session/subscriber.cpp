#include "session/subscriber.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "base/log.h"
#include "base/strand.h"
#include "base/thread_keeper.h"
#include "base/unique_name.h"
#include "pictures/picture_converter.h"
#include "pictures/video_frame.h"

namespace sarnet {
namespace {

// The largest size with the picture's proportions inside the wanted one; never larger than the
// picture.
std::pair<int, int> fit(const Picture& picture, std::uint64_t wanted) {
  const auto max_width = static_cast<std::uint32_t>(wanted >> 32);
  const auto max_height = static_cast<std::uint32_t>(wanted);
  const double scale = std::min({1.0, max_width / static_cast<double>(picture.width()),
                                 max_height / static_cast<double>(picture.height())});
  return {std::max(1, static_cast<int>(std::lround(picture.width() * scale))),
          std::max(1, static_cast<int>(std::lround(picture.height() * scale)))};
}

}  // namespace

Subscriber::Subscriber(const Context& context, StreamInfo stream,
                       const srn_subscriber_callbacks& callbacks)
    : context_(context),
      stream_(std::move(stream)),
      slots_(callbacks),
      id_(unique_name("subscriber")) {}

std::shared_ptr<Subscription> Subscriber::bind(const void* session, std::shared_ptr<Strand> strand,
                                               std::shared_ptr<Engine> engine) {
  auto subscription = std::make_shared<Subscription>(shared_from_this(), session, std::move(strand),
                                                     std::move(engine));
  return binding_.bind(subscription) ? subscription : nullptr;
}

MediaPreferences Subscriber::preferences() const {
  const std::uint64_t size = max_resolution;
  const auto clamped = [](std::uint64_t side) {
    return static_cast<int>(std::min<std::uint64_t>(side, std::numeric_limits<int>::max()));
  };
  return {wants_audio, wants_video, clamped(size >> 32), clamped(size & 0xffffffff), max_framerate};
}

void Subscriber::preferences_changed() {
  if (const auto subscription = binding_.current()) subscription->prefer(preferences());
}

bool Subscriber::unbind(const void* session) { return binding_.unbind(session); }

void Subscriber::close() {
  binding_.close();
  gate_.close();
}

Subscription::Subscription(std::shared_ptr<Subscriber> subscriber, const void* session,
                           std::shared_ptr<Strand> strand, std::shared_ptr<Engine> engine)
    : subscriber_(std::move(subscriber)),
      context_(subscriber_->context()),
      session_(session),
      strand_(std::move(strand)),
      engine_(std::move(engine)),
      render_source_(std::make_shared<RenderSource>()) {
  auto& total = context_.counters;
  auto& own = subscriber_->counters();
  const auto& slots = subscriber_->slots();
  if (slots.on_audio_data != nullptr) {
    audio_ = std::make_unique<DeliveryQueue<AudioBlock>>(kAudioQueue, own.audio, total.audio);
  }
  if (slots.on_render_frame != nullptr) {
    pictures_ =
        std::make_unique<DeliveryQueue<PictureRef>>(kPictureQueue, own.pictures, total.pictures);
  }
  if (slots.on_caption_text != nullptr) {
    captions_ =
        std::make_unique<DeliveryQueue<Caption>>(kCaptionQueue, own.captions, total.captions);
  }
}

void Subscription::begin() {
  start_threads();
  context_.audio_device.render().add(render_source_);
  engine_->subscribe(subscriber_->stream().id, shared_from_this());
  if (const MediaPreferences preferences = subscriber_->preferences();
      preferences != MediaPreferences{})
    prefer(preferences);
}

void Subscription::start_threads() {
  auto& keeper = ThreadKeeper::instance();
  if (audio_) {
    keeper.start("srn-audio", [self = shared_from_this()] { self->deliver_audio(); });
  }
  if (pictures_) {
    keeper.start("srn-video", [self = shared_from_this()] { self->deliver_pictures(); });
  }
  if (captions_) {
    keeper.start("srn-caption", [self = shared_from_this()] { self->deliver_captions(); });
  }
}

void Subscription::prefer(const MediaPreferences& preferences) {
  if (!ended_) engine_->prefer(shared_from_this(), preferences);
}

void Subscription::end() {
  if (ended_.exchange(true)) return;
  const auto self = shared_from_this();
  engine_->unsubscribe(self);
  context_.audio_device.render().remove(render_source_.get());
  if (audio_) audio_->close();
  if (pictures_) pictures_->close();
  if (captions_) captions_->close();
  subscriber_->forget(this);
}

void Subscription::session_over() {
  if (!subscriber_->is_current(this)) return;
  end();
  const EventGate::Pass pass(subscriber_->gate());
  const auto& slots = subscriber_->slots();
  if (pass && slots.on_disconnected != nullptr) {
    slots.on_disconnected(subscriber_->handle(), slots.user_data);
  }
}

void Subscription::subscribed() {
  strand_->post([self = shared_from_this()] {
    const Subscriber& subscriber = *self->subscriber_;
    const EventGate::Pass pass(self->subscriber_->gate());
    if (!pass || !subscriber.is_current(self.get())) return;
    if (subscriber.slots().on_connected == nullptr) return;
    const LentStream stream(self->context_, subscriber.stream());
    subscriber.slots().on_connected(subscriber.handle(), subscriber.slots().user_data,
                                    stream.get());
  });
}

void Subscription::subscription_ended() {
  strand_->post([self = shared_from_this()] { self->session_over(); });
}

void Subscription::subscription_failed(int code, const std::string& text) {
  strand_->post([self = shared_from_this(), code, text] {
    if (!self->subscriber_->is_current(self.get())) return;
    self->end();
    const EventGate::Pass pass(self->subscriber_->gate());
    const auto& slots = self->subscriber_->slots();
    if (!pass || slots.on_error == nullptr) return;
    slots.on_error(self->subscriber_->handle(), slots.user_data, text.c_str(),
                   static_cast<srn_subscriber_error_code>(code));
  });
}

void Subscription::on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) {
  if (ended_ || !subscriber_->wants_audio) return;
  render_source_->write(format, samples, context_.audio_device.render().format());
  if (!audio_) return;
  while (!samples.empty()) {
    const auto part = samples.first(std::min(samples.size(), kMaxSamples));
    audio_->push([&](AudioBlock& block) {
      block.format = format;
      block.samples = part.size();
      std::copy(part.begin(), part.end(), block.data.begin());
    });
    samples = samples.subspan(part.size());
  }
}

void Subscription::on_picture(const PictureRef& picture) {
  if (ended_ || !pictures_ || !subscriber_->wants_video) return;
  if (const float rate = subscriber_->max_framerate; rate > 0) {
    const auto now = Clock::now();
    const auto period = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1.0 / static_cast<double>(rate)));
    // Up to a quarter of the period early counts as due, or jitter would drop every other picture.
    if (now < next_picture_ - period / 4) return;
    next_picture_ = std::max(next_picture_ + period, now);
  }
  pictures_->push([&](PictureRef& slot) { slot = picture; });
}

void Subscription::on_caption(std::string_view text, bool is_final) {
  if (ended_ || !captions_ || !subscriber_->wants_captions) return;
  captions_->push([&](Caption& caption) {
    caption.text.assign(text);
    caption.is_final = is_final;
  });
}

void Subscription::deliver_audio() {
  const auto& slots = subscriber_->slots();
  auto& meter = context_.counters.audio_callbacks;
  AudioBlock block;
  Clock::time_point ready;
  while (audio_->pop(block, ready)) {
    const auto channels = static_cast<std::size_t>(block.format.channels);
    const srn_audio_data data{block.data.data(), 16, block.format.rate, channels,
                              block.samples / channels};
    const CallbackTimer timer(meter, ready);
    slots.on_audio_data(subscriber_->handle(), slots.user_data, &data);
  }
}

void Subscription::deliver_pictures() {
  const auto& slots = subscriber_->slots();
  auto& frames = context_.frames;
  auto& meter = context_.counters.picture_callbacks;
  PicturePool scaled_pool(2);
  PictureRef picture;
  Clock::time_point ready;
  while (pictures_->pop(picture, ready)) {
    if (const std::uint64_t wanted = subscriber_->max_resolution; wanted != 0) {
      const auto [width, height] = fit(*picture, wanted);
      if (width != picture->width() || height != picture->height()) {
        PictureRef scaled = scaled_pool.acquire(width, height);
        if (scaled && PictureConverter::scale(picture->view(), scaled->mutable_view())) {
          picture = std::move(scaled);
        }
      }
    }
    // Lent for the callback: removed on every exit, also when the thread is unwound.
    struct Lent {
      HandleTable<VideoFrame, srn_video_frame>& table;
      srn_video_frame* handle;
      ~Lent() { table.remove(handle, HandleOwner::kLibrary); }
    };
    const Lent lent{
        frames, frames.add(VideoFrame::make(std::exchange(picture, {})), HandleOwner::kLibrary)};
    if (lent.handle != nullptr) {
      const CallbackTimer timer(meter, ready);
      slots.on_render_frame(subscriber_->handle(), slots.user_data, lent.handle);
    }
  }
}

void Subscription::deliver_captions() {
  const auto& slots = subscriber_->slots();
  auto& meter = context_.counters.caption_callbacks;
  Caption caption;
  Clock::time_point ready;
  while (captions_->pop(caption, ready)) {
    const CallbackTimer timer(meter, ready);
    slots.on_caption_text(subscriber_->handle(), slots.user_data, caption.text.c_str(),
                          caption.is_final ? SRN_TRUE : SRN_FALSE);
  }
}

}  // namespace sarnet
