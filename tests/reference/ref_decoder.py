"""Independent bit-exact Python model of the kevrc decoder.

Pure Python 3.11, standard library only.  Every 16/32-bit wrap and
saturation is modelled explicitly with the helpers below; Python integers
are unbounded, so nothing wraps by itself.

The LSP codebooks and the eighth-rate energy table are read from the
library's C++ table sources (see load_tables); everything else is built
here from its defining formula or listed literally.
"""

import math
import os
import re
import glob

# ---------------------------------------------------------------------------
# integer helpers
# ---------------------------------------------------------------------------


def wrap16(x):
    return ((x + 0x8000) & 0xFFFF) - 0x8000


def wrap32(x):
    return ((x + 0x80000000) & 0xFFFFFFFF) - 0x80000000


def sat16(x):
    return 32767 if x > 32767 else (-32768 if x < -32768 else x)


def sat32(x):
    return 0x7FFFFFFF if x > 0x7FFFFFFF else (-0x80000000 if x < -0x80000000 else x)


def asr(x, n):
    """Arithmetic right shift; n >= 32 on an int32 gives 0 or -1."""
    return x >> n if n >= 0 else x << (-n)


MAX32 = 0x7FFFFFFF
MIN32 = -0x80000000

# ---------------------------------------------------------------------------
# constant tables given by formula or literally
# ---------------------------------------------------------------------------


def _nearest_int_131072_over_sqrt(n):
    """Nearest integer to 131072 / sqrt(n), decided exactly with integers."""
    four_q = 4 << 34          # 4 * 131072^2
    c = math.isqrt((1 << 34) // n)
    while (2 * c + 1) ** 2 * n <= four_q:
        c += 1
    while c > 0 and (2 * c - 1) ** 2 * n > four_q:
        c -= 1
    return c


INV_SQRT_TBL = [_nearest_int_131072_over_sqrt(16 + i) for i in range(49)]
INV_SQRT_TBL[0] = min(INV_SQRT_TBL[0], 32767)


def _round_clamp(v):
    r = math.floor(v + 0.5)
    return max(-32768, min(32767, r))


COS_TBL = [_round_clamp(32768.0 * math.cos(k * math.pi / 128.0)) for k in range(129)]
SIN_TBL = [_round_clamp(32768.0 * math.sin(k * math.pi / 128.0)) for k in range(129)]
COS_TBL[64] = 0          # cos(pi/2) is 0 exactly, not 2e-12
SIN_TBL[0] = 0
SIN_TBL[128] = 0

HAM17 = [
    [109, -146, 99, 180, -901, 2411, -5769, 20443, 20443, -5769, 2411, -901, 180, 99, -146, 109, -87],
    [59, -34, -114, 525, -1363, 2887, -5861, 16168, 24161, -4850, 1533, -249, -241, 336, -258, 153, -100],
    [10, 62, -282, 761, -1605, 2957, -5257, 11650, 27043, -3039, 309, 529, -692, 565, -355, 184, -101],
    [-33, 135, -390, 873, -1623, 2667, -4135, 7204, 28867, -350, -1153, 1346, -1114, 752, -419, 195, -90],
    [-67, 179, -434, 864, -1444, 2096, -2697, 3123, 29491, 3123, -2697, 2096, -1444, 864, -434, 179, -67],
    [-90, 195, -419, 752, -1114, 1346, -1153, -350, 28867, 7204, -4135, 2667, -1623, 873, -390, 135, -33],
    [-101, 184, -355, 565, -692, 529, 309, -3039, 27043, 11650, -5257, 2957, -1605, 761, -282, 62, 10],
    [-100, 153, -258, 336, -241, -249, 1533, -4850, 24161, 16168, -5861, 2887, -1363, 525, -114, -34, 59],
]
HAM7 = [
    [-747, 3158, 14079, 14079, 3158, -747, -169],
    [-709, 2109, 12898, 15054, 4364, -720, -213],
    [-632, 1232, 11559, 15782, 5702, -604, -271],
    [-536, 530, 10116, 16232, 7136, -372, -346],
    [-437, 0, 8624, 16384, 8624, 0, -437],
    [-346, -372, 7136, 16232, 10116, 530, -536],
    [-271, -604, 5702, 15782, 11559, 1232, -632],
    [-213, -720, 4364, 15054, 12898, 2109, -709],
]
HAM17_FLAT = [v for row in HAM17 for v in row]
HAM7_FLAT = [v for row in HAM7 for v in row]

WFAC_ALPHA = [18678, 10646, 6068, 3459, 1972, 1124, 641, 365, 208, 119]
WFAC_BETA = [24576, 18432, 13824, 10368, 7776, 5832, 4374, 3281, 2460, 1845]
WFAC_GAMMA_1 = [29491, 26542, 23888, 21499, 19349, 17414, 15673, 14106, 12695, 11425]
WFAC_GAMMA_2 = [16384, 8192, 4096, 2048, 1024, 512, 256, 128, 64, 32]
WFAC_GAMMA_4 = [32571, 32376, 32182, 31989, 31797, 31606, 31416, 31228, 31040, 30854]

ACB_GAIN_TBL = [0, 4915, 9011, 11469, 13107, 14746, 16384, 19661]
FCB_GAIN_TBL_16 = [13, 22, 36, 59, 97, 161, 265, 437, 720, 1187, 1958, 3227,
                   5321, 8773, 14464, 23848]
FCB_GAIN_TBL_32 = [10, 13, 17, 22, 28, 36, 46, 59, 76, 97, 125, 161, 206, 265,
                   340, 437, 561, 720, 925, 1187, 1525, 1958, 2514, 3227, 4144,
                   5321, 6832, 8773, 11265, 14464, 18573, 23848]

PREV_LSP_INIT = [1573, 3146, 4719, 6291, 7864, 9437, 11010, 12583, 14156, 15729]
MEAN_LSP = list(PREV_LSP_INIT)

# ---------------------------------------------------------------------------
# tables read from the library's C++ sources
# ---------------------------------------------------------------------------

TABLE_DIR = os.environ.get(
    "KEVRC_TABLE_DIR", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "common"))

_TABLES = {}

_INT_RE = re.compile(r"(?<![\w.])(-?)\s*(0[xX][0-9a-fA-F]+|\d+)[uUlL]*(?![\w.])")


def _strip_comments(text):
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"//[^\n]*", " ", text)
    return text


