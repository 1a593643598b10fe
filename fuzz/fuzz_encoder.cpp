// libFuzzer target: an encoder created from a record taken from the input,
// fed the frames that follow; every payload it produces goes to a decoder.
//
// Input: byte 0 selects the creation record (bits 0-2 max_rate 0..7, bits
// 3-5 min_rate 0..7, bit 6 noise suppression, bit 7 a bad suppression switch
// of 2); then frames of 320 bytes (160 little-endian samples; a short last
// frame is padded with zeros), at most 50. The sample buffer and the payload
// buffer are heap blocks of exactly 160 samples and 24 bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <kevrc/kevrc.h>

namespace {

[[noreturn]] void fail() { std::abort(); }

bool bounds_valid(int32_t max_rate, int32_t min_rate) {
  return max_rate >= 1 && max_rate <= 4 && min_rate >= 1 && min_rate <= 4 && max_rate >= min_rate;
}

int32_t payload_size(int32_t rate) { return rate == 1 ? 2 : (rate == 4 ? 22 : 10); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const uint8_t sel = data[0];
  const kevrce_config cfg = {sel & 7, (sel >> 3) & 7, 0, (sel & 0x80) ? 2 : (sel >> 6) & 1};
  int32_t err = 0;
  kevrce_instance *enc = kevrce_create(&cfg, &err);
  if (!bounds_valid(cfg.max_rate, cfg.min_rate)) {
    if (enc != nullptr || err != KEVRC_ERR_ARG) fail();
    return 0;
  }
  if (enc == nullptr || err != KEVRC_OK) fail();
  const kevrcd_config dcfg = {1, 0, 0, 0, 1};
  kevrcd_instance *dec = kevrcd_create(&dcfg, &err);
  if (dec == nullptr) fail();

  std::vector<int16_t> pcm(160);
  std::vector<uint8_t> payload(24);
  std::vector<int16_t> decoded(160);
  size_t pos = 1;
  for (int frame = 0; frame < 50 && pos < size; ++frame, pos += 320) {
    for (size_t n = 0; n < 160; ++n) {
      const size_t at = pos + 2 * n;
      const uint16_t lo = at < size ? data[at] : 0;
      const uint16_t hi = at + 1 < size ? data[at + 1] : 0;
      pcm[n] = static_cast<int16_t>(lo | (hi << 8));
    }
    kevrc_pcm_buffer in = {};
    in.data[0] = pcm.data();
    kevrc_bitstream_buffer out = {payload.data(), 0, 0};
    kevrce_result result = {-1, -1};
    const int32_t status = kevrce_encode(enc, &in, &out, &result);
    if (cfg.noise_suppression == 2) {
      if (status != KEVRC_ERR_ARG) fail();
      continue;
    }
    if (status != KEVRC_OK) fail();
    if (result.rate < cfg.min_rate || result.rate > cfg.max_rate) fail();
    if (result.bytes != payload_size(result.rate)) fail();
    std::vector<uint8_t> packet(1 + static_cast<size_t>(result.bytes));
    packet[0] = static_cast<uint8_t>(result.rate);
    std::memcpy(packet.data() + 1, payload.data(), static_cast<size_t>(result.bytes));
    kevrc_bitstream_buffer pin = {packet.data(), 0, static_cast<int32_t>(packet.size())};
    kevrc_pcm_buffer pout = {};
    pout.data[0] = decoded.data();
    kevrcd_result dres;
    if (kevrcd_decode(dec, &pin, &pout, &dres) != KEVRC_OK) fail();
  }
  kevrcd_delete(dec);
  kevrce_delete(enc);
  return 0;
}
