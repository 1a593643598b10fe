#!/usr/bin/env python3
"""Write random kernel requests in the kernels_cli.py input format.

usage: gen_kernel_cases.py [--count N] [--seed S] > cases.txt
       python3 kernels_cli.py < cases.txt > expected.txt

Arguments mix edge values (0, +-1, extremes, powers of two) with uniform
random ones; inputs of the vector kernels are kept in their usual ranges
part of the time and fully random the rest.
"""

import argparse
import random

E32 = [0, 1, -1, 2, -2, 0x7FFFFFFF, -0x80000000, 0x40000000, 0x3FFFFFFF,
       0x3FFF0000, 0x3FFEFFFF, -0x40000000, 0x10000, 0xFFFF, 0x8000]
E16 = [0, 1, -1, 2, 32767, -32768, 16384, 16383, -16384, 8192, 255, 256]


def r32(rnd):
    k = rnd.random()
    if k < 0.2:
        return rnd.choice(E32)
    if k < 0.4:
        return rnd.randint(0x40000000, 0x7FFFFFFF)
    if k < 0.5:
        return rnd.randint(-5000, 5000)
    return rnd.randint(-0x80000000, 0x7FFFFFFF)


def r16(rnd):
    k = rnd.random()
    if k < 0.25:
        return rnd.choice(E16)
    if k < 0.4:
        return rnd.randint(-300, 300)
    return rnd.randint(-32768, 32767)


def lsp_vec(rnd):
    k = rnd.random()
    if k < 0.6:
        v = sorted(rnd.sample(range(100, 16300), 10))
    elif k < 0.8:
        v = sorted(rnd.randint(-2000, 20000) for _ in range(10))
    else:
        v = [r16(rnd) for _ in range(10)]
    if rnd.random() < 0.1:
        v[0] = rnd.choice([0, -5, 1])
    if rnd.random() < 0.1:
        v[9] = rnd.choice([16384, 16400, 20000, 32767])
    return v


def lpc_vec(rnd):
    if rnd.random() < 0.7:
        return [rnd.randint(-6000, 6000) // (k + 1) for k in range(10)]
    return [r16(rnd) for _ in range(10)]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--count", type=int, default=300)
    ap.add_argument("--seed", type=int, default=1)
    a = ap.parse_args()
    rnd = random.Random(a.seed)
    out = []
    for _ in range(a.count):
        for name in ("mul_32_32", "div_32_32"):
            out.append("%s %d %d" % (name, r32(rnd), r32(rnd)))
        out.append("div_32_32 %d %d" % (rnd.randint(0, 0x3FFFFFFF), rnd.randint(0x40000000, 0x7FFFFFFF)))
        out.append("mul_32_16 %d %d" % (r32(rnd), r16(rnd)))
        out.append("div_16_16 %d %d" % (r16(rnd), r16(rnd)))
        out.append("div_16_16 %d %d" % (rnd.randint(0, 16383), rnd.randint(16384, 32767)))
        for name in ("squar_rt", "inv_sqrt", "norm_32", "log2", "log", "log10"):
            out.append("%s %d" % (name, r32(rnd)))
        out.append("norm_16 %d" % r16(rnd))
        out.append("cos129 %d" % (rnd.randint(0, 16384) if rnd.random() < 0.6 else r16(rnd)))
        p, c = lsp_vec(rnd), lsp_vec(rnd)
        out.append("interpol %s %s %d" % (" ".join(map(str, p)), " ".join(map(str, c)),
                                          rnd.choice([0, 1, 2, 3, -1, 10])))
        out.append("interpol_delay %d %d %d" % (rnd.randint(0, 147), rnd.randint(0, 147),
                                                rnd.choice([0, 1, 2, 3, 10])))
        out.append("lsp2lpc %s" % " ".join(map(str, lsp_vec(rnd))))
        out.append("ran_noise %d %d %d %d" % (r16(rnd), rnd.choice([0, 0, 1]),
                                              r32(rnd), rnd.randint(1, 12)))
        for name in ("iir", "fir"):
            n = rnd.choice([0, 1, 5, 53, 54])
            mem = [r16(rnd) // rnd.choice([1, 8, 64]) for _ in range(10)]
            x = [r16(rnd) // rnd.choice([1, 4, 32]) for _ in range(n)]
            out.append("%s %d %s %s %s" % (name, n, " ".join(map(str, lpc_vec(rnd))),
                                          " ".join(map(str, mem)), " ".join(map(str, x))))
        cutoff, N = rnd.choice([(29491, 8), (16384, 3)])
        delay = rnd.randint(0, 12 << 24) if rnd.random() < 0.8 else r32(rnd)
        x = [r16(rnd) for _ in range(41)]
        out.append("bilinear %d %d %d %s" % (delay, cutoff, N, " ".join(map(str, x))))
    print("\n".join(out))


if __name__ == "__main__":
    main()