def _parse_array(text, name):
    """Integers of the brace initialiser that follows the definition of name."""
    for m in re.finditer(r"\b" + re.escape(name) + r"\b", text):
        j = m.end()
        # a definition: [dims] ... = {   (skip declarations ending in ';')
        k = j
        while k < len(text) and text[k] not in "={;(),":
            k += 1
        if k >= len(text) or text[k] != "=":
            continue
        b = text.find("{", k)
        if b < 0:
            continue
        depth = 0
        e = b
        while e < len(text):
            if text[e] == "{":
                depth += 1
            elif text[e] == "}":
                depth -= 1
                if depth == 0:
                    break
            e += 1
        body = text[b + 1:e]
        vals = []
        for sign, num in _INT_RE.findall(body):
            v = int(num, 16) if num.lower().startswith("0x") else int(num)
            vals.append(-v if sign else v)
        return vals
    return None


def _scan_sources(directory):
    texts = []
    # only the table sources (tbl*.cpp / tbl*.h) are read
    for path in sorted(glob.glob(os.path.join(directory, "tbl*.cpp")) +
                       glob.glob(os.path.join(directory, "tbl*.h"))):
        with open(path, encoding="utf-8", errors="replace") as f:
            texts.append((path, _strip_comments(f.read())))
    return texts


def load_tables(directory=None, force=False):
    """Load the LSP codebooks and the eighth-rate energy table.

    Returns the dict of tables; raises RuntimeError if any is missing.
    """
    if _TABLES and not force:
        return _TABLES
    directory = directory or TABLE_DIR
    texts = _scan_sources(directory)
    want = {"kevrc_tbl_lsp_fr": 2176, "kevrc_tbl_lsp_hr": 1792,
            "kevrc_tbl_lsp_1_8": 160}
    found = {}
    for name, count in want.items():
        for path, text in texts:
            vals = _parse_array(text, name)
            if vals is not None:
                if len(vals) != count:
                    raise RuntimeError("%s in %s has %d values, expected %d"
                                       % (name, path, len(vals), count))
                found[name] = vals
                break
    # energy gain table: a 768-value array whose name mentions energy/gain
    energy = None
    for path, text in texts:
        for m in re.finditer(r"\b(kevrc\w*energy\w*|kevrc\w*_1_8_gain\w*|kevrc\w*gain\w*1_8\w*)\b", text):
            vals = _parse_array(text, m.group(1))
            if vals is not None and len(vals) == 768:
                energy = vals
                break
        if energy is not None:
            break
    if energy is not None:
        found["energy"] = [energy[3 * i:3 * i + 3] for i in range(256)]
    missing = [n for n in list(want) + ["energy"] if n not in found]
    if missing:
        raise RuntimeError("tables not found in %s: %s" % (directory, ", ".join(missing)))
    _TABLES.clear()
    _TABLES.update(found)
    return _TABLES


def set_tables(lsp_fr, lsp_hr, lsp_1_8, energy_rows):
    """Install tables directly (used by tests with stand-in tables)."""
    _TABLES.clear()
    _TABLES.update({"kevrc_tbl_lsp_fr": list(lsp_fr), "kevrc_tbl_lsp_hr": list(lsp_hr),
                    "kevrc_tbl_lsp_1_8": list(lsp_1_8),
                    "energy": [list(r) for r in energy_rows]})


# ---------------------------------------------------------------------------
# Fixed-point primitives
# ---------------------------------------------------------------------------


def _hi(a):
    return a >> 16


def _lo(a):
    return (a >> 1) & 0x7FFF


def mul_32_32(a, b):
    a = wrap32(a)
    b = wrap32(b)
    ah, al, bh, bl = _hi(a), _lo(a), _hi(b), _lo(b)
    t = wrap32(2 * ah * bh)
    inner = wrap32(ah * bl + al * bh + ((al * bl) >> 15))
    return wrap32(t + (inner >> 14))


def mul_32_16(a, b):
    a = wrap32(a)
    b = wrap16(b)
    ah, al = _hi(a), _lo(a)
    return wrap32(wrap32(2 * ah * b) + ((al * b) >> 14))


def div_32_32(num, den):
    num = wrap32(num)
    den = wrap32(den)
    dh = wrap16(den >> 16)
    if dh == 16383:
        return 32767
    if dh < 16383:
        return 0
    a = 536838144 // dh
    e = wrap32(0x7FFFFFFF - mul_32_16(den, a))
    r = mul_32_16(e, a)
    return wrap32(mul_32_32(num, r) << 2)


def div_16_16(num, den):
    num = wrap16(num)
    den = wrap16(den)
    if num > den or num < 0 or den < 0:
        return 0
    if num == den:
        return 32767
    q = (num * 32768) // den      # both non-negative here: truncation = floor
    return sat16(q)


def norm_32(x):
    x = wrap32(x)
    if x == 0:
        return 0
    if x == -1:
        return 31
    y = x ^ (x >> 31)
    n = 0
    while y <= 0x3FFFFFFF:
        y <<= 1
        n += 1
    return n


def norm_16(x):
    return norm_32(wrap16(x) * 65536)


def squar_rt(x):
    x = wrap32(x)
    h = x >> 1
    t = wrap32(h - 0x40000000) >> 16
    acc = wrap32(h + 0x40000000)
    u = wrap32(-2 * t * t)
    acc = wrap32(acc + (u >> 1))
    t2 = u >> 16
    v = wrap32(-2 * t2 * t)
    acc = wrap32(acc + (v >> 1))
    t3 = v >> 16
    r4 = wrap32(2 * t * t3 + 0x8000) >> 16
    r5 = wrap32(-2 * t3 * t2 + 0x8000) >> 16
    acc = wrap32(acc + wrap32(2 * wrap32(-20480 * r4)) + wrap32(2 * wrap32(28672 * r5)))
    s = acc + 0x8000
    if s > 0x7FFFFFFF:
        return 32767
    return s >> 16


def inv_sqrt(x):
    x = wrap32(x)
    if x <= 0:
        return 0x3FFFFFFF
    n = norm_32(x)
    y = wrap32(x << n)
    e = 30 - n
    if (e & 1) == 0:
        y >>= 1
    s = (e >> 1) + 1
    i = (y >> 25) - 16
    f = (y >> 10) & 0x7FFF
    d = wrap16(INV_SQRT_TBL[i] - INV_SQRT_TBL[i + 1])
    r = wrap32((INV_SQRT_TBL[i] << 16) - 2 * d * f)
    return r >> s


