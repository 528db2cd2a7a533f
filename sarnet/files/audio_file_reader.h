#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "files/decoded_stream.h"
#include "plugins/file_plugin.h"

namespace sarnet {

class AudioFileReader final : public AudioReader {
 public:
  AudioFileReader(std::string path, AudioFormat format, bool loop, Interrupted interrupted);

  // Decodes the first sound, to make sure that there is some.
  bool open();
  ReadStatus read(std::span<std::int16_t> samples, std::size_t& frames) override;
  double duration() const override { return stream_.duration(); }
  const std::string& error() const override { return error_; }

 private:
  ReadStatus fail(const std::string& error);
  bool start_round();
  ReadStatus fetch();
  bool prepare_conversion(const AVFrame& frame);
  bool convert(const AVFrame* frame);

  const std::string path_;
  const AudioFormat format_;
  const bool loop_;
  std::string error_;
  DecodedStream stream_;
  SwrPtr converter_;
  // What converter_ was made for.
  int source_rate_ = 0;
  int source_format_ = -1;
  int source_channels_ = 0;
  std::vector<std::int16_t> ready_;  // converted, from ready_position_ on not yet read
  std::size_t ready_position_ = 0;
  double heard_ = 0;  // seconds, in this round of the loop
  bool ended_ = false;
};

}  // namespace sarnet
