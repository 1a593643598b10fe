// SPDX-License-Identifier: BSD-3-Clause
// Copyright (c) the kevrc authors
// Library start-up, decoder and encoder instance lifecycle and per-frame dispatch,
// status texts and the version string.
//
// An instance is one 32-byte aligned allocation, zeroed, holding its
// configuration, its operation table and its state; its work block is a
// second one. Both are made at creation and released at deletion only.
#include <atomic>
#include <cstring>

#include <kevrc/kevrc.h>
#include <kevrc/kevrc_kernels.h>
#include "decoder/decoder_state.h"
#include "encoder/encoder_state.h"

// The library-wide start-up flag: 0 at load, 1 after the first kevrc_init().
// Exported under its own name; the library reads and writes it atomically.
extern "C" {
alignas(std::atomic_ref<int32_t>::required_alignment) int32_t kevrc_inited = 0;
}

namespace {

std::atomic_ref<int32_t> inited_flag() { return std::atomic_ref<int32_t>(kevrc_inited); }

constexpr size_t kDecoderWorkBytes = kevrc::kDecWorkWords * sizeof(int16_t);
static_assert(sizeof(kevrcd_work) <= kDecoderWorkBytes, "decoder work block outgrew its size");

int32_t decoder_alloc_work(void *instance) {
  auto *dec = static_cast<kevrcd_instance *>(instance);
  void *block = kcmn_malloc_align32(kDecoderWorkBytes);
  if (block == nullptr) return KEVRC_ERR_NOMEM;
  std::memset(block, 0, kDecoderWorkBytes);
  dec->work = static_cast<kevrcd_work *>(block);
  return KEVRC_OK;
}

void decoder_free_work(void *instance) {
  auto *dec = static_cast<kevrcd_instance *>(instance);
  if (dec->work != nullptr) kcmn_mfree_align32(dec->work);
  dec->work = nullptr;
}

int32_t decoder_process(void *instance, const void *in, void *out, void *result) {
  return kevrcd_dec(static_cast<kevrcd_instance *>(instance),
                    static_cast<const kevrc_bitstream_buffer *>(in), static_cast<kevrc_pcm_buffer *>(out),
                    static_cast<kevrcd_result *>(result));
}

int32_t decoder_init(void *instance) { return kevrcd_init_state(static_cast<kevrcd_instance *>(instance)); }

void decoder_reset(void *instance) { kevrcd_reset(static_cast<kevrcd_instance *>(instance)); }

void report(int32_t *err, int32_t status) {
  if (err != nullptr) *err = status;
}

// Releases the work block and the instance, clearing the slots on the way.
void decoder_destroy(kevrcd_instance *dec) {
  if (dec->ops.free_work != nullptr) dec->ops.free_work(dec);
  dec->ops.alloc_work = nullptr;
  dec->ops.free_work = nullptr;
  dec->ops.process = nullptr;
  dec->ops.reset = nullptr;
  dec->spare_word = 0;
  dec->self = nullptr;
  kcmn_mfree_align32(dec);
}

constexpr size_t kEncoderWorkBytes = kevrc::kEncWorkWords * sizeof(int16_t);
static_assert(sizeof(kevrce_work) <= kEncoderWorkBytes, "encoder work block outgrew its size");

int32_t encoder_alloc_work(void *instance) {
  auto *enc = static_cast<kevrce_instance *>(instance);
  void *block = kcmn_malloc_align32(kEncoderWorkBytes);
  if (block == nullptr) return KEVRC_ERR_NOMEM;
  std::memset(block, 0, kEncoderWorkBytes);
  enc->work = static_cast<kevrce_work *>(block);
  return KEVRC_OK;
}

void encoder_free_work(void *instance) {
  auto *enc = static_cast<kevrce_instance *>(instance);
  if (enc->work != nullptr) kcmn_mfree_align32(enc->work);
  enc->work = nullptr;
}

int32_t encoder_process(void *instance, const void *in, void *out, void *result) {
  return kevrce_enc(static_cast<kevrce_instance *>(instance), static_cast<const kevrc_pcm_buffer *>(in),
                    static_cast<kevrc_bitstream_buffer *>(out), static_cast<kevrce_result *>(result));
}

int32_t encoder_init(void *) { return KEVRC_OK; }

// Rate bounds: each 1..4, max not below min (signed comparisons), and at
// least one coded rate (1, 3, 4) between them: 2..2 holds none.
bool rate_bounds_valid(const kevrce_config &c) {
  return c.max_rate >= 1 && c.max_rate <= 4 && c.min_rate >= 1 && c.min_rate <= 4 &&
         c.max_rate >= c.min_rate && !(c.max_rate == 2 && c.min_rate == 2);
}

// The arguments a creation record may hold: valid rate bounds and a noise
// suppression switch of 0 or 1.
bool encoder_arguments_valid(const kevrce_config &c) {
  return rate_bounds_valid(c) && (c.noise_suppression == 0 || c.noise_suppression == 1);
}

// An output layout the formatter knows: sample_format 0..2, channel_mode 0..2.
bool decoder_layout_known(const kevrcd_config &c) {
  return c.sample_format >= 0 && c.sample_format <= 2 && c.channel_mode >= 0 && c.channel_mode <= 2;
}

void encoder_destroy(kevrce_instance *enc) {
  if (enc->ops.free_work != nullptr) enc->ops.free_work(enc);
  enc->ops.alloc_work = nullptr;
  enc->ops.free_work = nullptr;
  enc->ops.process = nullptr;
  enc->self = nullptr;
  kcmn_mfree_align32(enc);
}

}  // namespace

