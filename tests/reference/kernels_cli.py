#!/usr/bin/env python3
"""Evaluate kernels of the reference model, one request per input line.

Each line: `name arg1 arg2 ...` (integers, decimal or 0x-hex).  One output
line per input line: the results as integers separated by spaces, or
`error ...` for a malformed line.

  mul_32_32 a b            mul_32_16 a b          div_32_32 num den
  div_16_16 num den        squar_rt x             inv_sqrt x
  norm_32 x                norm_16 x              log2 x   log x   log10 x
  cos129 x
  interpol p0..p9 c0..c9 sub                    -> 10 values
  interpol_delay prev cur sub                   -> 3 values, or "none"
  lsp2lpc l0..l9                                -> 10 repaired lsp, 10 lpc
  ran_noise seed pairflag stored count          -> count outputs, seed flag stored
  iir n c0..c9 m0..m9 x0..x(n-1)                -> n outputs, 10 mem
  fir n c0..c9 m0..m9 x0..x(n-1)                -> n outputs, 10 mem
  bilinear delay cutoff N x[-20]..x[20]         -> 1 value, or "skip"
"""

import sys

import ref_decoder as R


def _ints(tokens):
    return [int(t, 0) for t in tokens]


def handle(name, a):
    w16, w32 = R.wrap16, R.wrap32
    if name == "mul_32_32":
        return [R.mul_32_32(w32(a[0]), w32(a[1]))]
    if name == "mul_32_16":
        return [R.mul_32_16(w32(a[0]), w16(a[1]))]
    if name == "div_32_32":
        return [R.div_32_32(w32(a[0]), w32(a[1]))]
    if name == "div_16_16":
        return [R.div_16_16(w16(a[0]), w16(a[1]))]
    if name == "squar_rt":
        return [R.squar_rt(w32(a[0]))]
    if name == "inv_sqrt":
        return [R.inv_sqrt(w32(a[0]))]
    if name == "norm_32":
        return [R.norm_32(w32(a[0]))]
    if name == "norm_16":
        return [R.norm_16(w16(a[0]))]
    if name == "log2":
        return [R.log2_q26(w32(a[0]))]
    if name == "log":
        return [R.log_q26(w32(a[0]))]
    if name == "log10":
        return [R.log10_q26(w32(a[0]))]
    if name == "cos129":
        return [R.cos129(w16(a[0]))]
    if name == "interpol":
        if len(a) != 21:
            raise ValueError("interpol needs 21 arguments")
        return R.interpol([w16(v) for v in a[0:10]], [w16(v) for v in a[10:20]], w16(a[20]))
    if name == "interpol_delay":
        if len(a) != 3:
            raise ValueError("interpol_delay needs 3 arguments")
        sub = w16(a[2])
        if sub not in (0, 1, 2):
            return "none"
        out = [0, 0, 0]
        R.interpol_delay(out, w16(a[0]), w16(a[1]), sub)
        return out
    if name == "lsp2lpc":
        if len(a) != 10:
            raise ValueError("lsp2lpc needs 10 arguments")
        lsp = [w16(v) for v in a]
        lpc = R.lsp2lpc(lsp)
        return lsp + lpc
    if name == "ran_noise":
        if len(a) != 4:
            raise ValueError("ran_noise needs 4 arguments")
        g = R.NoiseState(w16(a[0]), w16(a[1]), w32(a[2]))
        outs = [R.ran_noise_gen(g) for _ in range(a[3])]
        return outs + [g.seed, g.flag, g.stored]
    if name in ("iir", "fir"):
        n = a[0]
        if len(a) != 21 + max(n, 0):
            raise ValueError("%s needs 21 + n arguments" % name)
        coef = [w16(v) for v in a[1:11]]
        mem = [w16(v) for v in a[11:21]]
        x = [w16(v) for v in a[21:]]
        f = R.iir if name == "iir" else R.fir
        out = f(x, coef, mem, n)
        return out + mem
    if name == "bilinear":
        if len(a) != 44:
            raise ValueError("bilinear needs delay cutoff N and 41 samples")
        buf = [w16(v) for v in a[3:]]
        try:
            return [R.bilinear_intrpol(buf, 20, w32(a[0]), w16(a[1]), w16(a[2]))]
        except R.OutOfWindow:
            return "skip"
    raise ValueError("unknown kernel " + name)


def main():
    for line in sys.stdin:
        tok = line.split()
        if not tok:
            continue
        try:
            res = handle(tok[0], _ints(tok[1:]))
        except (ValueError, IndexError) as exc:
            print("error", exc)
            continue
        if isinstance(res, str):
            print(res)
        else:
            print(" ".join(str(v) for v in res))
        sys.stdout.flush()


if __name__ == "__main__":
    main()
