// Who is there when a test enters a room of a server: publishes what the companion of the embedded
// engine does, until the end of its input.
#include <sarnet/sarnet_captions.h>

#include <iostream>

#include "contract/harness.h"

int main() {
  using namespace std::chrono_literals;
  constexpr int kWidth = 640;
  constexpr int kHeight = 480;
  contract::Device device;
  contract::LibraryUse library;
  contract::Participant self;
  contract::Sender sender({.captions = true});
  if (!self.join() || !device.log.await("start_capturer") ||
      srn_session_publish(self.handle, sender.handle) != SRN_SUCCESS ||
      !sender.log.await("created")) {
    std::cerr << "the companion cannot publish\n";
    return 1;
  }
  contract::Sine sine(48000, 2, 440);
  const contract::Periodic sound(
      10ms, [&] { srn_audio_device_write_capture_data(sine.next(480).data(), 480); });
  std::vector<std::uint8_t> bytes(kWidth * kHeight * 3 / 2, 128);
  const contract::Periodic pictures(33ms, [&, shade = std::uint8_t{0}]() mutable {
    std::fill_n(bytes.begin() + kWidth * kHeight / 2, kWidth * 40, shade += 3);
    sender.provide(kWidth, kHeight, bytes);
  });
  const contract::Periodic captions(500ms, [&] {
    srn_captions_send("Hello,", SRN_FALSE);
    srn_captions_send("Hello, this is your companion.", SRN_TRUE);
  });
  std::cout << "ready" << std::endl;
  std::cin.ignore(std::numeric_limits<std::streamsize>::max());
}