def log2_q26(x):
    x = wrap32(x)
    n = norm_32(x)
    m = wrap32(x << n) >> 16
    q = wrap16((m * m + 0x4000) >> 15)
    L = wrap32(wrap32(0xAB300000) + wrap32(2 * (-11050 * q)) + wrap32(2 * (32709 * m)))
    return wrap32((((L & 0xFFFFFFFF) >> 3) & 0x3FFFFFF) + ((-n - 1) << 26))


def log_q26(x):
    return mul_32_16(log2_q26(x), 22713)


def log10_q26(x):
    return mul_32_16(log2_q26(x), 9864)


# ---------------------------------------------------------------------------
# Filters, interpolation, LSP-to-LPC
# ---------------------------------------------------------------------------


def iir(inp, coef, mem, n):
    """All-pole synthesis 1/A(z). mem (10, newest first) is updated in place."""
    out = [0] * max(n, 0)
    for i in range(n):
        acc = wrap32(inp[i] * 8192)
        for k in range(9, 0, -1):
            acc = wrap32(acc - 2 * coef[k] * mem[k])
            mem[k] = mem[k - 1]
        acc = wrap32(acc - 2 * coef[0] * mem[0])
        v = 8 * acc
        if v > 0x7FFFFFFF:
            y = 32767
        elif v < -0x80000000:
            y = -32768
        else:
            y = sat16((v + 0x8000) >> 16)  # team decision: rounding saturates too
        mem[0] = y
        out[i] = y
    return out


def fir(inp, coef, mem, n):
    """Prediction-error filter A(z), no saturation."""
    out = [0] * max(n, 0)
    for i in range(n):
        x = inp[i]
        acc = wrap32(x * 8192)
        for k in range(9, 0, -1):
            acc = wrap32(acc + 2 * coef[k] * mem[k])
            mem[k] = mem[k - 1]
        acc = wrap32(acc + 2 * coef[0] * mem[0])
        mem[0] = x
        out[i] = wrap16(wrap32(wrap32(8 * acc) + 0x8000) >> 16)
    return out


def interpol(prev, cur, sub):
    w = 16384 if sub == 1 else (27306 if sub == 2 else 5462)
    out = []
    for k in range(10):
        d = wrap16(cur[k] - prev[k])
        out.append(wrap16(wrap32(2 * d * w + prev[k] * 65536 + 0x8000) >> 16))
    return out


def interpol_delay(out, prev, cur, sub):
    """Writes the contour into out (list of 3); any other sub leaves it."""
    p = wrap16(prev)
    d = wrap16(cur - prev)
    P = p * 65536
    D0 = wrap32(P)
    D53 = wrap32(P + 2 * 10856 * d)
    D106 = wrap32(P + 2 * 21709 * d)
    D160 = wrap32(P + d * 65536)
    if sub == 0:
        out[0], out[1], out[2] = D0, D53, D106
    elif sub == 1:
        out[0], out[1], out[2] = D53, D106, D160
    elif sub == 2:
        out[0], out[1], out[2] = D106, D160, D160
    return out


def cos129(x):
    x = wrap16(x)
    a = abs(x)
    i = a >> 7
    if i > 128:
        a2 = 32768 - a
        i = a2 >> 7
        g = wrap16(i * 128 - a2)
    else:
        g = wrap16(i * 128 - x)
    c = COS_TBL[i]
    s = SIN_TBL[i]
    t1 = mul_32_16(wrap32(2 * 3217 * g), s)
    h = wrap32(2 * 10106 * g + 0x8000) >> 16
    t2 = mul_32_16(wrap32(2 * g * h), c)
    return wrap32(64 * wrap32(t1 - t2) + c * 65536)


def lsp2lpc(lsp):
    """Repairs lsp (list of 10) in place; returns the 10 LPC coefficients (Q12)."""
    step = None
    if lsp[0] <= 0:
        lsp[0] = 721
        if lsp[9] >= 16384:
            step = 1563
            lsp[9] = 16351
        else:
            step = wrap32(2 * 3277 * wrap16(lsp[9] - 721) + 0x8000) >> 16
    elif lsp[9] >= 16384:
        step = wrap32(2 * 3277 * wrap16(16351 - lsp[0]) + 0x8000) >> 16
        lsp[9] = 16351
    if step is not None:
        for k in range(9, 0, -1):
            lsp[k] = sat16(lsp[k - 1] + step)
    p = [wrap32(cos129(lsp[2 * j]) + 0x8000) >> 16 for j in range(5)]
    q = [wrap32(cos129(lsp[2 * j + 1]) + 0x8000) >> 16 for j in range(5)]
    pr1 = [0] * 5
    pr2 = [0] * 5
    qr1 = [0] * 5
    qr2 = [0] * 5
    lpc = [0] * 10
    for n in range(11):
        up = 0x2000000 if n < 2 else 0
        uq = 0x2000000 if n == 0 else (-0x2000000 if n == 1 else 0)
        for j in range(5):
            o = wrap32(pr2[j] + wrap32(up - mul_32_16(wrap32(2 * pr1[j]), p[j])))
            pr2[j] = pr1[j]
            pr1[j] = up
            up = o
        for j in range(5):
            o = wrap32(qr2[j] + wrap32(2 * wrap32((uq >> 1) - mul_32_16(qr1[j], q[j]))))
            qr2[j] = qr1[j]
            qr1[j] = uq
            uq = o
        if n >= 1:
            lpc[n - 1] = wrap16(wrap32(4 * wrap32(up + uq) + 0x8000) >> 16)
    return lpc


# ---------------------------------------------------------------------------
# Adaptive codebook
# ---------------------------------------------------------------------------


class OutOfWindow(Exception):
    pass


def bilinear_intrpol(buf, pos, delay, cutoff, N):
    """One interpolated sample from buf around position pos."""
    delay = wrap32(delay)
    I = ((delay >> 16) + 128) >> 8
    e = wrap32(I * (1 << 24) - delay)
    v = wrap16(e >> 15)
    p = (v + 288) >> 6
    if p == 8:
        I -= 1
        p = 0
    T = 2 * N + 1
    if T <= 0:
        return 0
    if wrap16(cutoff) == 29491:
        flat, width = HAM17_FLAT, 17
    else:
        flat, width = HAM7_FLAT, 7
    acc = 0
    base = pos - I - N
    for k in range(T):
        idx = p * width + k
        j = base + k
        if idx >= len(flat) or j < 0 or j >= len(buf):
            raise OutOfWindow()
        acc = wrap32(acc + 2 * flat[idx] * buf[j])
    return wrap16(wrap32(acc + 0x8000) >> 16)


