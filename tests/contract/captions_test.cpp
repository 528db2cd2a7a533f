// Captions that the program sends with its own stream.
#include <gtest/gtest.h>
#include <sarnet/sarnet_captions.h>

#include <string>

#include "contract/harness.h"

namespace contract {
namespace {

TEST(Captions, ReachSubscribersOfAStreamThatHasThem) {
  Meeting meeting;
  auto& [library, place, speaker, reader] = meeting;
  Sender silent({.video = false});
  Sender sender({.video = false, .captions = true});
  EXPECT_EQ(srn_publisher_send_caption(sender.handle, "too early", SRN_TRUE), 1015);
  ASSERT_EQ(srn_session_publish(speaker.handle, silent.handle), SRN_SUCCESS);
  EXPECT_EQ(srn_captions_send("not asked for", SRN_TRUE), 1015);
  ASSERT_TRUE(reader.wait_for_stream());
  ASSERT_EQ(srn_session_publish(speaker.handle, sender.handle), SRN_SUCCESS);
  const auto stream = reader.wait_for_stream(2);
  Receiver receiver(stream->get());
  ASSERT_TRUE(subscribe(reader, receiver));

  EXPECT_EQ(srn_publisher_send_caption(sender.handle, "", SRN_TRUE), 1011);
  const std::string longest(SRN_CAPTION_MAX_BYTES, 'x');
  EXPECT_EQ(srn_publisher_send_caption(sender.handle, (longest + 'x').c_str(), SRN_TRUE), 1011);
  // The way for captions may open a little later than that for media.
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(srn_publisher_send_caption(sender.handle, "Grüße", SRN_FALSE), SRN_SUCCESS);
    return receiver.log.count("draft Grüße") > 0;
  }));
  EXPECT_EQ(srn_captions_send(longest.c_str(), SRN_TRUE), SRN_SUCCESS);
  EXPECT_TRUE(receiver.log.await("caption " + longest));
  EXPECT_EQ(receiver.log.count("caption "), 1);

  EXPECT_EQ(srn_session_unpublish(speaker.handle, sender.handle), SRN_SUCCESS);
  EXPECT_EQ(srn_captions_send("too late", SRN_TRUE), 1015);
}

}  // namespace
}  // namespace contract
