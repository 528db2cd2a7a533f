#pragma once

#include <string>

#include "files/decoded_stream.h"
#include "plugins/file_plugin.h"

namespace sarnet {

class VideoFileReader final : public VideoReader {
 public:
  VideoFileReader(std::string path, int width, int height, double fps, bool loop,
                  Interrupted interrupted);

  // Decodes the first pictures, to learn the size and whether it is a still picture.
  bool open();
  int width() const override { return width_; }
  int height() const override { return height_; }
  double fps() const override { return fps_; }
  ReadStatus read(const MutablePictureView& target) override;
  double duration() const override { return still_ ? 0 : stream_.duration(); }
  const std::string& error() const override { return error_; }

 private:
  ReadStatus fail(const std::string& error);
  bool start_round();
  bool find_frame_rate();
  ReadStatus advance();
  bool fill_in_defaults();
  bool scale(const AVFrame& picture);

  const std::string path_;
  int width_;
  int height_;
  double fps_;
  const bool loop_;
  std::string error_;
  DecodedStream stream_;
  // The current picture and the next, with their times in seconds since the round's first.
  FramePtr shown_;
  FramePtr next_;
  double next_time_ = 0;
  bool has_next_ = false;
  double first_timestamp_ = 0;
  double frame_seconds_ = 0.04;  // how long the last picture of a round is shown
  double round_start_ = 0;       // when this round of the loop began, in seconds of the output
  std::int64_t reads_ = 0;
  bool still_ = false;
  bool failed_ = false;
  SwsPtr scaler_;
  FramePtr scaled_;  // padded as the scaler requires
  bool scaled_is_shown_ = false;
};

}  // namespace sarnet
