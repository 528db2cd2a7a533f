#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "relay/media/sdp/negotiation.h"

namespace sarnet::relay::sdp {
namespace {

const std::string kHash =
    "20:85:77:76:12:58:50:24:F0:21:22:B5:93:F2:D2:0F:57:23:F0:50:89:27:F2:9F:B8:15:4F:FB:26:93:F1:"
    "5C";
const std::string kWay =
    "a=ice-ufrag:UBEu\r\na=ice-pwd:RUgPx+bQVQ4+/pZ05dBDob\r\na=setup:actpass\r\n";

// What a server offers to a subscriber: sound, pictures in three ways, text.
const std::string kHead =
    "v=0\r\no=- 17 1 IN IP4 192.0.2.2\r\ns=VideoRoom lobby\r\nt=0 0\r\na=group:BUNDLE 0 1 2\r\n"
    "a=ice-options:trickle\r\na=fingerprint:sha-256 " +
    kHash + "\r\na=msid-semantic: WMS *\r\n";
const std::string kAudio =
    "m=audio 9 UDP/TLS/RTP/SAVPF 111\r\nc=IN IP4 192.0.2.2\r\na=sendonly\r\na=mid:0\r\n"
    "a=rtcp-mux\r\n" +
    kWay +
    "a=rtpmap:111 opus/48000/2\r\na=rtcp-fb:111 transport-cc\r\n"
    "a=extmap:4 urn:ietf:params:rtp-hdrext:sdes:mid\r\na=extmap:5 urn:other\r\n"
    "a=fmtp:111 useinbandfec=1;stereo=1\r\na=msid:janus janus0\r\na=ssrc:2368494171 cname:janus\r\n"
    "a=candidate:1 1 udp 2015363583 127.0.0.1 22583 typ host\r\na=end-of-candidates\r\n";
const std::string kVideo =
    "m=video 9 UDP/TLS/RTP/SAVPF 98 96 99 97 95\r\na=sendonly\r\na=mid:1\r\n" + kWay +
    "a=rtpmap:96 VP8/90000\r\na=rtpmap:97 rtx/90000\r\na=fmtp:97 apt=96\r\n"
    "a=rtpmap:98 H264/90000\r\na=fmtp:98 packetization-mode=0\r\n"
    "a=rtpmap:99 H264/90000\r\na=fmtp:99 profile-level-id=42e01f; packetization-mode=1\r\n"
    "a=rtpmap:95 rtx/90000\r\na=fmtp:95 apt=98\r\n"
    "a=rtcp-fb:96 nack\r\na=rtcp-fb:* ccm fir\r\na=rtcp-fb:96 nack pli\r\n"
    "a=ssrc-group:FID 11 12\r\na=ssrc:11 cname:janus\r\na=ssrc:12 cname:janus\r\n";
const std::string kData = "m=application 9 UDP/DTLS/SCTP webrtc-datachannel\r\na=mid:2\r\n" + kWay +
                          "a=sctp-port:5000\r\n";
const std::string kOffer = kHead + kAudio + kVideo + kData;

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  const std::size_t at = text.find(what);
  return at == std::string::npos ? "nothing to replace" : text.replace(at, what.size(), by);
}

Description read(const std::string& text) {
  Description description;
  std::string error;
  EXPECT_TRUE(read_description(text, description, error)) << error << "\n" << text;
  return description;
}

TransportInfo own_info() {
  return {
      "ours", std::string(22, 'p'), {"sha-256", std::vector<std::uint8_t>(32, 7)}, Setup::kEither};
}

TEST(Descriptions, AreReadAsTheServerWritesThem) {
  const Description offer =
      read(kOffer + "a=candidate:1 1 udp 2015363583 127.0.0.1 22583 typ host\r\n");
  EXPECT_EQ(offer.transport.ufrag, "UBEu");
  EXPECT_EQ(offer.transport.pwd, "RUgPx+bQVQ4+/pZ05dBDob");
  EXPECT_EQ(offer.transport.fingerprint.hash.size(), 32U);
  EXPECT_EQ(offer.transport.fingerprint.hash.back(), 0x5C);
  EXPECT_EQ(offer.candidates,
            std::vector<std::string>{"candidate:1 1 udp 2015363583 127.0.0.1 22583 typ host"});
  EXPECT_TRUE(offer.end_of_candidates);
  ASSERT_EQ(offer.sections.size(), 3U);
  const Section& audio = offer.sections[0];
  EXPECT_EQ(audio.direction, Direction::kSend);
  ASSERT_EQ(audio.codecs.size(), 1U);
  EXPECT_EQ(audio.codecs[0].channels, 2);
  EXPECT_EQ(fmtp_value(audio.codecs[0], "STEREO"), "1");
  EXPECT_EQ(audio.ssrcs, std::vector<std::uint32_t>{2368494171});
  const Section& video = offer.sections[1];
  ASSERT_EQ(video.codecs.size(), 5U);
  EXPECT_EQ(video.codecs[0].payload, 98);
  EXPECT_EQ(video.codecs[1].feedback, (std::vector<std::string>{"nack", "ccm fir", "nack pli"}));
  EXPECT_EQ(video.retransmission_ssrc, 12U);
  EXPECT_EQ(offer.sections[2].sctp_port, 5000);
  // Data channels that wait for the rest of the bundle have port 0 until they are accepted.
  const std::string waiting = replaced(kOffer, "application 9", "application 0");
  EXPECT_EQ(find_section(read(waiting), Kind::kData), nullptr);
  EXPECT_NE(find_section(read(waiting + "a=bundle-only\r\n"), Kind::kData), nullptr);
}

TEST(Descriptions, AreRefusedByName) {
  struct Row {
    std::string text;
    std::string error;
  };
  std::string many = kHead;
  for (int i = 0; i < 33; ++i) many += "m=audio 0 X 0\r\na=mid:" + std::to_string(i) + "\r\n";
  const std::vector<Row> rows{
      {"", "it does not begin with v=0"},
      {"v=0\r\n", "it has no section that is accepted"},
      {kOffer + std::string(65536, 'x'), "it is too long"},
      {kOffer + "a=" + std::string(5000, 'x'), "a line is too long"},
      {kOffer + std::string("a=x\0y", 5), "it holds control characters"},
      {kOffer + "hello\r\n", "a line is none of a description"},
      {many, "it has too many sections"},
      {replaced(kOffer, "audio 9", "audio 99999"), "section 0: the port is none"},
      {replaced(kOffer, "SAVPF 111", "SAVPF 128"), "section 0: a payload type is none"},
      {replaced(kOffer, "98 96", "96 96"), "section 1: a payload type stands twice"},
      {replaced(kOffer, "SAVPF 111", ""), "section 0: the line m= is incomplete"},
      {replaced(kOffer, "ufrag:UBEu", "ufrag:UB u"), "section 0: ice-ufrag is none"},
      {replaced(kOffer, "a=ice-ufrag:UBEu\r\n", ""), "section 0 has no ice-ufrag or no ice-pwd"},
      {replaced(kOffer, "RUgPx+bQVQ4+/pZ05dBDob", "short"), "section 0: ice-pwd is none"},
      {replaced(kOffer, "sha-256", "md5"), "section 0 has no fingerprint that is understood"},
      {replaced(kOffer, ":5C", ""), "section 0 has no fingerprint that is understood"},
      {replaced(kOffer, "a=fingerprint", "a=x"), "section 0 has no fingerprint"},
      {replaced(kOffer, "a=setup:actpass", "a=setup:holdconn"), "section 0: setup is none"},
      {replaced(kOffer, "a=mid:1\r\n", ""), "section 1 has no mid"},
      {replaced(kOffer, "a=mid:1", "a=mid:0"), "section 1 has another's mid"},
      {replaced(kOffer, "BUNDLE 0 1 2", "BUNDLE 0 2"), "section 1 is not in the bundle"},
      {kOffer + "a=ice-ufrag:else\r\n", "section 2 has a transport of its own"},
      {replaced(kOffer, "opus/48000/2", "opus"), "section 0: rtpmap has no clock rate"},
      {kOffer + "a=ssrc:-1 cname:x\r\n", "section 2: ssrc is none"},
      {replaced(kOffer, "sctp-port:5000", "sctp-port:0"), "section 2: sctp-port is none"},
      {replaced(kOffer, "a=sctp-port:5000\r\n", ""), "section 2 has no sctp-port"}};
  for (const Row& row : rows) {
    Description description;
    std::string error;
    EXPECT_FALSE(read_description(row.text, description, error)) << row.error;
    EXPECT_EQ(error, row.error);
  }
}

TEST(Descriptions, FollowEachOtherInPlace) {
  const Description first = read(kOffer);
  EXPECT_EQ(fault_of_successor(first, first), "");
  const std::string tail = "m=audio 9 UDP/TLS/RTP/SAVPF 0\r\na=mid:9\r\n";
  const Description more = read(replaced(kOffer, "BUNDLE 0 1 2", "BUNDLE 0 1 2 9") + tail + kWay);
  EXPECT_EQ(fault_of_successor(first, more), "");
  EXPECT_EQ(fault_of_successor(more, first), "sections of the last one are missing");
  EXPECT_EQ(fault_of_successor(first, read(kHead + kVideo + kAudio + kData)),
            "section 0 was audio \"0\" and is now video \"1\"");
}

TEST(Answers, TakeWhatWeCanReceive) {
  const Description offer = read(kOffer);
  const Description made = make_answer(offer, own_info());
  // As the server reads it.
  const std::string text = write_description(made, 1, 2);
  const Description answer = read(text);
  EXPECT_EQ(fault_of_answer(offer, answer), "");
  EXPECT_EQ(answer.transport.setup, Setup::kPassive);
  EXPECT_EQ(answer.transport.fingerprint, own_info().fingerprint);
  EXPECT_EQ(answer.sections[0].direction, Direction::kReceive);
  EXPECT_FALSE(answer.sections[0].reduced_size);  // was not offered
  EXPECT_EQ(answer.sections[0].codecs[0].fmtp, "useinbandfec=1;stereo=1");
  ASSERT_EQ(answer.sections[0].extensions.size(), 1U);
  EXPECT_EQ(answer.sections[0].extensions[0].id, 4);
  std::vector<int> payloads;
  for (const Codec& codec : answer.sections[1].codecs) payloads.push_back(codec.payload);
  EXPECT_EQ(payloads, (std::vector<int>{96, 99, 97}));
  EXPECT_EQ(answer.sections[1].codecs[0].feedback, (std::vector<std::string>{"nack", "nack pli"}));
  EXPECT_EQ(answer.sections[2].max_message_size, kMaxText);
  // Nothing of ours in it: refused, and still in its place.
  const Description odd =
      make_answer(read(replaced(kOffer, "opus/48000/2", "PCMU/8000")), own_info());
  EXPECT_FALSE(read(write_description(odd, 1, 2)).sections[0].accepted);
  EXPECT_EQ(make_answer(read(replaced(
                            replaced(replaced(kOffer, "actpass", "passive"), "actpass", "passive"),
                            "actpass", "passive")),
                        own_info())
                .transport.setup,
            Setup::kActive);
}

TEST(Offers, SayWhatIsPublishedAndJudgeTheAnswer) {
  const Description made = make_offer({.data = true,
                                       .stereo = true,
                                       .dtx = true,
                                       .audio_ssrc = 5,
                                       .video_ssrc = 6,
                                       .cname = "someone"},
                                      own_info());
  const Description offer = read(write_description(made, 3, 1));
  ASSERT_EQ(offer.sections.size(), 3U);
  EXPECT_EQ(offer.sections[0].codecs[0].fmtp,
            "minptime=10;useinbandfec=1;stereo=1;sprop-stereo=1;usedtx=1");
  EXPECT_EQ(offer.sections[0].ssrcs, std::vector<std::uint32_t>{5});
  EXPECT_EQ(offer.sections[1].codecs[0].name, "VP8");
  EXPECT_EQ(offer.sections[1].codecs[1].name, "H264");
  EXPECT_EQ(offer.sections[1].direction, Direction::kSend);
  EXPECT_TRUE(offer.sections[1].reduced_size);
  EXPECT_EQ(offer.sections[2].mid, "application2");
  Description answer = make_answer(offer, own_info());
  EXPECT_EQ(fault_of_answer(offer, answer), "");
  answer.sections[1].codecs[0].name = "VP9";
  EXPECT_EQ(fault_of_answer(offer, answer), "section 1 has a codec that was not offered");
  answer.transport.setup = Setup::kEither;
  EXPECT_EQ(fault_of_answer(offer, answer), "it does not say who begins the DTLS handshake");
  answer.sections.pop_back();
  EXPECT_EQ(fault_of_answer(offer, answer), "it has another number of sections");
}

}  // namespace
}  // namespace sarnet::relay::sdp
