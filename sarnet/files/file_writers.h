#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "files/file_io.h"
#include "plugins/file_plugin.h"

namespace sarnet {

class WavWriter final : public AudioWriter {
 public:
  WavWriter(std::string path, AudioFormat format);
  ~WavWriter() override;

  bool open();
  bool write(std::span<const std::int16_t> samples) override;
  bool close() override;
  const std::string& error() const override { return error_; }

 private:
  bool fail(int status);
  bool fail(const std::string& reason);
  bool state_length();

  const std::string path_;
  const AudioFormat format_;
  std::string error_;
  std::unique_ptr<FileIo> file_;  // outlives output_
  OutputPtr output_;              // null when closed or failed
  PacketPtr packet_;
  std::int64_t data_start_ = 0;     // where the samples begin, bytes
  std::int64_t frames_ = 0;         // written
  std::int64_t stated_frames_ = 0;  // what the header says
};

class Y4mWriter final : public VideoWriter {
 public:
  Y4mWriter(std::string path, int width, int height, int fps);
  ~Y4mWriter() override;

  bool open();
  bool write(const PictureView& picture) override;
  bool close() override;
  const std::string& error() const override { return error_; }

 private:
  bool fail(int status);
  bool fail(const std::string& reason);

  const std::string path_;
  const int width_;
  const int height_;
  const int fps_;
  std::string error_;
  std::unique_ptr<FileIo> file_;  // outlives output_
  OutputPtr output_;              // null when closed or failed
  CodecPtr wrapper_;              // the muxer takes frames wrapped in packets
  FramePtr frame_;
  PacketPtr packet_;
  std::int64_t pictures_ = 0;
};

}  // namespace sarnet