def get_codebook(obuf, opos, xbuf, xpos, L, contour, cutoff, N):
    c = 1296593899 if L == 53 else 1272582903
    d = wrap32(contour[0] << 8)
    obuf[opos] = bilinear_intrpol(xbuf, xpos, d, cutoff, N)
    s1 = mul_32_32(c, wrap32(wrap32(contour[1] - contour[0]) << 3))
    for i in range(1, L):
        d = wrap32(d + s1)
        obuf[opos + i] = bilinear_intrpol(xbuf, xpos + i, d, cutoff, N)
    d = wrap32(contour[1] << 8)
    obuf[opos + L] = bilinear_intrpol(xbuf, xpos + L, d, cutoff, N)
    s2 = mul_32_32(c, wrap32(wrap32(contour[2] - contour[1]) << 3))
    for i in range(L + 1, L + 10):
        d = wrap32(d + s2)
        obuf[opos + i] = bilinear_intrpol(xbuf, xpos + i, d, cutoff, N)


def acb_excitation(exc, gain, contour, L):
    """In-place adaptive-codebook build at word 128 of the excitation buffer."""
    get_codebook(exc, 128, exc, 128, L, contour, 29491, 8)
    for i in range(L - 1, -1, -1):
        exc[128 + i] = wrap16((exc[128 + i] * gain + 8192) >> 14)


# ---------------------------------------------------------------------------
# Bit reader
# ---------------------------------------------------------------------------


