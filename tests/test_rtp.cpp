// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
//
// RTP payloads: packer to depacketizer round trips for each format, and what
// loss, reordering, duplicates, late packets, wrap-around, silence gaps and
// invalid packets yield (play-out is written as one character per frame:
// the rate code, 'E' for an erasure); a capture round trip; a live stream
// over loopback UDP.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "kevrc/kevrc_rtp.h"
#include "tests/test_util.h"

namespace {

using Packet = std::vector<uint8_t>;

// Frame i: rate from `rates` (cycled), payload bytes i + j.
struct Frames {
  std::string rates;
  int count;
  int rate(int i) const { return rates[static_cast<size_t>(i) % rates.size()] - '0'; }
  uint8_t byte(int i, int j) const { return static_cast<uint8_t>(i + j); }
};

std::vector<Packet> pack(const kevrc_rtp_packer_config &cfg, const Frames &f) {
  int32_t err = 1;
  kevrc_rtp_packer *p = kevrc_rtp_packer_create(&cfg, &err);
  EXPECT_EQ(err, KEVRC_RTP_OK);
  std::vector<Packet> out;
  auto collect = [&] {
    Packet buf(KEVRC_RTP_MAX_PACKET_BYTES);
    for (int32_t n; (n = kevrc_rtp_packer_pull(p, buf.data(), static_cast<int32_t>(buf.size()), nullptr)) > 0;)
      out.emplace_back(buf.begin(), buf.begin() + n);
  };
  for (int i = 0; i < f.count; ++i) {
    uint8_t payload[22];
    for (int j = 0; j < 22; ++j) payload[j] = f.byte(i, j);
    EXPECT_EQ(kevrc_rtp_packer_push(p, f.rate(i), payload, kevrc_rtp_payload_bytes(f.rate(i))), KEVRC_RTP_OK);
    collect();
  }
  EXPECT_EQ(kevrc_rtp_packer_finish(p), KEVRC_RTP_OK);
  collect();
  kevrc_rtp_packer_delete(p);
  return out;
}

// Pushes the packets in order, pulling what is ready after each, then
// drains; checks every yielded payload against f.
std::string play(int32_t format, const std::vector<Packet> &packets, const Frames &f, int32_t window,
                 kevrc_rtp_counters *counters = nullptr, int32_t *last_status = nullptr) {
  const kevrc_rtp_depacketizer_config cfg = {format, 97, window};
  kevrc_rtp_depacketizer *d = kevrc_rtp_depacketizer_create(&cfg, nullptr);
  std::string out;
  kevrc_rtp_frame fr;
  auto pull = [&](int32_t drain) {
    while (kevrc_rtp_depacketizer_pull(d, drain, &fr) == 1) {
      const int i = static_cast<int>(out.size());
      out += fr.rate == KEVRC_RTP_RATE_ERASURE ? 'E' : static_cast<char>('0' + fr.rate);
      for (int j = 0; j < fr.bytes; ++j) EXPECT_EQ(fr.payload[j], f.byte(i, j)) << "frame " << i;
    }
  };
  for (const Packet &p : packets) {
    int32_t s = kevrc_rtp_depacketizer_push(d, p.data(), static_cast<int32_t>(p.size()));
    if (s == KEVRC_RTP_ERR_JUMP) {
      pull(1);
      s = kevrc_rtp_depacketizer_push(d, p.data(), static_cast<int32_t>(p.size()));
    }
    if (last_status != nullptr) *last_status = s;
    pull(0);
  }
  pull(1);
  if (counters != nullptr) kevrc_rtp_depacketizer_counters(d, counters);
  kevrc_rtp_depacketizer_delete(d);
  return out;
}

kevrc_rtp_packer_config interleaved(int32_t b, int32_t l) {
  return {KEVRC_RTP_FORMAT_INTERLEAVED, b, l, 0, 97, 0x1234, 100, 5000};
}

TEST(Rtp, HeaderFreeRateFollowsLength) {
  const Frames f{"431", 6};
  const std::vector<Packet> packets = pack({KEVRC_RTP_FORMAT_HEADER_FREE, 1, 0, 0, 97, 7, 0, 0}, f);
  ASSERT_EQ(packets.size(), 6u);
  for (size_t i = 0; i < packets.size(); ++i) {
    kevrc_rtp_header h;
    ASSERT_EQ(kevrc_rtp_parse_header(packets[i].data(), static_cast<int32_t>(packets[i].size()), &h), 0);
    EXPECT_EQ(h.payload_length, kevrc_rtp_payload_bytes(f.rate(static_cast<int>(i))));
    EXPECT_EQ(h.timestamp, 160 * i);
    EXPECT_EQ(h.marker, i == 0);
  }
  EXPECT_EQ(play(KEVRC_RTP_FORMAT_HEADER_FREE, packets, f, 4), "431431");
}

TEST(Rtp, RoundTripEveryBundleAndInterleave) {
  for (int32_t b : {1, 3, 32}) {
    for (int32_t l : {0, 1, 7}) {
      const Frames f{"4314", 100};
      kevrc_rtp_counters c;
      const std::string out = play(KEVRC_RTP_FORMAT_INTERLEAVED, pack(interleaved(b, l), f), f, 300, &c);
      std::string want;
      for (int i = 0; i < f.count; ++i) want += static_cast<char>('0' + f.rate(i));
      // The last interleave group is padded with blank frames.
      ASSERT_GE(out.size(), want.size());
      EXPECT_LT(out.size() - want.size(), static_cast<size_t>(l + 1)) << "B=" << b << " L=" << l;
      EXPECT_EQ(out, want + std::string(out.size() - want.size(), '0')) << "B=" << b << " L=" << l;
      EXPECT_EQ(c.lost + c.erasures + c.silence + c.invalid, 0);
    }
  }
}

// Packets are edited (dropped, moved, repeated) before the depacketizer
// sees them; 12 full-rate frames are sent.
struct Case {
  const char *name;
  int32_t b, l, window;
  std::vector<int> order;  // packet indices as delivered
  const char *want;
  int64_t lost, duplicates, late, reordered, erasures;
};

TEST(Rtp, LossReorderDuplicatesLate) {
  const Case cases[] = {
      {"bundle loss", 3, 0, 4, {0, 2, 3}, "444EEE444444", 1, 0, 0, 0, 3},
      {"interleave loss", 2, 1, 4, {0, 2, 3, 4, 5}, "4E4E44444444", 1, 0, 0, 0, 2},
      {"reordered", 1, 0, 4, {0, 2, 1, 3, 5, 4, 6, 7, 8, 9, 10, 11}, "444444444444", 0, 0, 0, 2, 0},
      {"duplicates", 2, 0, 4, {0, 1, 1, 2, 0, 3, 4, 5}, "444444444444", 0, 2, 0, 0, 0},
      // Packet 1 (frames 1, 3) comes after frame 1 was played: it fills frame 3.
      {"late", 2, 1, 4, {0, 2, 1, 3, 4, 5}, "4E4444444444", 0, 0, 1, 1, 1},
  };
  for (const Case &t : cases) {
    const Frames f{"4", 12};
    const std::vector<Packet> packets = pack(interleaved(t.b, t.l), f);
    std::vector<Packet> sent;
    for (int i : t.order) sent.push_back(packets[static_cast<size_t>(i)]);
    kevrc_rtp_counters c;
    EXPECT_EQ(play(KEVRC_RTP_FORMAT_INTERLEAVED, sent, f, t.window, &c), t.want) << t.name;
    const int64_t got[] = {c.lost, c.duplicates, c.late, c.reordered, c.erasures};
    const int64_t want[] = {t.lost, t.duplicates, t.late, t.reordered, t.erasures};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(got[i], want[i]) << t.name << " counter " << i;
  }
}

TEST(Rtp, SequenceAndTimestampWrapAround) {
  const Frames f{"4", 20};
  std::vector<Packet> packets = pack({KEVRC_RTP_FORMAT_INTERLEAVED, 1, 0, 0, 97, 1, 65530, 0xFFFFFC00u}, f);
  packets.erase(packets.begin() + 7);  // sequence number 1, timestamp 0x0000_0060
  kevrc_rtp_counters c;
  EXPECT_EQ(play(KEVRC_RTP_FORMAT_INTERLEAVED, packets, f, 4, &c), "4444444E444444444444");
  EXPECT_EQ(c.lost, 1);
  EXPECT_EQ(c.resyncs, 0);
}

// A timestamp half a cycle away (either way) restarts play there, once the
// frames before it are drained; no gap is filled.
TEST(Rtp, WildTimestampRestartsPlay) {
  const Frames f{"4", 6};
  std::vector<Packet> packets = pack(interleaved(1, 0), f);
  packets[3][4] ^= 0x80;
  kevrc_rtp_counters c;
  EXPECT_EQ(play(KEVRC_RTP_FORMAT_INTERLEAVED, packets, f, 4, &c), "444444");
  EXPECT_EQ(c.resyncs, 2);
}

TEST(Rtp, TimestampGapWithoutSequenceGapIsSilence) {
  const struct {
    kevrc_rtp_packer_config cfg;
    int32_t format;
  } cases[] = {{{KEVRC_RTP_FORMAT_HEADER_FREE, 1, 0, 0, 97, 1, 0, 0}, KEVRC_RTP_FORMAT_HEADER_FREE},
               {interleaved(2, 0), KEVRC_RTP_FORMAT_INTERLEAVED}};
  for (const auto &t : cases) {
    const Frames f{"4400004444", 10};
    kevrc_rtp_counters c;
    EXPECT_EQ(play(t.format, pack(t.cfg, f), f, 4, &c), "4400004444");
    EXPECT_EQ(c.silence, 4);
    EXPECT_EQ(c.erasures + c.lost, 0);
  }
}

TEST(Rtp, InvalidPacketsCountAsLost) {
  const Frames f{"4", 8};
  const std::vector<Packet> packets = pack(interleaved(2, 0), f);
  const std::vector<void (*)(Packet &)> corruptions = {
      [](Packet &p) { p[12] = 0x01; },  // NNN 1 > LLL 0
      [](Packet &p) { p[14] = 0x24; },  // table entry 2 carries no payload here
      [](Packet &p) { p.pop_back(); },  // length mismatch
  };
  for (auto corrupt : corruptions) {
    std::vector<Packet> sent = packets;
    corrupt(sent[1]);
    std::swap(sent[1], sent.back());  // the invalid packet comes last
    kevrc_rtp_counters c;
    int32_t status = 0;
    EXPECT_EQ(play(KEVRC_RTP_FORMAT_INTERLEAVED, sent, f, 8, &c, &status), "44EE4444");
    EXPECT_EQ(status, KEVRC_RTP_ERR_PAYLOAD);
    EXPECT_EQ(c.invalid, 1);
    EXPECT_EQ(c.lost, 1);
  }
}

TEST(Rtp, HeaderWithCsrcsExtensionAndPadding) {
  kevrc_rtp_header h{};
  h.csrc_count = 2;
  h.payload_type = 97;
  Packet p(40, 0);
  ASSERT_EQ(kevrc_rtp_write_header(&h, p.data(), 40), 20);
  p[0] |= 0x30;  // extension and padding
  p[23] = 1;     // one extension word
  p[39] = 3;     // three octets of padding
  ASSERT_EQ(kevrc_rtp_parse_header(p.data(), 40, &h), KEVRC_RTP_OK);
  EXPECT_EQ(h.payload_offset, 28);
  EXPECT_EQ(h.payload_length, 9);
  EXPECT_EQ(kevrc_rtp_parse_header(p.data(), 27, &h), KEVRC_RTP_ERR_SHORT);
  p[0] = 0x40;
  EXPECT_EQ(kevrc_rtp_parse_header(p.data(), 40, &h), KEVRC_RTP_ERR_VERSION);
}

}  // namespace

