#!/usr/bin/env python3
"""Decode a packet stream with the reference model and write a trace.

usage: decode_trace.py STREAM OUT.txt [--postfilter 0|1] [--reset-at N,M,...]

STREAM: records of [2-byte little-endian length L][L packet bytes]
(packet = rate byte + payload).  One output line per record:
  `status consumed s0 ... s159`  when the output formatter ran,
  `status consumed`              for -1 and the delay-difference -2,
  `status -`                     when the result record is not written.
"""

import argparse
import sys

import ref_decoder as R


def read_stream(path):
    with open(path, "rb") as f:
        data = f.read()
    recs = []
    pos = 0
    while pos + 2 <= len(data):
        n = data[pos] | (data[pos + 1] << 8)
        pos += 2
        if pos + n > len(data):
            raise SystemExit("truncated record %d" % len(recs))
        recs.append(data[pos:pos + n])
        pos += n
    if pos != len(data):
        raise SystemExit("trailing byte in stream")
    return recs


def trace(records, postfilter, reset_at):
    dec = R.Decoder(interleaved=1, channel_mode=0, sample_format=0, postfilter=postfilter)
    lines = []
    for idx, pkt in enumerate(records):
        if idx in reset_at:
            dec.reset()
        status, consumed, rec = dec.decode(pkt, len(pkt))
        if consumed is None:
            lines.append("%d -" % status)
        elif rec is not None and 0 in rec["data"]:
            lines.append("%d %d %s" % (status, consumed, " ".join(str(v) for v in rec["data"][0])))
        else:
            lines.append("%d %d" % (status, consumed))
    return lines


def main(argv=None):
    ap = argparse.ArgumentParser()
    ap.add_argument("stream")
    ap.add_argument("out")
    ap.add_argument("--postfilter", type=int, default=0, choices=(0, 1))
    ap.add_argument("--reset-at", default="")
    ap.add_argument("--tables", default=None, help="directory of the C++ table sources")
    args = ap.parse_args(argv)
    reset_at = set(int(v) for v in args.reset_at.split(",") if v.strip() != "")
    R.load_tables(args.tables)
    lines = trace(read_stream(args.stream), args.postfilter, reset_at)
    with open(args.out, "w") as f:
        for ln in lines:
            f.write(ln + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