class BitReader:
    def __init__(self, data, size):
        self.data = data
        self.size = size
        self.bitpos = 0

    def copy(self):
        r = BitReader(self.data, self.size)
        r.bitpos = self.bitpos
        return r

    def read(self, n):
        v = 0
        for _ in range(n):
            byte = self.bitpos >> 3
            if 0 <= byte < self.size and byte < len(self.data):
                bit = (self.data[byte] >> (7 - (self.bitpos & 7))) & 1
            else:
                bit = 0
            v = (v << 1) | bit
            self.bitpos += 1
        return v

    def consumed(self):
        return min((self.bitpos + 7) // 8, self.size)


# ---------------------------------------------------------------------------
# Fixed-codebook decoding
# ---------------------------------------------------------------------------


def fcb_fr(words, length):
    vec = [0] * length
    t = (words[3] >> 9) & 3
    for k in range(3):
        w = words[k]
        p = w & 0x7F
        neg = (w >> 7) & 1
        track = t + k
        if track == 5:
            track = 0
        if p <= 120:
            first = 5 * ((p * 2979) >> 15) + track
            second = 5 * (p % 11) + track
            sv = -1 if neg else 1
            if first < length:
                vec[first] = sv
            if second < length:
                if first <= second:
                    vec[second] = wrap16(vec[second] + sv)
                else:
                    vec[second] = -sv
    w = words[3]
    p = w & 0x7F
    if p > 120:
        return vec
    first = 5 * ((p * 2979) >> 15) + (t + 3) % 5
    second = 5 * (p % 11) + (t + 4) % 5
    if first < length:
        vec[first] = -1 if (w >> 8) & 1 else 1
    if second < length:
        vec[second] = -1 if (w >> 7) & 1 else 1
    return vec


def fcb_hr(word, length):
    vec = [0] * length
    i = word & 7
    j = (word >> 3) & 7
    k = (word >> 6) & 7
    s = -1 if (word >> 9) & 1 else 1
    for pos, val in ((7 * i + 4, s), (7 * j + 2, -s), (7 * k, s)):
        if pos < length:
            vec[pos] = val
    return vec


# ---------------------------------------------------------------------------
# Gaussian noise generator
# ---------------------------------------------------------------------------


class NoiseState:
    def __init__(self, seed=0, flag=0, stored=0):
        self.seed = seed
        self.flag = flag
        self.stored = stored


def _lcg(s_signed):
    return ((s_signed * 50346 + 27698) >> 1) & 0xFFFF


def _gauss_scale(d, t, s):
    if s >= 0:
        return sat32(d * t * (1 << s))
    return (d * t) >> (-s)


def ran_noise_gen(g):
    if g.flag:
        g.flag = 0
        st = g.stored
        if st == MAX32:
            return 32767
        if st == MIN32:
            return -32768
        return wrap16(wrap32(st + 32768) >> 16)
    s1 = _lcg(wrap16(g.seed))
    u1 = (s1 >> 1) - 16384
    s2 = _lcg(wrap16(s1))
    u2 = (s2 >> 1) - 16384
    g.seed = wrap16(s2)
    d1 = 2 * u1
    d2 = 2 * u2
    r = wrap32(d1 * d1 + d2 * d2)
    if 0 < r < (1 << 30):
        R2 = 2 * r
        Ln = wrap32(-log_q26(R2))
        if Ln <= 0:
            g.stored = 0
            g.flag = 1
            return 0
        e = norm_32(R2)
        m = wrap32(R2 << e) >> 16
        nL = norm_32(Ln)
        Lm = wrap32(Ln << nL) >> 16
        adj = 0
        if Lm > m:
            Lm >>= 1
            adj = 1
        q = div_16_16(Lm, m)
        X = adj + e - nL + 6
        nq = norm_16(q)
        q = wrap16(q << nq)
        X -= nq
        t = squar_rt(wrap32(q << 16))
        if X & 1:
            t = (t * 23170) >> 15
            X += 1
        s = (X >> 1) - 1
        g.stored = _gauss_scale(d1, t, s)
        g.flag = 1
        v = _gauss_scale(d2, t, s)
        return sat16((v + 32768) >> 16)
    s3 = _lcg(wrap16(s2))
    g.seed = wrap16(s3)
    return wrap16((d2 >> 3) + (u1 >> 2) + (((s3 >> 1) - 16384) >> 2))


# ---------------------------------------------------------------------------
# Output formatting
# ---------------------------------------------------------------------------


def to_8bit(x):
    return (x + 128) >> 8 if x < 32640 else x >> 8


def recon(frame, interleaved, channel_mode, sample_format):
    """Returns (status, record). record: channels, bits, sample_rate,
    interleaved, samples{idx: n}, bytes{idx: n}, data{idx: list}."""
    rec = {"channels": 1, "sample_rate": 8000, "interleaved": 1 if interleaved else 0,
           "bits": 16, "samples": {}, "bytes": {}, "data": {}}
    if sample_format == 1:
        rec["bits"] = 8
        frame = [to_8bit(x) for x in frame]
    elif sample_format in (0, 2):
        frame = list(frame)
    else:
        return -3, rec
    if channel_mode < 0 or channel_mode > 2:
        return -3, rec
    second = None
    if channel_mode == 2:
        second = list(frame)
        rec["channels"] = 2
    bps = rec["bits"] // 8
    if interleaved:
        if channel_mode in (0, 1):
            rec["samples"][0] = 160
            rec["bytes"][0] = 160 * bps
            rec["data"][0] = frame
        else:
            rec["samples"][0] = 320
            rec["bytes"][0] = 320 * bps
            d = []
            for a, b in zip(frame, second):
                d.append(a)
                d.append(b)
            rec["data"][0] = d
    else:
        if channel_mode == 0:
            rec["samples"][1] = 160
            rec["bytes"][1] = 160 * bps
            rec["data"][1] = frame
        elif channel_mode == 1:
            rec["samples"][1] = rec["samples"][2] = 160
            rec["bytes"][1] = rec["bytes"][2] = 160 * bps
            rec["data"][1] = frame
            rec["data"][2] = list(frame)
        else:
            rec["samples"][1] = rec["samples"][2] = 160
            rec["bytes"][1] = rec["bytes"][2] = 160 * bps
            rec["data"][1] = frame
            rec["data"][2] = second
    return 0, rec


# ---------------------------------------------------------------------------
# Decoder
# ---------------------------------------------------------------------------

SUBFRAME_LEN = (53, 53, 54)

# How the postfilter keeps its best lag correlation:
#  'a': compare aligned copies, a winner is stored as its own mantissa/exponent
#  'b': the smaller-exponent value is shifted in place (the best keeps the
#       larger exponent even when not replaced)
#  'c': compare aligned copies, a winner is stored aligned (larger exponent)
PF_BEST_MODE = os.environ.get("KEVRC_PF_BEST_MODE", "a")


def bf_accumulate(xs, ys, n):
    """Block-floating sum of 2*x*y; returns (mantissa, exponent)."""
    s = 0
    e = 1
    for i in range(n):
        term = wrap32(2 * xs[i] * ys[i])
        s = wrap32(s + (term >> e))
        if s > 0x3FFFFFFF:
            s >>= 1
            e += 1
    return s, e


def pf_rounded_delay(delay):
    return wrap16(((wrap32(delay + 0x8000)) & 0xFFFFFFFF) >> 16)


def pf_lag_range(T0):
    lo = 20 if T0 <= 22 else T0 - 3
    hi = T0 + 3 if T0 <= 117 else 120
    return lo, hi


class Work:
    """Per-frame scratch, cleared at the start of every frame."""

    def __init__(self):
        self.rate = 0
        self.lookahead = []
        self.lpc_flag = 0
        self.lsp_idx = [0, 0, 0, 0]
        self.delay = 0
        self.delay_diff = 0
        self.acb_idx = [0, 0, 0]
        self.fcb_gain_idx = [0, 0, 0]
        self.fcb_words = [[0, 0, 0, 0] for _ in range(3)]
        self.new_lsp = [0] * 10
        self.lpc = [0] * 10
        self.contour = [0, 0, 0]
        self.pf_num = [0] * 10
        self.pf_den = [0] * 10
        self.pf_R = [0] * 54
        self.pf_out = [0] * 54
        self.out = [0] * 160

    def acb_index(self, sub):
        return self.acb_idx[sub] if 0 <= sub < 3 else 0

    def fcb_gain_index(self, sub):
        return self.fcb_gain_idx[sub] if 0 <= sub < 3 else 0

    def fcb_word(self, sub):
        return self.fcb_words[sub] if 0 <= sub < 3 else [0, 0, 0, 0]


RATE_PARAMS = {
    1: dict(nsplits=2, dims=(5, 5), entries=(16, 16), widths=(4, 4),
            book="kevrc_tbl_lsp_1_8", fcb_tbl=FCB_GAIN_TBL_16),
    3: dict(nsplits=3, dims=(3, 3, 4), entries=(128, 128, 256), widths=(7, 7, 8),
            book="kevrc_tbl_lsp_hr", fcb_tbl=FCB_GAIN_TBL_16),
    4: dict(nsplits=4, dims=(2, 2, 3, 3), entries=(64, 64, 512, 128), widths=(6, 6, 9, 7),
            book="kevrc_tbl_lsp_fr", fcb_tbl=FCB_GAIN_TBL_32),
}


class Decoder:
    def __init__(self, interleaved=1, channel_mode=0, sample_format=0, postfilter=0):
        self.interleaved = interleaved
        self.channel_mode = channel_mode
        self.sample_format = sample_format
        self.postfilter = postfilter
        # everything zero at creation
        self.prev_lsp = [0] * 10
        self.syn_mem = [0] * 10
        self.exc = [0] * 200
        self.saved_exc = [0] * 128
        self.pf_tilt = 0
        self.pf_num_mem = [0] * 10
        self.pf_syn_mem = [0] * 10
        self.pf_res = [0] * 182
        self.delay = 0
        self.mean_acb = 0
        self.frame_erased = 0
        self.mean_fcb = 0
        self.recovery = 0
        self.erasure_flag = 0
        self.bad_frame_flag = 0
        self.all_ones_count = 0
        self.params = RATE_PARAMS[4]
        self.erasure_noise = NoiseState(0, 0, 0)   # erasure seed; pair state shared with self.noise
        self.noise = NoiseState(1234, 0, 0)
        self.sub_gains = [0, 0, 0]
        self.last_energy_idx = 0
        self.conceal_gain = 0
        self.rebuild_start = 0
        self.last_frame_erased = 0
        self.frame_count = 0
        self.last_rate = 0
        self.previous_rate = 0
        self.reader = None
        self.work = Work()
        self.init_state()

    # -- lifecycle -------------------------------------------------------
    def set_decode_params(self, rate):
        if rate in RATE_PARAMS:
            self.params = RATE_PARAMS[rate]

    def init_state(self):
        self.set_decode_params(4)
        self.prev_lsp = list(PREV_LSP_INIT)
        self.syn_mem = [0] * 10
        for i in range(128):
            self.exc[i] = 0
        self.saved_exc = [0] * 128
        self.delay = 40
        self.mean_acb = 0
        self.frame_erased = 0
        self.mean_fcb = 0
        self.recovery = 0
        self.erasure_flag = 0
        self.bad_frame_flag = 0
        self.all_ones_count = 0
        self.erasure_noise.seed = 0
        self.noise.flag = 0
        self.noise.seed = 1234
        self.conceal_gain = 32767
        self.last_frame_erased = 0
        self.frame_count = 0
        self.previous_rate = 1
        return 0

    def reset(self):
        self.prev_lsp = list(PREV_LSP_INIT)
        self.syn_mem = [0] * 10
        self.exc = [0] * 200
        self.saved_exc = [0] * 128
        self.pf_tilt = 0
        self.pf_num_mem = [0] * 10
        self.pf_syn_mem = [0] * 10
        self.pf_res = [0] * 182
        self.rebuild_start = 0
        self.last_rate = 0
        self.previous_rate = 0

    # -- helpers ---------------------------------------------------------
    def shift_history(self, L):
        self.exc[0:128] = self.exc[L:L + 128]

    # -- unpacking -------------------------------------------------------
    def vld(self):
        wk = self.work
        rd = self.reader
        r = wk.rate
        la = rd.copy()
        nwords = {4: 11, 3: 5, 1: 1}[r]
        wk.lookahead = [la.read(16) for _ in range(nwords)]
        total = sum(wrap16(w) for w in wk.lookahead)
        step = None
        if total == 0 and r != 1:
            r = 14
            self.all_ones_count = 0
            step = 3
        elif total == 0 and r == 1:
            self.erasure_flag = self.bad_frame_flag = self.all_ones_count = 0
            step = 4
        elif r == 1 and wk.lookahead[0] == 0xFFFF:
            self.all_ones_count += 1
            if self.all_ones_count <= 2:
                step = 3
            else:
                self.all_ones_count = 3
                self.erasure_flag = self.bad_frame_flag = 0
                step = 4
        elif r in (1, 3, 4):
            self.erasure_flag = self.bad_frame_flag = self.all_ones_count = 0
            step = 4
        else:
            self.all_ones_count = 0
            self.bad_frame_flag = 1
            step = 5
        if step == 3:
            self.erasure_flag = 1
            step = 4 if r == 1 else 5
        if step == 4:
            if r == 1 and self.previous_rate == 4:
                if not self.last_frame_erased:
                    self.bad_frame_flag = 1
                    self.erasure_flag = 1
                    r = 4
                    step = 5
                elif not (self.erasure_flag or self.bad_frame_flag):
                    step = 6
                else:
                    r = 4
                    step = 7
            else:
                step = 5
        if step == 5:
            if self.erasure_flag or self.bad_frame_flag:
                r = 1 if self.previous_rate == 1 else 4
                step = 7
            else:
                step = 6
        if step == 6:
            self.previous_rate = r
        self.set_decode_params(r)
        wk.rate = r
        if self.frame_erased:
            return 0
        if r == 1:
            wk.lsp_idx[0] = rd.read(4)
            wk.lsp_idx[1] = rd.read(4)
            en = rd.read(8)
            wk.fcb_gain_idx = [en, en, en]
            return 0
        if r == 4:
            wk.lpc_flag = rd.read(1)
        else:
            wk.lpc_flag = 0
        P = self.params
        for s in range(P["nsplits"]):
            wk.lsp_idx[s] = rd.read(P["widths"][s])
        wk.delay = rd.read(7) + 20
        if r == 4:
            wk.delay_diff = rd.read(5)
        for k in range(3):
            wk.acb_idx[k] = rd.read(3)
            if r == 4:
                wk.fcb_words[k] = [rd.read(8), rd.read(8), rd.read(8), rd.read(11)]
                wk.fcb_gain_idx[k] = rd.read(5)
            else:
                wk.fcb_words[k] = [rd.read(10), 0, 0, 0]
                wk.fcb_gain_idx[k] = rd.read(4)
        return 0

    # -- LSP dequantization ----------------------------------------------
    def lsp_vq_evol(self):
        wk = self.work
        P = self.params
        book = load_tables()[P["book"]]
        lsp = [0] * 10
        p = 0
        o = 0
        for s in range(P["nsplits"]):
            dim = P["dims"][s]
            base = o + dim * wk.lsp_idx[s]
            for j in range(dim):
                lsp[p + j] = book[base + j]
            p += dim
            o += dim * P["entries"][s]
        wk.new_lsp = lsp
        if wk.rate == 1:
            for i in range(9, 0, -1):
                if lsp[i] <= lsp[i - 1]:
                    self.frame_erased = 1
            if lsp[5] > lsp[4] + 261 and not self.frame_erased:
                return 0
            self.frame_erased = 1
            wk.new_lsp = list(self.prev_lsp)
            return 0
        for i in range(9, 0, -1):
            if lsp[i] <= lsp[i - 1]:
                self.bad_frame_flag = 1
                return -1
        if wk.rate == 3:
            ok = lsp[3] > lsp[2] + 261 and lsp[6] > lsp[5] + 261
        else:
            ok = (lsp[2] > lsp[1] + 261 and lsp[4] > lsp[3] + 261
                  and lsp[7] > lsp[6] + 261)
        if ok:
            return 0
        self.bad_frame_flag = 1
        return -1

    # -- postfilter ------------------------------------------------------
    def apf(self, s, delay, n):
        wk = self.work
        rate = wk.rate
        if rate == 4:
            fn, fd, mu, pf = WFAC_ALPHA, WFAC_BETA, 6554, 16384
        elif rate == 3:
            fn, fd, mu, pf = WFAC_GAMMA_2, WFAC_BETA, 11469, 16384
        elif rate == 1:
            fn, fd, mu, pf = WFAC_ALPHA, WFAC_ALPHA, 0, 0
        else:
            fn = fd = None
            mu = pf = 0
        if fn is not None:
            wk.pf_num = [wrap16((wk.lpc[k] * fn[k] + 16384) >> 15) for k in range(10)]
            wk.pf_den = [wrap16((wk.lpc[k] * fd[k] + 16384) >> 15) for k in range(10)]
        num, den = wk.pf_num, wk.pf_den
        # tilt decision
        c = 0
        for i in range(n - 1):
            c += wrap32(2 * s[i] * s[i + 1])
        if n - 1 >= 1 and c < 0:
            mu = 0
        # tilt filter then zero part
        R = [0] * n
        mem = self.pf_tilt
        for i in range(n):
            R[i] = wrap32(s[i] * 65536 - 2 * mem * mu + 0x8000) >> 16
            mem = s[i]
        self.pf_tilt = mem
        R = fir(R, num, self.pf_num_mem, n)
        wk.pf_R[0:n] = R
        res = self.pf_res
        res[128:182] = wk.pf_R[0:54]
        # pitch search
        T0 = pf_rounded_delay(delay)
        lo, hi = pf_lag_range(T0)
        cur = res[128:128 + n]
        best_m, best_e, best_T = 0, 1, T0
        for T in range(lo, hi + 1):
            K, eK = bf_accumulate(cur, res[128 - T:128 - T + n], n)
            if PF_BEST_MODE == "b":
                if eK > best_e:
                    best_m >>= (eK - best_e)
                    best_e = eK
                else:
                    K >>= (best_e - eK)
                if K > best_m:
                    best_m, best_T = K, T
            else:
                if eK > best_e:
                    bm, kk, ee = best_m >> (eK - best_e), K, eK
                else:
                    bm, kk, ee = best_m, K >> (best_e - eK), best_e
                if kk > bm:
                    best_T = T
                    if PF_BEST_MODE == "c":
                        best_m, best_e = kk, ee
                    else:
                        best_m, best_e = K, eK
        Tb = best_T
        if not 0 <= Tb <= 128:
            raise OutOfWindow()
        past = res[128 - Tb:128 - Tb + n]
        E, eE = bf_accumulate(past, past, n)
        X, eX = bf_accumulate(past, cur, n)
        if eE > eX:
            X >>= (eE - eX)
        else:
            E >>= (eX - eE)
        filt = False
        g = 0
        if not (rate == 1 or E == 0 or X == 0 or (X < 0 and E > X)):
            if E <= X:
                g = 0x7FFFFFFF
            else:
                k = norm_32(E)
                g = div_32_32(wrap32(X << k), wrap32(E << k))
            filt = g > 0x3FFFFFFF
        if filt:
            gp = mul_32_16(g, pf)
            Pv = [wrap16(cur[i] + (wrap32(mul_32_16(gp, past[i]) + 0x8000) >> 16))
                  for i in range(n)]
        else:
            Pv = list(cur)
        # gain control
        scratch = list(self.pf_syn_mem)
        Q = iir(Pv, den, scratch, n)
        Es, eS = bf_accumulate(s, s, n)
        Eq, eQ = bf_accumulate(Q, Q, n)
        if eS > eQ:
            Eq >>= (eS - eQ)
        else:
            Es >>= (eQ - eS)
        if Eq != 0:
            k = norm_32(Eq)
            d = wrap32(Eq << k)
            j = k - 2
            if j <= 0:
                m = Es >> (-j)
            else:
                m = sat32(Es * (1 << j))
            q = div_32_32(m, d)
            e = norm_32(q)
            if e > 0:
                q = sat32(q * (1 << e))
            else:
                q = q >> (-e)
            t = squar_rt(q)
            if e & 1:
                G = wrap32(2 * t * 23170)
            else:
                G = wrap32(t * 65536)
            G >>= (e >> 1)
            Pv = [wrap16(wrap32(wrap32(2 * mul_32_16(G, x)) + 0x8000) >> 16) for x in Pv]
        out = iir(Pv, den, self.pf_syn_mem, n)
        wk.pf_out[0:n] = out
        res[0:128] = res[n:n + 128]
        return out

    # -- eighth rate -----------------------------------------------------
    def get_excitation(self, started, sub):
        wk = self.work
        energy = load_tables()["energy"]
        if sub == 0:
            if started == 0:
                self.noise.seed = 1234
            if self.frame_erased:
                row = energy[self.last_energy_idx]
                m = (sum(wrap32(gv * 10923 * 2) for gv in row) + 32768) >> 16
                self.sub_gains = [wrap16(m)] * 3
            else:
                self.last_energy_idx = wk.fcb_gain_idx[0]
                self.sub_gains = list(energy[self.last_energy_idx])
        L = SUBFRAME_LEN[sub]
        gain = self.sub_gains[sub]
        for i in range(L):
            nz = ran_noise_gen(self.noise)
            self.exc[128 + i] = wrap16((((nz * gain) >> 4) + 32768) >> 16)

    def decode_rate_1_8(self):
        wk = self.work
        wk.contour = [20 << 16] * 3
        if not self.frame_erased:
            self.lsp_vq_evol()
        off = 0
        for sub in range(3):
            L = SUBFRAME_LEN[sub]
            started = 0 if (sub == 0 and self.frame_count == 0 and self.last_rate != 1) else 1
            if self.all_ones_count > 2:
                wk.fcb_gain_idx[sub] = 64
            self.get_excitation(started, sub)
            self.shift_history(L)
            ilsp = interpol(self.prev_lsp, wk.new_lsp, sub)
            wk.lpc = lsp2lpc(ilsp)
            syn = iir(self.exc[128:128 + L], wk.lpc, self.syn_mem, L)
            if self.postfilter:
                self.apf(syn, 20 << 16, L)
            wk.out[off:off + L] = wk.pf_out[0:L]
            off += L
        return 0

    # -- shared subframe tail ---------------------------------------------
    def _synth_out(self, L, off):
        wk = self.work
        syn = iir(self.exc[128:128 + L], wk.lpc, self.syn_mem, L)
        if self.postfilter:
            d = wrap32(wk.contour[0] + wk.contour[1]) >> 1
            self.apf(syn, d, L)
        else:
            wk.pf_out[0:L] = syn
        for i in range(L):
            wk.out[off + i] = sat16(2 * wk.pf_out[i])

    # -- concealment -----------------------------------------------------
    def conceal(self):
        wk = self.work
        if self.recovery != 3:
            self.erasure_noise.seed = wrap16(2 * self.prev_lsp[9])
        else:
            self.mean_acb = wrap16((self.mean_acb * 24576 + 32768) >> 16)
        self.recovery = 3
        wk.new_lsp = [wrap16(wrap32(MEAN_LSP[k] * 8192 + self.prev_lsp[k] * 57344 + 32768) >> 16)
                      for k in range(10)]
        if wk.rate == 4:
            self.saved_exc = self.exc[0:128]
        wk.delay = self.delay
        off = 0
        for sub in range(3):
            L = SUBFRAME_LEN[sub]
            ilsp = interpol(self.prev_lsp, wk.new_lsp, sub)
            wk.lpc = lsp2lpc(ilsp)
            interpol_delay(wk.contour, self.delay, wk.delay, sub)
            if self.mean_acb < 4915:
                pts = ((55, 80, 39), (80, 39, 71), (39, 71, 33))[sub]
                wk.contour = [v << 16 for v in pts]
            acb_excitation(self.exc, self.mean_acb, wk.contour, L)
            for i in range(L):
                self.exc[128 + i] = wrap16((self.exc[128 + i] * self.conceal_gain + 32768) >> 16)
            self.conceal_gain = max(self.conceal_gain - 1638, 0)
            self.shift_history(L)
            if self.mean_acb <= 6553:
                amp = (self.mean_fcb * 3277 + 16384) >> 15
                for i in range(L):
                    # the generator with its own seed; the pair flag and stored
                    # sample are the generator's (shared with eighth rate)
                    g = self.erasure_noise
                    g.flag, g.stored = self.noise.flag, self.noise.stored
                    nz = ran_noise_gen(g)
                    self.noise.flag, self.noise.stored = g.flag, g.stored
                    self.exc[128 + i] = wrap16(self.exc[128 + i] + ((amp * nz + 16384) >> 15))
            self._synth_out(L, off)
            off += L
        self.delay = wk.delay

    # -- good frame ------------------------------------------------------
    def good_frame(self):
        """Returns None to continue with the common end, or a status that
        ends the frame: ('result', st) after filling the result, ('bare', st)
        without it."""
        wk = self.work
        self.recovery = max(self.recovery - 1, 0)
        if self.lsp_vq_evol() != 0:
            return ("result", -1)
        if wk.delay > 120:
            self.bad_frame_flag = 1
            return ("bare", -2)
        if wk.rate == 4 and wk.delay_diff != 0:
            dd = wk.delay_diff
            v = wk.delay - dd - 4
            if v < 0 or v > 100:
                self.bad_frame_flag = 1
                return ("result", -2)
            if self.recovery == 2:
                self.rebuild_start = self.delay
                self.delay = wrap16(wk.delay + 16 - dd)
                if abs(self.rebuild_start - self.delay) > 15:
                    self.rebuild_start = self.delay
                self.exc[0:128] = self.saved_exc[0:128]
                for sub in range(3):
                    L = SUBFRAME_LEN[sub]
                    interpol_delay(wk.contour, self.rebuild_start, self.delay, sub)
                    acb_excitation(self.exc, self.mean_acb, wk.contour, L)
                    self.shift_history(L)
        if abs(wk.delay - self.delay) > 15:
            self.delay = wk.delay
        self.mean_acb = 0
        self.mean_fcb = 0
        fcb_tbl = self.params["fcb_tbl"]
        off = 0
        for sub0 in range(3):
            L = SUBFRAME_LEN[sub0]
            sub = sub0
            ilsp = interpol(self.prev_lsp, wk.new_lsp, sub)
            wk.lpc = lsp2lpc(ilsp)
            stop = False
            if wk.rate == 4 and wk.lpc_flag and self.recovery == 2:
                wk.lpc = [wrap16((wk.lpc[k] * WFAC_BETA[k] + 16384) >> 15) for k in range(10)]
                sub = 10
                stop = True
            interpol_delay(wk.contour, self.delay, wk.delay, sub)
            g = ACB_GAIN_TBL[wk.acb_index(sub)]
            self.mean_acb = wrap16(self.mean_acb + ((g * 10923 + 16384) >> 15))
            acb_excitation(self.exc, g, wk.contour, L)
            G = fcb_tbl[wk.fcb_gain_index(sub)]
            self.mean_fcb = wrap16(self.mean_fcb + ((G * 1365 + 16384) >> 15))
            if wk.rate == 4:
                c = fcb_fr(wk.fcb_word(sub), L)
            else:
                c = fcb_hr(wk.fcb_word(sub)[0], L)
            cv = c + [0] * (60 - L)
            # pitch sharpening
            if g >= 14745:
                f = 29488
            elif g < 3276:
                f = 6552
            else:
                f = 2 * g
            T = (wrap32(wk.contour[0] + wk.contour[1]) >> 1) + 32768 >> 16
            if T < 0:
                raise OutOfWindow()
            cv = [wrap16(x << 11) for x in cv]
            if T < L:
                for nn in range(T, L):
                    cv[nn] = wrap16(wrap32((cv[nn] << 16) + 2 * f * cv[nn - T] + 32768) >> 16)
            for nn in range(L):
                self.exc[128 + nn] = wrap16(self.exc[128 + nn] + ((cv[nn] * G + 16384) >> 15))
            self.conceal_gain = wrap16(self.conceal_gain + 6554)
            self.shift_history(L)
            self._synth_out(L, off)
            off += L
            if stop:
                break
        self.frame_erased = self.erasure_flag | self.bad_frame_flag
        self.delay = wk.delay
        return None

    # -- frame driver ----------------------------------------------------
    def decode(self, packet, size=None):
        """Decode one packet. Returns (status, consumed or None, record or None).

        consumed is None when the result record is not written; record is the
        PCM buffer description when the output formatter ran."""
        if size is None:
            size = len(packet)
        if size < 0:
            return -4, None, None
        self.work = Work()
        wk = self.work
        self.reader = BitReader(packet, size)
        r = self.reader.read(8)
        if r not in (1, 3, 4):
            return -5, None, None
        if size < {4: 23, 3: 11, 1: 3}[r]:
            return -9, None, None
        wk.rate = r
        st = self.vld()
        if st != 0:
            return st, None, None
        self.frame_erased = self.erasure_flag | self.bad_frame_flag
        if wk.rate == 1:
            self.decode_rate_1_8()
        elif self.frame_erased:
            self.conceal()
        else:
            res = self.good_frame()
            if res is not None:
                kind, status = res
                if kind == "bare":
                    return status, None, None
                return status, self.reader.consumed(), None
        # common end
        self.prev_lsp = list(wk.new_lsp)
        self.last_rate = wk.rate
        self.frame_count = (self.frame_count + 1) & 0xFFFFFFFF
        self.last_frame_erased = self.frame_erased
        _, rec = recon(wk.out, self.interleaved, self.channel_mode, self.sample_format)
        return 0, self.reader.consumed(), rec
