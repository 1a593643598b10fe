/*
 * SPDX-License-Identifier: BSD-3-Clause
 * Copyright (c) the kevrc authors
 *
 * kevrc_formats: packet files of the codec, read and written in constant
 * memory, without I/O of their own.
 *
 *  - the storage format of RFC 3558 section 11 ("#!EVRC\n", then per frame a
 *    rate octet and its payload);
 *  - QCP (RFC 3625): a little-endian RIFF "QLCM" file with a "fmt " chunk
 *    (codec GUID and rate table), an optional "vrat" chunk and a "data" chunk
 *    of records.
 *
 * Rate octets: 1 eighth (2 payload bytes), 3 half (10), 4 full (22) are
 * speech; 0 is a blank frame, 5 and 14 are erasures and 2 (quarter rate, 5
 * bytes) is not coded by this codec: all four are delivered as frames to
 * conceal. Any other octet ends the readable part of a file.
 *
 * Reading: the caller owns a kevrcf_reader (no allocation) and hands it a
 * read callback; kevrcf_reader_open() reads the header, kevrcf_reader_next()
 * one record at a time. Writing: kevrcf_writer_* format headers and records
 * into caller-provided byte buffers.
 *
 * Status codes: 0 success, negative failure (kevrcf_strerror names them).
 * Thread safety: none needed; every state is in caller-owned structs.
 */
#ifndef KEVRC_FORMATS_H
#define KEVRC_FORMATS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEVRCF_OK 0
#define KEVRCF_ERR_ARG (-1)        /* null pointer, unknown format, buffer too small */
#define KEVRCF_ERR_NOT_PACKET (-2) /* neither storage format nor QCP */
#define KEVRCF_ERR_HEADER (-3)     /* QCP header damaged or cut off */
#define KEVRCF_ERR_CODEC (-4)      /* QCP file of another codec or rate table */
#define KEVRCF_ERR_READ (-5)       /* the read callback failed */

#define KEVRCF_FORMAT_UNKNOWN 0
#define KEVRCF_FORMAT_STORAGE 1 /* RFC 3558 section 11 */
#define KEVRCF_FORMAT_QCP 2     /* RFC 3625 */

/* Bytes kevrcf_detect() needs to tell the formats apart. */
#define KEVRCF_DETECT_BYTES 12
/* Largest record: rate octet + 22 payload bytes. */
#define KEVRCF_MAX_PACKET_BYTES 23
/* Largest header kevrcf_writer_header() writes. */
#define KEVRCF_MAX_HEADER_BYTES 194

/* Kind of a delivered frame. */
#define KEVRCF_SPEECH 0    /* data holds rate octet + payload, ready for the decoder */
#define KEVRCF_BLANK 1     /* rate octet 0: conceal */
#define KEVRCF_ERASURE 2   /* rate octet 5, 14 or 2: conceal */
#define KEVRCF_TRUNCATED 3 /* cut-off last record: conceal */

/* The format of a file from its first n bytes (KEVRCF_DETECT_BYTES suffice):
 * one of KEVRCF_FORMAT_*. */
int32_t kevrcf_detect(const uint8_t *head, size_t n);
/* "storage", "qcp" or "unknown". Never NULL. */
const char *kevrcf_format_name(int32_t format);
/* A short English description of a status code. Never NULL. */
const char *kevrcf_strerror(int32_t status);

/* Fills buf with up to size bytes; returns the count (0 at the end of the
 * input, fewer than size only there) or a negative value on failure. */
typedef int64_t (*kevrcf_read_fn)(void *user, uint8_t *buf, size_t size);

/* What a reader met so far. Counts are frames unless named bytes. */
typedef struct kevrcf_stats {
  uint64_t frames;    /* frames delivered, concealed ones included */
  uint64_t eighth, half, full;
  uint64_t blank;     /* rate octet 0 */
  uint64_t erasure;   /* rate octets 5, 14 and 2 */
  uint64_t truncated; /* cut-off last record (0 or 1) */
  uint64_t record_bytes;  /* bytes of delivered records, rate octets included */
  uint64_t unread_bytes;  /* bytes from an unknown rate octet to the end */
  int32_t unknown_octet;  /* the octet that ended the readable part, or -1 */
} kevrcf_stats;

