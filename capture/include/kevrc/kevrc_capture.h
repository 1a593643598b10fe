/*
 * SPDX-License-Identifier: BSD-3-Clause
 * Copyright (c) the kevrc authors
 *
 * kevrc_capture: RTP over UDP/IPv4 in packet captures, through libpcap.
 *
 *  - Reader: pcap or pcapng files (libpcap's offline reader) with Ethernet
 *    (VLAN tags skipped), Linux cooked (v1 and v2), raw IP and BSD loopback
 *    link layers; yields the UDP payloads of IPv4 datagrams with their
 *    addresses and capture times. Non-IPv4 frames, IP fragments, other
 *    protocols and truncated records are skipped and counted.
 *  - Streams: groups RTP packets by SSRC and UDP 5-tuple, counts packets,
 *    loss and reordering from the sequence numbers, and tells whether a
 *    stream carries this codec by its payload structure (every packet a
 *    valid interleaved/bundled payload, or every one a header-free length).
 *  - Writer: Ethernet/IPv4/UDP records around RTP packets (IPv4 header and
 *    UDP checksums filled in) through pcap_dump, microsecond capture times.
 *
 * Status codes: 0 or a positive count is success, failures are negative.
 * Handles are opaque and created once; not thread-safe.
 */
#ifndef KEVRC_CAPTURE_H
#define KEVRC_CAPTURE_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KEVRC_CAP_OK 0
#define KEVRC_CAP_ERR_ARG (-1)      /* null pointer or value out of range */
#define KEVRC_CAP_ERR_OPEN (-2)     /* libpcap could not open or create the file */
#define KEVRC_CAP_ERR_LINKTYPE (-3) /* link layer other than the supported ones */
#define KEVRC_CAP_ERR_READ (-4)     /* the file ends inside a record or is corrupt */
#define KEVRC_CAP_ERR_FULL (-5)     /* more streams than the table holds */
#define KEVRC_CAP_ERR_WRITE (-6)    /* writing the file failed */

/* ---- Reader ---- */
typedef struct kevrc_cap_udp {
  int64_t time_us;          /* capture time, microseconds since the epoch */
  uint32_t src_ip, dst_ip;  /* IPv4 addresses, host order */
  uint16_t src_port, dst_port;
  const uint8_t *payload;   /* UDP payload, owned by the reader, valid until the next call */
  int32_t length;           /* its bytes */
} kevrc_cap_udp;

typedef struct kevrc_cap_counters {
  int64_t records;   /* link-layer records read */
  int64_t udp;       /* UDP datagrams yielded */
  int64_t non_ipv4;  /* records that are not IPv4 (IPv6, ARP, ...) */
  int64_t fragments; /* IPv4 fragments (not reassembled) */
  int64_t not_udp;   /* IPv4 datagrams of other protocols */
  int64_t truncated; /* records shorter than their headers say, or bad header lengths */
} kevrc_cap_counters;

typedef struct kevrc_cap_reader kevrc_cap_reader;

/* Opens path ("-" for standard input). On failure returns NULL, stores the
 * status through err and a one-line reason in message (capacity bytes, may
 * be NULL). */
kevrc_cap_reader *kevrc_cap_open(const char *path, int32_t *err, char *message, int32_t capacity);
/* Same over an open stream; the reader closes it. */
kevrc_cap_reader *kevrc_cap_open_file(FILE *file, int32_t *err, char *message, int32_t capacity);
void kevrc_cap_close(kevrc_cap_reader *reader);
/* Next UDP datagram: 1 with *udp filled, 0 at the end of the file, or
 * KEVRC_CAP_ERR_READ when the file is cut inside a record or corrupt (the
 * datagrams before it were yielded; kevrc_cap_reader_error tells why). */
int32_t kevrc_cap_next(kevrc_cap_reader *reader, kevrc_cap_udp *udp);
void kevrc_cap_reader_counters(const kevrc_cap_reader *reader, kevrc_cap_counters *counters);
const char *kevrc_cap_reader_error(const kevrc_cap_reader *reader);

/* ---- Streams ---- */
#define KEVRC_CAP_MAX_STREAMS 256

typedef struct kevrc_cap_stream {
  uint32_t ssrc;
  uint32_t src_ip, dst_ip;
  uint16_t src_port, dst_port;
  int32_t payload_type;      /* of the first packet */
  int32_t format;            /* KEVRC_RTP_FORMAT_* detected, or -1: not this codec */
  int64_t packets;           /* RTP packets received */
  int64_t lost;              /* expected from the sequence numbers but not received */
  int64_t reordered;         /* older than the newest sequence number seen */
  int64_t duplicates;        /* sequence number seen before */
  int64_t first_time_us, last_time_us;
  int64_t frames;            /* frames from the first timestamp to the end of the newest packet */
  int64_t wild_timestamps;   /* timestamps more than a minute from the newest one */
  int64_t valid_interleaved; /* packets whose payload is a valid interleaved/bundled payload */
  int64_t valid_header_free; /* packets whose payload length is a header-free frame */
  /* internal state */
  int64_t mixed_types;       /* packets with another payload type than the first */
  /* running state: extended sequence numbers and timestamps */
  int64_t seq_highest, seq_lowest, ts_highest, ts_lowest, ts_end;
} kevrc_cap_stream;

typedef struct kevrc_cap_streams kevrc_cap_streams;

kevrc_cap_streams *kevrc_cap_streams_create(int32_t *err);
void kevrc_cap_streams_delete(kevrc_cap_streams *streams);
/* Files one UDP datagram. Returns the stream's index, KEVRC_CAP_ERR_ARG when
 * it is not an RTP version 2 packet, or KEVRC_CAP_ERR_FULL. */
int32_t kevrc_cap_streams_add(kevrc_cap_streams *streams, const kevrc_cap_udp *udp);
int32_t kevrc_cap_streams_count(const kevrc_cap_streams *streams);
/* Stream i (0 <= i < count) with its format decided; payload_type >= 0
 * marks only streams of that payload type as this codec (by structure
 * still, to choose the format), -1 detects by structure alone. */
int32_t kevrc_cap_streams_get(const kevrc_cap_streams *streams, int32_t i, int32_t payload_type,
                              kevrc_cap_stream *stream);

/* ---- Writer ---- */
typedef struct kevrc_cap_endpoints {
  uint32_t src_ip, dst_ip; /* host order */
  uint16_t src_port, dst_port;
} kevrc_cap_endpoints;

typedef struct kevrc_cap_writer kevrc_cap_writer;

/* Creates path ("-" for standard output) as a pcap file of Ethernet link
 * type. */
kevrc_cap_writer *kevrc_cap_writer_open(const char *path, const kevrc_cap_endpoints *endpoints, int32_t *err,
                                        char *message, int32_t capacity);
/* Writes one RTP packet (rtp[0..length), length <= 1472) at time_us. */
int32_t kevrc_cap_write(kevrc_cap_writer *writer, int64_t time_us, const uint8_t *rtp, int32_t length);
/* Flushes and closes; returns KEVRC_CAP_OK or KEVRC_CAP_ERR_WRITE. */
int32_t kevrc_cap_writer_close(kevrc_cap_writer *writer);

/* Parses "a.b.c.d:port" into ip and port. Returns KEVRC_CAP_OK or ERR_ARG. */
int32_t kevrc_cap_parse_endpoint(const char *text, uint32_t *ip, uint16_t *port);
const char *kevrc_cap_strerror(int32_t status);

#ifdef __cplusplus
}
#endif

#endif /* KEVRC_CAPTURE_H */
