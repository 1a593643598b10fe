// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Packet classification and unpacking.
//
// kevrcd_vld(dec): runs after the frame driver has read the rate byte into
//   work->rate (1, 3 or 4) and checked the length. It peeks at the payload to
//   recognise blank and all-ones packets, applies the rules on forbidden rate
//   changes, may turn the frame's rate code into 1 or 4 for a frame declared
//   erased (erasure_flag / bad_frame_flag), selects the per-rate parameters and
//   unpacks the fields into the work block. Always returns 0.
// set_decode_params(dec, rate): selects the LSP layout, codebook and fixed-
//   codebook gain table of rate 1, 3 or 4; other values change nothing.
//
// Payload layouts (most significant bit first):
//   eighth (16 bits): LSP 4, 4; energy 8.
//   half (80 bits): LSP 7, 7, 8; delay-20 7; 3 x (ACB gain 3, FCB 10, FCB gain 4).
//   full (170 bits): LPC flag 1; LSP 6, 6, 9, 7; delay-20 7; delay difference 5;
//                    3 x (ACB gain 3, FCB 8, 8, 8, 11, FCB gain 5).
#include <kevrc/kevrc_kernels.h>
#include "decoder/decoder_state.h"

namespace {

constexpr int16_t kRateErased = 14;  // internal mark of a blank packet

int16_t read_field(kcmn_bsr *reader, int bits) {
  return static_cast<int16_t>(kcmn_bsr_read(reader, bits));
}

// Reads the lookahead words through a copy of the reader; returns their sum
// as signed 16-bit values.
int32_t peek_payload(const kevrcd_instance *dec, kevrcd_work *w, int words) {
  kcmn_bsr copy = dec->bsr;
  int32_t sum = 0;
  for (int i = 0; i < words; ++i) {
    w->lookahead[i] = static_cast<uint16_t>(kcmn_bsr_read(&copy, 16));
    sum += static_cast<int16_t>(w->lookahead[i]);  // at most 11 terms: no overflow
  }
  return sum;
}

void unpack_fields(kevrcd_instance *dec, kevrcd_work *w, int16_t rate) {
  kcmn_bsr *rd = &dec->bsr;
  if (rate == 1) {
    w->lsp_index[0] = read_field(rd, 4);
    w->lsp_index[1] = read_field(rd, 4);
    const int16_t energy = read_field(rd, 8);
    for (int s = 0; s < 3; ++s) w->fcb_gain_index[s] = energy;
    return;
  }
  const kevrcd_rate_params *p = dec->st.params;
  w->lpc_flag = rate == 4 ? read_field(rd, 1) : int16_t{0};
  for (int s = 0; s < p->num_splits; ++s) w->lsp_index[s] = read_field(rd, p->index_bits[s]);
  w->delay = static_cast<int16_t>(read_field(rd, 7) + 20);
  if (rate == 4) w->delay_diff = read_field(rd, 5);
  for (int s = 0; s < 3; ++s) {
    w->acb_gain_index[s] = read_field(rd, 3);
    if (rate == 4) {
      w->fcb_words[s][0] = read_field(rd, 8);
      w->fcb_words[s][1] = read_field(rd, 8);
      w->fcb_words[s][2] = read_field(rd, 8);
      w->fcb_words[s][3] = read_field(rd, 11);
      w->fcb_gain_index[s] = read_field(rd, 5);
    } else {
      w->fcb_words[s][0] = read_field(rd, 10);
      w->fcb_gain_index[s] = read_field(rd, 4);
    }
  }
}

}  // namespace

extern "C" void set_decode_params(kevrcd_instance *dec, int32_t rate) {
  switch (rate) {
    case 1: dec->st.params = &kevrc::kParamsEighth; break;
    case 3: dec->st.params = &kevrc::kParamsHalf; break;
    case 4: dec->st.params = &kevrc::kParamsFull; break;
    default: break;
  }
}

extern "C" int32_t kevrcd_vld(kevrcd_instance *dec) {
  kevrcd_work *w = dec->work;
  kevrcd_state &st = dec->st;
  int16_t r = w->rate;

  // Look ahead without moving the real reader.
  const int words = r == 4 ? 11 : r == 3 ? 5 : 1;
  const int32_t sum = peek_payload(dec, w, words);

  // Classify.
  bool erased = false;
  if (sum == 0 && r != 1) {  // blank packet (also words cancelling out)
    r = kRateErased;
    st.all_ones_count = 0;
    erased = true;
  } else if (r == 1 && w->lookahead[0] == 0xFFFF) {
    st.all_ones_count = static_cast<int16_t>(st.all_ones_count + 1);
    if (st.all_ones_count <= 2) {
      erased = true;  // the first two all-ones eighth-rate packets in a row
    } else {
      st.all_ones_count = 3;
      st.erasure_flag = 0;
      st.bad_frame_flag = 0;
    }
  } else if (r == 1 || r == 3 || r == 4) {
    st.erasure_flag = 0;
    st.bad_frame_flag = 0;
    st.all_ones_count = 0;
  } else {
    st.all_ones_count = 0;
    st.bad_frame_flag = 1;
  }
  if (erased) st.erasure_flag = 1;

  // Rate-change rules: an eighth-rate packet right after a good full-rate
  // frame is not believed.
  bool accept = false;
  bool decided = false;
  if (r == 1 && st.previous_rate == 4) {
    if (st.last_frame_erased == 0) {
      st.bad_frame_flag = 1;
      st.erasure_flag = 1;
      r = 4;
    } else if (st.erasure_flag == 0 && st.bad_frame_flag == 0) {
      accept = true;
      decided = true;
    } else {
      r = 4;
      decided = true;
    }
  }
  if (!decided) {
    if (st.erasure_flag != 0 || st.bad_frame_flag != 0) {
      r = st.previous_rate == 1 ? int16_t{1} : int16_t{4};
    } else {
      accept = true;
    }
  }
  if (accept) st.previous_rate = static_cast<uint8_t>(r);
  set_decode_params(dec, r);
  w->rate = r;

  // After an erased frame the fields stay zero, even for a good packet.
  if (st.frame_erased != 0) return 0;
  unpack_fields(dec, w, r);
  return 0;
}