/* One frame: kind KEVRCF_*; for KEVRCF_SPEECH data[0..size) is the packet. */
typedef struct kevrcf_packet {
  uint8_t data[KEVRCF_MAX_PACKET_BYTES];
  int32_t size;
  int32_t kind;
  int32_t rate_octet; /* as stored; -1 for a truncated record */
} kevrcf_packet;

/* QCP header fields as read (zero for the storage format). */
typedef struct kevrcf_qcp_info {
  uint8_t major, minor;
  uint16_t codec_version;
  char name[81]; /* NUL-terminated */
  uint16_t average_bps, packet_size, block_size, sample_rate, sample_size;
  uint32_t rate_count;
  uint8_t rate_table[8][2]; /* (payload size, rate octet) */
  int32_t variable_rate;    /* vrat flag (0 when there is no vrat chunk) */
  uint32_t declared_packets; /* vrat packet count */
  uint32_t data_bytes;       /* size of the data chunk as declared */
} kevrcf_qcp_info;

/* Reader state: caller-owned, opaque in use (fields may be read, not set). */
typedef struct kevrcf_reader {
  kevrcf_read_fn read;
  void *user;
  int32_t format;
  int32_t done;
  uint64_t data_left; /* QCP: bytes left in the data chunk */
  int16_t payload_size[256]; /* per rate octet; -1 unknown */
  kevrcf_stats stats;
  kevrcf_qcp_info qcp;
} kevrcf_reader;

/* Reads and checks the header. Returns KEVRCF_OK or a negative status; the
 * reader then holds the format and, for QCP, its header fields. */
int32_t kevrcf_reader_open(kevrcf_reader *reader, kevrcf_read_fn read, void *user);
/* The next frame in *packet: returns 1, 0 at the end (including the end
 * made by an unknown rate octet, whose bytes are then counted in
 * stats.unread_bytes), or a negative status. */
int32_t kevrcf_reader_next(kevrcf_reader *reader, kevrcf_packet *packet);

/* Writer state: caller-owned. */
typedef struct kevrcf_writer {
  int32_t format;
  uint64_t packets;
  uint64_t data_bytes;
} kevrcf_writer;

/* Starts a writer of format KEVRCF_FORMAT_STORAGE or KEVRCF_FORMAT_QCP. */
int32_t kevrcf_writer_init(kevrcf_writer *writer, int32_t format);
/* The header for the records written so far into out (capacity cap, at
 * least KEVRCF_MAX_HEADER_BYTES); returns its size or a negative status.
 * Write it once first; for QCP write it again over the first one after the
 * last record when the output can seek back (until then its sizes are
 * 0xFFFFFFFF, which readers take as "up to the end of the file"). */
int32_t kevrcf_writer_header(const kevrcf_writer *writer, int32_t final_sizes, uint8_t *out,
                             size_t cap);
/* One record: rate octet 1, 3 or 4 and its payload (2, 10 or 22 bytes);
 * out needs KEVRCF_MAX_PACKET_BYTES. Returns the record size or a negative
 * status. */
int32_t kevrcf_writer_packet(kevrcf_writer *writer, int32_t rate_octet, const uint8_t *payload,
                             size_t payload_size, uint8_t *out, size_t cap);
/* What follows the last record: with final_sizes, for QCP, a pad byte when
 * the data chunk is odd (without final sizes the data chunk runs to the end
 * of the file and nothing follows). Returns its size (0 or 1); out needs 1
 * byte. */
int32_t kevrcf_writer_trailer(const kevrcf_writer *writer, int32_t final_sizes, uint8_t *out,
                              size_t cap);

#ifdef __cplusplus
}
#endif

#endif /* KEVRC_FORMATS_H */
