/*
 * SPDX-License-Identifier: BSD-3-Clause
 * Copyright (c) the kevrc authors
 *
 * kevrc_rtp: the codec's frames over RTP (RFC 3558 payloads, RFC 3550
 * headers). No I/O, no dependency beyond the C++ standard library, no
 * allocation after creation.
 *
 * Frames are identified by their rate code: 0 blank, 1 eighth (2 payload
 * bytes), 3 half (10), 4 full (22), 5 erasure (no payload; never sent).
 * RTP timestamps count 8000 Hz samples, 160 per frame.
 *
 * Payload formats:
 *  - header-free: one frame per packet, its rate given by the payload length;
 *    blank and erased frames are not sent.
 *  - interleaved/bundled: a 2-octet header (reserved bits, interleave length
 *    LLL, interleave index NNN, mode request MMM, frame count - 1), one 4-bit
 *    table entry (the rate code) per frame padded to whole octets, then the
 *    payloads back to back. LLL = 0 bundles consecutive frames; LLL > 0
 *    interleaves a group of B * (LLL + 1) frames over LLL + 1 packets.
 *
 * Status codes: 0 or a positive count is success, failures are negative.
 * Handles are created once (the only allocation) and are not thread-safe.
 */
#ifndef KEVRC_RTP_H
#define KEVRC_RTP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEVRC_RTP_OK 0
#define KEVRC_RTP_ERR_ARG (-1)     /* null pointer, bad size or configuration out of range */
#define KEVRC_RTP_ERR_SHORT (-2)   /* packet shorter than its header says / buffer too small */
#define KEVRC_RTP_ERR_VERSION (-3) /* not an RTP version 2 packet */
#define KEVRC_RTP_ERR_PAYLOAD (-4) /* payload structure invalid for the format */
#define KEVRC_RTP_ERR_TYPE (-5)    /* payload type other than the configured one */
#define KEVRC_RTP_ERR_JUMP (-6)    /* packet beyond the buffered span: drain, then push it again */

#define KEVRC_RTP_RATE_BLANK 0
#define KEVRC_RTP_RATE_EIGHTH 1
#define KEVRC_RTP_RATE_HALF 3
#define KEVRC_RTP_RATE_FULL 4
#define KEVRC_RTP_RATE_ERASURE 5

#define KEVRC_RTP_FORMAT_HEADER_FREE 0
#define KEVRC_RTP_FORMAT_INTERLEAVED 1

#define KEVRC_RTP_CLOCK_RATE 8000
#define KEVRC_RTP_FRAME_TICKS 160
#define KEVRC_RTP_HEADER_BYTES 12
#define KEVRC_RTP_MAX_PAYLOAD_BYTES 22  /* one frame */
#define KEVRC_RTP_MAX_BUNDLE 32         /* frames per packet */
#define KEVRC_RTP_MAX_INTERLEAVE 7      /* LLL */
#define KEVRC_RTP_MAX_WINDOW 512        /* depacketizer jitter window, frames */
/* Longest packet the packer writes: header, 2 octets, 16 table octets, 32 full frames. */
#define KEVRC_RTP_MAX_PACKET_BYTES (KEVRC_RTP_HEADER_BYTES + 2 + 16 + 32 * 22)

/* Payload bytes of a rate code: 0, 2, 10 or 22; negative for codes that
 * carry no payload in a table (2, 5..15). */
int32_t kevrc_rtp_payload_bytes(int32_t rate);
/* A short English description of a status code. Never NULL. */
const char *kevrc_rtp_strerror(int32_t status);

/* ---- RTP fixed header ---- */
typedef struct kevrc_rtp_header {
  uint8_t padding;       /* P bit (parse: the padding length is in payload_length) */
  uint8_t marker;        /* M bit: first packet of a talkspurt */
  uint8_t payload_type;  /* 0..127 */
  uint8_t csrc_count;    /* 0..15 */
  uint16_t sequence;
  uint32_t timestamp;
  uint32_t ssrc;
  uint32_t csrc[15];
  uint8_t extension;          /* X bit */
  uint16_t extension_profile; /* parse only: the extension's first 16 bits */
  int32_t payload_offset;     /* parse: bytes before the payload */
  int32_t payload_length;     /* parse: payload bytes, padding excluded */
} kevrc_rtp_header;

/* Parses the header of packet[0..length). Returns KEVRC_RTP_OK, or
 * ERR_VERSION / ERR_SHORT (CSRCs, extension or padding overrun the packet). */
int32_t kevrc_rtp_parse_header(const uint8_t *packet, int32_t length, kevrc_rtp_header *header);
/* Writes a header without extension or padding (12 + 4 * csrc_count bytes)
 * to out[0..capacity). Returns the bytes written or a negative status. */
int32_t kevrc_rtp_write_header(const kevrc_rtp_header *header, uint8_t *out, int32_t capacity);

/* ---- Payload table ---- */
typedef struct kevrc_rtp_payload_info {
  int32_t interleave_length; /* LLL, 0..7 (0 for header-free) */
  int32_t interleave_index;  /* NNN, 0..LLL */
  int32_t mode_request;      /* MMM, 0..7 */
  int32_t frames;            /* 1..32 */
  uint8_t rates[32];         /* rate code of each frame */
  int32_t offsets[32];       /* offset of each frame's payload in the RTP payload */
} kevrc_rtp_payload_info;

/* Parses an RTP payload of the given format. Returns KEVRC_RTP_OK or
 * KEVRC_RTP_ERR_PAYLOAD (bad table entry, NNN > LLL, length mismatch). */
int32_t kevrc_rtp_parse_payload(int32_t format, const uint8_t *payload, int32_t length,
                                kevrc_rtp_payload_info *info);

