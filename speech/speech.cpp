#include "speech.h"

#include <samplerate.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <span>
#include <vector>

#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

namespace {

constexpr int kRate = TAVRIN_SPEECH_RATE;
constexpr int kBlock = TAVRIN_SPEECH_BLOCK;
constexpr int kLongestMs = 100;

struct DeleteResampler {
  void operator()(SRC_STATE* state) const { src_delete(state); }
};

}  // namespace

struct tavrin_speech {
  tavrin_speech();

  int Process(std::span<const std::int16_t> samples, int rate, int channels,
              std::int16_t* samples_out, tavrin_speech_block* blocks_out, int capacity);

 private:
  void Begin(int rate, int channels);
  tavrin_speech_block Judge(const float* block);

  int rate_ = 0;
  int channels_ = 0;
  std::unique_ptr<SRC_STATE, DeleteResampler> resampler_;
  std::unique_ptr<webrtc::AudioProcessing> processing_;
  webrtc::AudioFrame frame_;
  std::vector<float> mono_;
  // At 16 kHz: what is left of the last call, and what this one adds.
  std::vector<float> collected_;
  std::size_t held_ = 0;
};

tavrin_speech::tavrin_speech()
    : mono_(48000 * kLongestMs / 1000), collected_(kBlock + kRate * kLongestMs / 1000 + 64) {}

void tavrin_speech::Begin(int rate, int channels) {
  std::unique_ptr<SRC_STATE, DeleteResampler> resampler;
  if (rate != kRate) {
    int error = 0;
    resampler.reset(src_new(SRC_SINC_FASTEST, 1, &error));
    if (!resampler) throw std::bad_alloc();
  }
  std::unique_ptr<webrtc::AudioProcessing> processing(webrtc::AudioProcessing::Create());
  if (!processing) throw std::bad_alloc();
  processing->high_pass_filter()->Enable(true);
  processing->noise_suppression()->set_level(webrtc::NoiseSuppression::kModerate);
  processing->noise_suppression()->Enable(true);
  processing->voice_detection()->set_likelihood(webrtc::VoiceDetection::kLowLikelihood);
  processing->voice_detection()->Enable(true);
  resampler_ = std::move(resampler);
  processing_ = std::move(processing);
  rate_ = rate;
  channels_ = channels;
  held_ = 0;
}

int tavrin_speech::Process(std::span<const std::int16_t> samples, int rate, int channels,
                           std::int16_t* samples_out, tavrin_speech_block* blocks_out,
                           int capacity) {
  if (rate != rate_ || channels != channels_) Begin(rate, channels);
  const std::size_t frames = samples.size() / static_cast<std::size_t>(channels);
  if (channels == 1) {
    for (std::size_t i = 0; i < frames; ++i) mono_[i] = static_cast<float>(samples[i]) / 32768.0F;
  } else {
    for (std::size_t i = 0; i < frames; ++i) {
      mono_[i] = static_cast<float>(samples[2 * i] + samples[2 * i + 1]) / 65536.0F;
    }
  }
  if (resampler_) {
    SRC_DATA data{};
    data.data_in = mono_.data();
    data.input_frames = static_cast<long>(frames);
    data.data_out = collected_.data() + held_;
    data.output_frames = static_cast<long>(collected_.size() - held_);
    data.src_ratio = static_cast<double>(kRate) / rate_;
    if (src_process(resampler_.get(), &data) != 0) return -1;
    held_ += static_cast<std::size_t>(data.output_frames_gen);
  } else {
    std::copy_n(mono_.begin(), frames, collected_.begin() + static_cast<std::ptrdiff_t>(held_));
    held_ += frames;
  }
  int blocks = 0;
  std::size_t used = 0;
  for (; held_ - used >= kBlock && blocks < capacity; ++blocks, used += kBlock) {
    src_float_to_short_array(collected_.data() + used, samples_out + blocks * kBlock, kBlock);
    blocks_out[blocks] = Judge(collected_.data() + used);
  }
  std::copy(collected_.begin() + static_cast<std::ptrdiff_t>(used),
            collected_.begin() + static_cast<std::ptrdiff_t>(held_), collected_.begin());
  held_ -= used;
  return blocks;
}

tavrin_speech_block tavrin_speech::Judge(const float* block) {
  float power = 0;
  for (int i = 0; i < kBlock; ++i) power += block[i] * block[i];
  frame_.num_channels_ = 1;
  frame_.sample_rate_hz_ = kRate;
  frame_.samples_per_channel_ = kBlock;
  src_float_to_short_array(block, frame_.data_, kBlock);
  tavrin_speech_block result{};
  result.level = std::sqrt(power / kBlock);
  if (processing_->ProcessStream(&frame_) != 0) return result;
  result.probability = std::max(processing_->noise_suppression()->speech_probability(), 0.0F);
  result.voice = processing_->voice_detection()->stream_has_voice() ? 1 : 0;
  return result;
}

tavrin_speech* tavrin_speech_new() { return new (std::nothrow) tavrin_speech; }

void tavrin_speech_delete(tavrin_speech* detector) { delete detector; }

int tavrin_speech_process(tavrin_speech* detector, const int16_t* samples, int frames, int rate,
                          int channels, int16_t* samples_out, tavrin_speech_block* blocks_out,
                          int capacity) {
  if (detector == nullptr || rate < 8000 || rate > 48000 || channels < 1 || channels > 2 ||
      frames < 0 || frames > rate * kLongestMs / 1000 || capacity < kLongestMs / 10 + 2 ||
      (frames > 0 && samples == nullptr) || samples_out == nullptr || blocks_out == nullptr) {
    return -1;
  }
  try {
    return detector->Process({samples, static_cast<std::size_t>(frames) * channels}, rate, channels,
                             samples_out, blocks_out, capacity);
  } catch (const std::exception&) {
    return -1;
  }
}