extern "C" {

int32_t kevrc_platform_init(int32_t *code) {
  if (code != nullptr) *code = 0;
  return 0;
}

void kevrc_platform_deinit(void) {}

int32_t kevrc_init(void) {
  if (inited_flag().load(std::memory_order_relaxed) != 0) return KEVRC_OK;
  int32_t code = 0;
  if (kevrc_platform_init(&code) != 0) return code;
  inited_flag().store(1, std::memory_order_relaxed);
  return KEVRC_OK;
}

void kevrc_deinit(void) {
  // The flag stays set: a later kevrc_init() does not run the platform hook again.
  if (inited_flag().load(std::memory_order_relaxed) != 0) kevrc_platform_deinit();
}

int32_t kevrc_inited_flag(void) { return inited_flag().load(std::memory_order_relaxed); }

kevrcd_instance *kevrcd_create(const kevrcd_config *config, int32_t *err) {
  if (config == nullptr) {
    report(err, KEVRC_ERR_ARG);
    return nullptr;
  }
  void *block = kcmn_malloc_align32(sizeof(kevrcd_instance));
  if (block == nullptr) {
    report(err, KEVRC_ERR_NOMEM);
    return nullptr;
  }
  std::memset(block, 0, sizeof(kevrcd_instance));
  auto *dec = static_cast<kevrcd_instance *>(block);
  dec->config = *config;
  int32_t status = KEVRC_OK;
  if (config->reserved != 0 || !decoder_layout_known(*config)) status = KEVRC_ERR_UNSUPPORTED;
  if (status == KEVRC_OK) {
    dec->ops = {decoder_alloc_work, decoder_free_work, decoder_process, decoder_init, decoder_reset};
    dec->spare_word = 0;
    status = dec->ops.alloc_work(dec);
  }
  if (status == KEVRC_OK && dec->ops.init != nullptr) status = dec->ops.init(dec);
  if (status != KEVRC_OK) {
    decoder_destroy(dec);
    report(err, status);
    return nullptr;
  }
  dec->self = dec;
  report(err, KEVRC_OK);
  return dec;
}

void kevrcd_delete(kevrcd_instance *handle) {
  if (handle == nullptr) return;
  decoder_destroy(handle);
}

int32_t kevrcd_decode(kevrcd_instance *handle, const kevrc_bitstream_buffer *in, kevrc_pcm_buffer *out,
                      kevrcd_result *result) {
  if (handle == nullptr || handle->ops.process == nullptr) return KEVRC_ERR_ARG;
  return handle->ops.process(handle, in, out, result);
}

int32_t kevrcd_conceal(kevrcd_instance *handle, kevrc_pcm_buffer *out, kevrcd_result *result) {
  // The unpacker marks a blank full-rate packet as an erasure; concealing goes
  // through that same path, so the two can never differ.
  uint8_t blank[KEVRC_MAX_PACKET_BYTES] = {KEVRC_RATE_FULL};
  const kevrc_bitstream_buffer in = {blank, 0, KEVRC_MAX_PACKET_BYTES};
  const int32_t status = kevrcd_decode(handle, &in, out, result);
  if (status == KEVRC_OK) result->consumed = 0;
  return status;
}

kevrce_instance *kevrce_create(const kevrce_config *config, int32_t *err) {
  if (config == nullptr) {
    report(err, KEVRC_ERR_ARG);
    return nullptr;
  }
  void *block = kcmn_malloc_align32(sizeof(kevrce_instance));
  if (block == nullptr) {
    report(err, KEVRC_ERR_NOMEM);
    return nullptr;
  }
  std::memset(block, 0, sizeof(kevrce_instance));
  auto *enc = static_cast<kevrce_instance *>(block);
  int32_t status = encoder_arguments_valid(*config) ? KEVRC_OK : KEVRC_ERR_ARG;
  enc->config = *config;
  if (status == KEVRC_OK && config->reserved != 0) status = KEVRC_ERR_UNSUPPORTED;
  if (status == KEVRC_OK) {
    enc->ops = {encoder_alloc_work, encoder_free_work, encoder_process, encoder_init, nullptr};
    status = enc->ops.alloc_work(enc);
  }
  if (status == KEVRC_OK) status = enc->ops.init(enc);
  if (status != KEVRC_OK) {
    encoder_destroy(enc);
    report(err, status);
    return nullptr;
  }
  enc->self = enc;
  report(err, KEVRC_OK);
  init_encoder(enc, enc->work);
  return enc;
}

void kevrce_delete(kevrce_instance *handle) {
  if (handle == nullptr) return;
  encoder_destroy(handle);
}

int32_t kevrce_encode(kevrce_instance *handle, kevrc_pcm_buffer *in, kevrc_bitstream_buffer *out,
                      kevrce_result *result) {
  if (handle == nullptr || handle->ops.process == nullptr) return KEVRC_ERR_ARG;
  return handle->ops.process(handle, in, out, result);
}

int32_t kevrce_set_robust(kevrce_instance *handle, int32_t on) {
  if (handle == nullptr || handle->ops.process == nullptr || (on != 0 && on != 1)) return KEVRC_ERR_ARG;
  handle->robust = static_cast<int16_t>(on);
  return KEVRC_OK;
}

const char *kevrc_strerror(int32_t status) {
  switch (status) {
    case KEVRC_OK: return "success";
    case KEVRC_ERR_LSP: return "spectral parameters out of order in the packet";
    case KEVRC_ERR_NOMEM: return "out of memory, or pitch delay out of range";
    case KEVRC_ERR_UNSUPPORTED: return "unsupported configuration";
    case KEVRC_ERR_ARG: return "invalid argument";
    case KEVRC_ERR_RATE: return "invalid rate byte";
    case KEVRC_ERR_INTERNAL: return "internal error";
    case KEVRC_ERR_SHORT: return "packet too short for its rate";
    default: return "unknown status";
  }
}

const char *kevrc_version(void) { return KEVRC_VERSION_STRING; }

}  // extern "C"