/* ---- Packer: frames in play order in, packets out ---- */
typedef struct kevrc_rtp_packer_config {
  int32_t format;            /* KEVRC_RTP_FORMAT_* */
  int32_t frames_per_packet; /* B, 1..32 (1 for header-free) */
  int32_t interleave_length; /* L, 0..7 (0 for header-free) */
  int32_t mode_request;      /* MMM, 0..7 */
  int32_t payload_type;      /* 0..127 */
  uint32_t ssrc;
  uint16_t first_sequence;
  uint32_t first_timestamp;
} kevrc_rtp_packer_config;

typedef struct kevrc_rtp_packet_info {
  uint16_t sequence;
  uint32_t timestamp;
  int32_t frames;     /* frames in the packet */
  int64_t send_frame; /* frames since the first one pushed when the packet can be sent */
} kevrc_rtp_packet_info;

typedef struct kevrc_rtp_packer kevrc_rtp_packer;

kevrc_rtp_packer *kevrc_rtp_packer_create(const kevrc_rtp_packer_config *config, int32_t *err);
void kevrc_rtp_packer_delete(kevrc_rtp_packer *packer);
/* Adds the next frame: its rate code and payload (bytes must match the rate;
 * blank and erasure take none and are not sent, or sent as blank inside an
 * interleave group). Returns KEVRC_RTP_OK, or ERR_SHORT when packets are
 * waiting to be pulled first. A group of blank frames only is not sent. */
int32_t kevrc_rtp_packer_push(kevrc_rtp_packer *packer, int32_t rate, const uint8_t *payload,
                              int32_t bytes);
/* Sends the last, partial group: a shorter bundle, or an interleave group
 * with fewer frames per packet padded with blank frames. */
int32_t kevrc_rtp_packer_finish(kevrc_rtp_packer *packer);
/* Copies the next ready packet to out (the caller's, capacity bytes; at most
 * KEVRC_RTP_MAX_PACKET_BYTES are needed). Returns its length, 0 when no
 * packet is ready, or a negative status. info (optional) describes it. */
int32_t kevrc_rtp_packer_pull(kevrc_rtp_packer *packer, uint8_t *out, int32_t capacity,
                              kevrc_rtp_packet_info *info);

/* ---- Depacketizer: packets in any order in, frames in play order out ---- */
typedef struct kevrc_rtp_depacketizer_config {
  int32_t format;       /* KEVRC_RTP_FORMAT_* */
  int32_t payload_type; /* accepted payload type, or -1 for any */
  int32_t window;       /* jitter window in frames, 1..KEVRC_RTP_MAX_WINDOW: a frame still
                           missing when one this many frames later is known is played out */
} kevrc_rtp_depacketizer_config;

typedef struct kevrc_rtp_counters {
  int64_t received;   /* distinct valid packets accepted (late ones included) */
  int64_t lost;       /* packets expected from the sequence numbers but never received
                         (invalid ones included) */
  int64_t duplicates; /* packets received again */
  int64_t late;       /* packets that came after some of their frames were played */
  int64_t reordered;  /* packets older than the newest sequence number seen */
  int64_t invalid;    /* packets discarded: bad header, payload type or structure */
  int64_t resyncs;    /* timestamp jumps beyond the buffer: play restarts there */
  int64_t frames;     /* frames yielded, all kinds */
  int64_t silence;    /* blank frames yielded for suppressed silence (timestamp gaps) */
  int64_t erasures;   /* erasures yielded for frames of lost packets */
} kevrc_rtp_counters;

typedef struct kevrc_rtp_frame {
  int32_t rate;                                  /* rate code; 5 erasure, 0 blank */
  int32_t bytes;                                 /* payload bytes: 0, 2, 10 or 22 */
  uint32_t timestamp;                            /* RTP timestamp of the frame */
  int32_t mode_request;                          /* MMM of the packet carrying it */
  uint8_t payload[KEVRC_RTP_MAX_PAYLOAD_BYTES];
} kevrc_rtp_frame;

typedef struct kevrc_rtp_depacketizer kevrc_rtp_depacketizer;

kevrc_rtp_depacketizer *kevrc_rtp_depacketizer_create(const kevrc_rtp_depacketizer_config *config,
                                                      int32_t *err);
void kevrc_rtp_depacketizer_delete(kevrc_rtp_depacketizer *depacketizer);
/* Takes one RTP packet (packet[0..length), read during the call only).
 * Returns KEVRC_RTP_OK (duplicates and late packets included: see the
 * counters), a negative status for a discarded invalid packet, or
 * KEVRC_RTP_ERR_JUMP: the packet lies beyond the buffered span while frames
 * are pending; pull with drain set until nothing is left, then push it
 * again. */
int32_t kevrc_rtp_depacketizer_push(kevrc_rtp_depacketizer *depacketizer, const uint8_t *packet,
                                    int32_t length);
/* Yields the next frame in play order into *frame. Returns 1 for a frame, 0
 * when the next frame is not decided yet (it may still arrive within the
 * window; the first frame waits until a frame `window` frames later has
 * arrived: the initial playout delay), or a negative status. With drain non-zero (end of stream), every
 * frame up to the newest known one is yielded without waiting. */
int32_t kevrc_rtp_depacketizer_pull(kevrc_rtp_depacketizer *depacketizer, int32_t drain,
                                    kevrc_rtp_frame *frame);
void kevrc_rtp_depacketizer_counters(const kevrc_rtp_depacketizer *depacketizer,
                                     kevrc_rtp_counters *counters);

#ifdef __cplusplus
}
#endif

#endif /* KEVRC_RTP_H */
