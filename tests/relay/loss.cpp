#include "relay/loss.h"

#include <dlfcn.h>
#include <srtp2/srtp.h>

#include <atomic>
#include <mutex>
#include <random>

namespace loopback {
namespace {

std::atomic<double> share{0};
std::atomic<int> lost_packets{0};
std::atomic<int> passed_packets{0};

bool is_lucky() {
  static std::mutex mutex;
  static std::minstd_rand random(1);
  const std::lock_guard lock(mutex);
  return std::uniform_real_distribution<>(0, 1)(random) >= share;
}

// What the library's function of that name does, or an error for a packet that is to be lost.
template <class Function>
srtp_err_status_t unprotect(const char* name, srtp_t context, void* packet, int* size) {
  const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
  const bool passes = share <= 0 || is_lucky();
  if (share > 0) ++(passes ? passed_packets : lost_packets);
  return passes ? real(context, packet, size) : srtp_err_status_auth_fail;
}

}  // namespace

PacketLoss::PacketLoss(double of_all) {
  lost_packets = 0;
  passed_packets = 0;
  share = of_all;
}

PacketLoss::~PacketLoss() { share = 0; }

int PacketLoss::lost() { return lost_packets; }

int PacketLoss::passed() { return passed_packets; }

}  // namespace loopback

// In front of the library's own, for everything in the process.
extern "C" {
__attribute__((visibility("default"))) srtp_err_status_t srtp_unprotect(srtp_t context,
                                                                        void* packet, int* size) {
  return loopback::unprotect<decltype(&srtp_unprotect)>("srtp_unprotect", context, packet, size);
}
__attribute__((visibility("default"))) srtp_err_status_t srtp_unprotect_rtcp(srtp_t context,
                                                                             void* packet,
                                                                             int* size) {
  return loopback::unprotect<decltype(&srtp_unprotect_rtcp)>("srtp_unprotect_rtcp", context, packet,
                                                             size);
}
}
