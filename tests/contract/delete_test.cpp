// What a delete promises: no callback of the handle starts once it has returned, it waits for a
// state event on another thread, and for nothing else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "contract/harness.h"

namespace contract {
namespace {

using namespace std::chrono_literals;

// A program with one of everything, media flowing. Members in an order that suits no delete.
struct Whole {
  explicit Whole(const std::function<void(Whole&)>& set_hooks = [](Whole&) {}) {
    program.join();
    stream = program.wait_for_stream();
    receiver = std::make_unique<Receiver>(stream->get());
    set_hooks(*this);
    srn_session_subscribe(program.handle, receiver->handle);
    srn_session_publish(program.handle, sender.handle);
  }
  bool flows() {
    return sender.log.await("created") &&
           eventually([this] { return receiver->audio_blocks() > 0 && receiver->pictures() > 0; });
  }

  Sender sender{{}};
  Participant program;
  std::shared_ptr<StreamCopy> stream;
  std::unique_ptr<Receiver> receiver;
};

TEST(Delete, WorksInEveryOrderAndEndsAllCallbacks) {
  LibraryUse library;
  std::string order = "prs";  // publisher, receiver, session
  do {
    SCOPED_TRACE(order);
    Whole whole;
    ASSERT_TRUE(whole.flows());
    long destroyed = 0;
    for (const char which : order) {
      if (which == 'p') {
        EXPECT_EQ(whole.sender.remove(), SRN_SUCCESS);
        destroyed = whole.sender.log.count("destroy");
      } else if (which == 'r') {
        EXPECT_EQ(whole.receiver->remove(), SRN_SUCCESS);
      } else {
        EXPECT_EQ(whole.program.remove(), SRN_SUCCESS);
      }
    }
    // One callback of each kind may have been under way.
    const std::size_t heard = whole.receiver->audio_blocks();
    const auto events = whole.program.log.lines();
    srn_destroy();
    srn_init(nullptr);
    EXPECT_EQ(destroyed, 1) << "destroy comes before the publisher's delete returns";
    EXPECT_LE(whole.receiver->audio_blocks(), heard + 1);
    EXPECT_EQ(whole.program.log.lines(), events);
    EXPECT_EQ(whole.program.log.count("disconnected"), 0) << "a delete leaves silently";
  } while (std::next_permutation(order.begin(), order.end()));
}

enum class Inside { kConnected, kStreamReceived, kSubscribed, kCreated, kStart, kAudio, kPicture };

class DeleteInside : public testing::TestWithParam<Inside> {};

// Everything, from inside one callback, whichever it is.
TEST_P(DeleteInside, ReturnsAndEndsAllCallbacks) {
  LibraryUse library;
  Participant program;
  Sender sender({});
  std::unique_ptr<Receiver> receiver;
  Latch done;
  std::atomic<bool> once{false};
  const auto delete_all = [&] {
    if (once.exchange(true)) return;
    if (receiver) receiver->remove();
    sender.remove();
    program.remove();
    done.open();
  };
  const auto hook = [&](Inside inside) {
    return inside == GetParam() ? std::function<void()>(delete_all) : nullptr;
  };
  program.on_connected = hook(Inside::kConnected);
  sender.on_created = hook(Inside::kCreated);
  sender.on_start = hook(Inside::kStart);
  program.on_stream_received = [&](const srn_stream* stream) {
    receiver = std::make_unique<Receiver>(stream);
    receiver->on_connected = hook(Inside::kSubscribed);
    receiver->on_audio = hook(Inside::kAudio);
    receiver->on_picture = hook(Inside::kPicture);
    srn_session_publish(program.handle, sender.handle);
    srn_session_subscribe(program.handle, receiver->handle);
    if (GetParam() == Inside::kStreamReceived) delete_all();
  };
  ASSERT_EQ(program.connect(), SRN_SUCCESS);
  ASSERT_TRUE(done.wait());
  const auto events = program.log.lines();
  EXPECT_EQ(srn_destroy(), SRN_SUCCESS);
  EXPECT_EQ(program.log.lines(), events);
  EXPECT_EQ(sender.log.count("destroy"), sender.log.count("init"));
}

INSTANTIATE_TEST_SUITE_P(Callbacks, DeleteInside,
                         testing::Values(Inside::kConnected, Inside::kStreamReceived,
                                         Inside::kSubscribed, Inside::kCreated, Inside::kStart,
                                         Inside::kAudio, Inside::kPicture));

// Runs `remove` on another thread while the callback `inside` stands still; returns whether it came
// back before the callback was let go.
bool returns_during(Inside inside, const std::function<void(Whole&)>& remove) {
  Latch entered;
  Latch release;
  Latch returned;
  std::atomic<bool> armed{false};
  const auto stand = [&] {
    if (!armed.exchange(false)) return;
    entered.open();
    release.wait();
  };
  Whole whole([&](Whole& self) {
    if (inside == Inside::kAudio) {
      self.receiver->on_audio = stand;
    } else {
      self.program.on_disconnected = stand;
    }
  });
  EXPECT_TRUE(whole.flows());
  armed = true;
  if (inside != Inside::kAudio) srn_session_disconnect(whole.program.handle);
  EXPECT_TRUE(entered.wait());
  std::thread deleter([&] {
    remove(whole);
    returned.open();
  });
  const bool early =
      returned.wait(inside == Inside::kAudio ? std::chrono::milliseconds(kDeadline) : 200ms);
  release.open();
  EXPECT_TRUE(returned.wait());
  deleter.join();
  return early;
}

TEST(Delete, WaitsForAStateEventOnAnotherThread) {
  LibraryUse library;
  EXPECT_FALSE(returns_during(Inside::kConnected, [](Whole& whole) { whole.program.remove(); }));
}

TEST(Delete, NeverWaitsForAMediaCallback) {
  LibraryUse library;
  EXPECT_TRUE(returns_during(Inside::kAudio, [](Whole& whole) {
    EXPECT_EQ(srn_session_unsubscribe(whole.program.handle, whole.receiver->handle), SRN_SUCCESS);
    whole.receiver->remove();
    EXPECT_EQ(srn_session_disconnect(whole.program.handle), SRN_SUCCESS);
    EXPECT_TRUE(whole.program.log.await("disconnected"));
    whole.program.remove();
  }));
}

// An interpreter that is going down ends the threads that ask for its lock.
TEST(Delete, GetsOverAThreadThatEndsInsideACallback) {
  LibraryUse library;
  for (const bool media : {true, false}) {
    std::atomic<bool> once{false};
    Latch entered;
    const auto end_thread = [&] {
      if (once.exchange(true)) return;
      entered.open();
      pthread_exit(nullptr);
    };
    Whole whole([&](Whole& self) {
      (media ? self.receiver->on_audio : self.sender.on_created) = end_thread;
    });
    EXPECT_TRUE(entered.wait());
    EXPECT_EQ(whole.receiver->remove(), SRN_SUCCESS);
    EXPECT_EQ(whole.sender.remove(), SRN_SUCCESS);
    EXPECT_EQ(whole.program.remove(), SRN_SUCCESS);
    EXPECT_EQ(srn_destroy(), SRN_SUCCESS);
    srn_init(nullptr);
  }
}

TEST(Handles, AreRefusedOnceDeletedOrOfAnotherKind) {
  LibraryUse library;
  srn_log_enable(SRN_LOG_LEVEL_DISABLED);
  Whole whole;
  srn_session* const session = whole.program.handle;
  srn_subscriber* const subscriber = whole.receiver->handle;
  srn_publisher* const publisher = whole.sender.handle;
  EXPECT_EQ(srn_stream_delete(reinterpret_cast<srn_stream*>(session)), 1011);
  EXPECT_EQ(srn_session_subscribe(session, reinterpret_cast<srn_subscriber*>(publisher)), 1011);
  int on_stack = 0;
  EXPECT_EQ(srn_session_disconnect(reinterpret_cast<srn_session*>(&on_stack)), 1011);
  // A connection that is the stream's is not the program's to delete.
  auto* const lent = const_cast<srn_connection*>(srn_stream_get_connection(whole.stream->get()));
  const std::string id = srn_connection_get_id(lent);
  EXPECT_EQ(srn_connection_delete(lent), 1011);
  EXPECT_EQ(srn_connection_get_id(lent), id);

  whole.receiver->remove();
  whole.sender.remove();
  whole.program.remove();
  const Participant next;  // must not be taken for the one that is gone
  EXPECT_EQ(srn_session_delete(session), 1011);
  EXPECT_EQ(srn_session_disconnect(session), 1011);
  EXPECT_EQ(srn_subscriber_delete(subscriber), 1011);
  EXPECT_EQ(srn_subscriber_get_subscriber_id(subscriber), nullptr);
  EXPECT_EQ(srn_publisher_delete(publisher), 1011);
  srn_log_enable(SRN_LOG_LEVEL_ERROR);
}

TEST(Delete, HoldsWhileThreadsDeliver) {
  LibraryUse library;
  Participant program;
  ASSERT_TRUE(program.join());
  const auto stream = program.wait_for_stream();
  const int times = on_server() ? 8 : 40;
  std::vector<std::thread> threads;
  std::atomic<int> rounds{0};
  for (int which = 0; which < 2; ++which) {
    threads.emplace_back([&] {
      for (int round = 0; round < times; ++round) {
        Receiver receiver(stream->get());
        if (srn_session_subscribe(program.handle, receiver.handle) != SRN_SUCCESS) return;
        if (round % 4 == 0 && !eventually([&] { return receiver.audio_blocks() > 0; })) return;
        if (round % 2 == 0) srn_session_unsubscribe(program.handle, receiver.handle);
        receiver.remove();
        ++rounds;
      }
    });
  }
  for (int round = 0; round < times / 4; ++round) {
    Sender sender({});
    ASSERT_EQ(srn_session_publish(program.handle, sender.handle), SRN_SUCCESS);
    if (round % 2 == 0) {
      ASSERT_TRUE(sender.log.await("created"));
    }
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(rounds, 2 * times);
}

}  // namespace
}  // namespace contract