#ifdef KEVRC_HAVE_CAPTURE
#include <cstdio>
#include <fstream>
#include <iterator>

#include "kevrc/kevrc_capture.h"

namespace {

// Written records are read back field by field; a copy cut inside the last
// record yields the records before it and a read error.
TEST(RtpCapture, WriteThenReadBack) {
  const std::string path = ::testing::TempDir() + "kevrc_rtp_capture.pcap";
  const Frames f{"431", 9};
  const std::vector<Packet> packets = pack(interleaved(3, 0), f);
  const kevrc_cap_endpoints ends = {0x0a000001, 0x7f000001, 4000, 5004};
  kevrc_cap_writer *w = kevrc_cap_writer_open(path.c_str(), &ends, nullptr, nullptr, 0);
  ASSERT_NE(w, nullptr);
  for (size_t i = 0; i < packets.size(); ++i)
    EXPECT_EQ(kevrc_cap_write(w, 1000000 + 60000 * static_cast<int64_t>(i), packets[i].data(),
                              static_cast<int32_t>(packets[i].size())), KEVRC_CAP_OK);
  ASSERT_EQ(kevrc_cap_writer_close(w), KEVRC_CAP_OK);

  std::ifstream in(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto *ip = reinterpret_cast<const uint8_t *>(bytes.data()) + 24 + 16 + 14;  // file, record, Ethernet
  uint32_t sum = 0;
  for (int i = 0; i < 20; i += 2) sum += uint32_t{ip[i]} << 8 | ip[i + 1];
  EXPECT_EQ((sum & 0xffff) + (sum >> 16), 0xffffu);                              // header checksum
  EXPECT_EQ(ip[24] << 8 | ip[25], static_cast<int>(8 + packets[0].size()));     // UDP length

  std::FILE *cut = std::tmpfile();
  std::fwrite(bytes.data(), 1, bytes.size() - 5, cut);
  std::rewind(cut);
  for (std::FILE *file : {std::fopen(path.c_str(), "rb"), cut}) {
    kevrc_cap_reader *r = kevrc_cap_open_file(file, nullptr, nullptr, 0);
    ASSERT_NE(r, nullptr);
    kevrc_cap_streams *streams = kevrc_cap_streams_create(nullptr);
    kevrc_cap_udp u;
    int32_t status, n = 0;
    for (; (status = kevrc_cap_next(r, &u)) == 1; ++n) {
      EXPECT_EQ(u.time_us, 1000000 + 60000 * n);
      EXPECT_EQ(u.dst_port, 5004);
      EXPECT_EQ(kevrc_cap_streams_add(streams, &u), 0);
      kevrc_rtp_header h;
      ASSERT_EQ(kevrc_rtp_parse_header(u.payload, u.length, &h), KEVRC_RTP_OK);
      EXPECT_EQ(h.sequence, 100 + n);
      EXPECT_EQ(h.timestamp, 5000u + 480u * static_cast<uint32_t>(n));
    }
    EXPECT_EQ(n, file == cut ? 2 : 3);
    EXPECT_EQ(status, file == cut ? KEVRC_CAP_ERR_READ : 0);
    kevrc_cap_stream s;
    ASSERT_EQ(kevrc_cap_streams_get(streams, 0, -1, &s), KEVRC_CAP_OK);
    EXPECT_EQ(s.format, KEVRC_RTP_FORMAT_INTERLEAVED);
    EXPECT_EQ(s.frames, 3 * n);
    kevrc_cap_streams_delete(streams);
    kevrc_cap_close(r);
  }
  std::remove(path.c_str());
}

}  // namespace
#endif


namespace {

// Live on loopback: 2 s of a tone are encoded, sent as bundled RTP over UDP
// to 127.0.0.1 (an ephemeral port) at 10 times real time, received by a
// second thread (2 s receive timeout, so it always ends), depacketized and
// decoded frame by frame.
TEST(RtpLive, LoopbackSendReceiveDecode) {
  const int rx = socket(AF_INET, SOCK_DGRAM, 0), tx = socket(AF_INET, SOCK_DGRAM, 0);
  ASSERT_GE(rx, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(bind(rx, reinterpret_cast<sockaddr *>(&addr), len), 0);
  ASSERT_EQ(getsockname(rx, reinterpret_cast<sockaddr *>(&addr), &len), 0);
  const timeval timeout = {2, 0};
  setsockopt(rx, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  constexpr int kFrames = 100;
  int decoded = 0;
  kevrc_rtp_counters counters{};
  std::thread receiver([&] {
    const kevrc_rtp_depacketizer_config cfg = {KEVRC_RTP_FORMAT_INTERLEAVED, 97, 8};
    kevrc_rtp_depacketizer *d = kevrc_rtp_depacketizer_create(&cfg, nullptr);
    kevrc::testing::Decoder dec;
    uint8_t buf[KEVRC_RTP_MAX_PACKET_BYTES];
    auto decode_ready = [&](int32_t drain) {
      for (kevrc_rtp_frame f; kevrc_rtp_depacketizer_pull(d, drain, &f) == 1; ++decoded) {
        Packet packet{static_cast<uint8_t>(f.rate)};
        packet.insert(packet.end(), f.payload, f.payload + f.bytes);
        EXPECT_EQ(dec.decode(packet).status, KEVRC_OK);
      }
    };
    for (int packets = 0; packets < kFrames / 2; ++packets) {  // a receive timeout ends it early
      const ssize_t n = recv(rx, buf, sizeof buf, 0);
      if (n <= 0) break;
      kevrc_rtp_depacketizer_push(d, buf, static_cast<int32_t>(n));
      decode_ready(0);
    }
    decode_ready(1);
    kevrc_rtp_depacketizer_counters(d, &counters);
    kevrc_rtp_depacketizer_delete(d);
  });
  kevrc::testing::Encoder enc({KEVRC_RATE_FULL, KEVRC_RATE_EIGHTH, 0, 1});
  const kevrc_rtp_packer_config pc = interleaved(2, 0);
  kevrc_rtp_packer *p = kevrc_rtp_packer_create(&pc, nullptr);
  for (int i = 0; i < kFrames; ++i) {
    int16_t pcm[KEVRC_FRAME_SAMPLES];
    for (int n = 0; n < KEVRC_FRAME_SAMPLES; ++n)
      pcm[n] = static_cast<int16_t>(8000 * std::sin(0.3 * (i * KEVRC_FRAME_SAMPLES + n)));
    const kevrc::testing::Encoder::Frame e = enc.encode(pcm);
    EXPECT_EQ(e.status, KEVRC_OK);  // no ASSERT: the receiver thread must be joined
    kevrc_rtp_packer_push(p, e.result.rate, e.payload.data(), e.result.bytes);
    uint8_t packet[KEVRC_RTP_MAX_PACKET_BYTES];
    for (int32_t n; (n = kevrc_rtp_packer_pull(p, packet, sizeof packet, nullptr)) > 0;) {
      sendto(tx, packet, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
      std::this_thread::sleep_for(std::chrono::milliseconds(4));  // 40 ms of audio per packet
    }
  }
  receiver.join();
  kevrc_rtp_packer_delete(p);
  close(tx);
  close(rx);
  EXPECT_EQ(decoded, kFrames);
  EXPECT_EQ(counters.lost + counters.erasures, 0);
}

}  // namespace
