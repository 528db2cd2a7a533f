#include "relay/media/codecs/vp8_encoder.h"

#include <vpx/vp8cx.h>
#include <vpx/vpx_encoder.h>

#include <algorithm>

namespace sarnet::relay {
namespace {

constexpr int kSpeed = -12;
constexpr unsigned kStaticThreshold = 100;

class Vp8Encoder final : public VideoEncoder {
 public:
  explicit Vp8Encoder(int fps) : fps_(std::max(fps, 1)) {}
  ~Vp8Encoder() override { close(); }
  Vp8Encoder(const Vp8Encoder&) = delete;
  Vp8Encoder& operator=(const Vp8Encoder&) = delete;

  bool encode(const PictureView& picture, std::uint64_t bitrate, bool key_frame,
              const Output& output) override {
    const auto kilobits = static_cast<unsigned>(std::max<std::uint64_t>(bitrate / 1000, 1));
    if (!adapt(picture, kilobits)) return false;
    vpx_image_t image{};
    if (vpx_img_wrap(&image, VPX_IMG_FMT_I420, static_cast<unsigned>(picture.width),
                     static_cast<unsigned>(picture.height), 1,
                     const_cast<std::uint8_t*>(picture.y)) == nullptr) {
      return false;
    }
    image.planes[VPX_PLANE_U] = const_cast<std::uint8_t*>(picture.u);
    image.planes[VPX_PLANE_V] = const_cast<std::uint8_t*>(picture.v);
    image.stride[VPX_PLANE_Y] = picture.stride_y;
    image.stride[VPX_PLANE_U] = picture.stride_u;
    image.stride[VPX_PLANE_V] = picture.stride_v;
    const vpx_enc_frame_flags_t flags = key_frame ? VPX_EFLAG_FORCE_KF : 0;
    if (vpx_codec_encode(&codec_, &image, count_++, 1, flags, VPX_DL_REALTIME) != VPX_CODEC_OK) {
      return false;
    }
    vpx_codec_iter_t iterator = nullptr;
    while (const vpx_codec_cx_pkt_t* coded = vpx_codec_get_cx_data(&codec_, &iterator)) {
      if (coded->kind != VPX_CODEC_CX_FRAME_PKT) continue;
      output({static_cast<const std::uint8_t*>(coded->data.frame.buf), coded->data.frame.sz});
    }
    return true;
  }

 private:
  void close() {
    if (open_) vpx_codec_destroy(&codec_);
    open_ = false;
  }

  bool adapt(const PictureView& picture, unsigned kilobits) {
    const auto width = static_cast<unsigned>(picture.width);
    const auto height = static_cast<unsigned>(picture.height);
    if (open_ && width == config_.g_w && height == config_.g_h) {
      if (kilobits == config_.rc_target_bitrate) return true;
      config_.rc_target_bitrate = kilobits;
      return vpx_codec_enc_config_set(&codec_, &config_) == VPX_CODEC_OK;
    }
    close();
    if (vpx_codec_enc_config_default(vpx_codec_vp8_cx(), &config_, 0) != VPX_CODEC_OK) return false;
    config_.g_w = width;
    config_.g_h = height;
    config_.g_threads = 1;
    config_.g_timebase = {1, fps_};
    config_.g_lag_in_frames = 0;
    config_.g_error_resilient = 0;
    config_.g_pass = VPX_RC_ONE_PASS;
    config_.rc_end_usage = VPX_CBR;
    config_.rc_target_bitrate = kilobits;
    config_.rc_undershoot_pct = 95;
    config_.rc_buf_sz = 600;
    config_.rc_buf_initial_sz = 400;
    config_.rc_buf_optimal_sz = 500;
    config_.kf_mode = VPX_KF_AUTO;
    config_.kf_max_dist = 3000;
    if (vpx_codec_enc_init(&codec_, vpx_codec_vp8_cx(), &config_, 0) != VPX_CODEC_OK) return false;
    open_ = true;
    vpx_codec_control(&codec_, VP8E_SET_CPUUSED, kSpeed);
    vpx_codec_control(&codec_, VP8E_SET_STATIC_THRESHOLD, kStaticThreshold);
    return true;
  }

  const int fps_;
  vpx_codec_ctx_t codec_{};
  vpx_codec_enc_cfg_t config_{};
  bool open_ = false;
  vpx_codec_pts_t count_ = 0;
};

}  // namespace

std::unique_ptr<VideoEncoder> make_vp8_encoder(int fps) {
  return std::make_unique<Vp8Encoder>(fps);
}

}  // namespace sarnet::relay
