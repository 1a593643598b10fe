// kernel_cli: evaluates the library's kernels on requests read from stdin,
// one "name arg..." line each, in the format of kernels_cli.py, so that the
// two implementations can be compared on random and edge inputs.
// Interpolator requests whose taps would leave the 41-sample window, or whose
// half-length exceeds the table, print "skip".
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <kevrc/kevrc_kernels.h>

namespace {

int16_t w16(long long x) { return static_cast<int16_t>(static_cast<uint16_t>(x & 0xFFFF)); }
int32_t w32(long long x) { return static_cast<int32_t>(static_cast<uint32_t>(x & 0xFFFFFFFF)); }

// Returns false for "skip".
bool bilinear(const std::vector<long long> &a, std::vector<long long> &r) {
  const int32_t d = w32(a[0]);
  const int16_t cutoff = w16(a[1]), n_half = w16(a[2]);
  int32_t i_delay = ((d >> 16) + 128) >> 8;
  const int16_t v = static_cast<int16_t>(static_cast<int32_t>(static_cast<uint32_t>(i_delay) * (1u << 24) - static_cast<uint32_t>(d)) >> 15);
  if (((v + 288) >> 6) == 8) --i_delay;
  const int table_half = cutoff == 29491 ? 8 : 3;
  if (n_half < 0 || n_half > table_half || -i_delay - n_half < -20 || -i_delay + n_half > 20) return false;
  int16_t buf[41], out;
  for (int k = 0; k < 41; ++k) buf[k] = w16(a[3 + k]);
  kevrc_bilinear_intrpol(buf + 20, d, cutoff, n_half, &out);
  r = {out};
  return true;
}

void filter(const std::string &name, const std::vector<long long> &a, std::vector<long long> &r) {
  const int n = static_cast<int>(a[0]);
  int16_t c[10], m[10];
  for (int k = 0; k < 10; ++k) {
    c[k] = w16(a[1 + k]);
    m[k] = w16(a[11 + k]);
  }
  std::vector<int16_t> x(n > 0 ? n : 1), y(n > 0 ? n : 1);
  for (int i = 0; i < n; ++i) x[i] = w16(a[21 + i]);
  if (name == "iir")
    kevrc_iir(x.data(), c, m, static_cast<int16_t>(n), y.data());
  else
    kevrc_fir(x.data(), c, m, static_cast<int16_t>(n), y.data());
  r.assign(y.begin(), y.begin() + (n > 0 ? n : 0));
  r.insert(r.end(), m, m + 10);
}

}  // namespace

int main() {
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream is(line);
    std::string name;
    is >> name;
    std::vector<long long> a;
    for (long long v; is >> v;) a.push_back(v);
    std::vector<long long> r;
    if (name == "mul_32_32") r = {kevrc_mul_32_32(w32(a[0]), w32(a[1]))};
    else if (name == "mul_32_16") r = {kevrc_mul_32_16(w32(a[0]), w16(a[1]))};
    else if (name == "div_32_32") r = {kevrc_div_32_32(w32(a[0]), w32(a[1]))};
    else if (name == "div_16_16") r = {kevrc_div_16_16(w16(a[0]), w16(a[1]))};
    else if (name == "squar_rt") r = {kevrc_squar_rt(w32(a[0]))};
    else if (name == "inv_sqrt") r = {kevrc_inv_sqrt(w32(a[0]))};
    else if (name == "norm_32") r = {kevrc_norm_32(w32(a[0]))};
    else if (name == "norm_16") r = {kevrc_norm_16(w16(a[0]))};
    else if (name == "log2") r = {kevrc_log2(w32(a[0]))};
    else if (name == "log") r = {kevrc_log(w32(a[0]))};
    else if (name == "log10") r = {kevrc_log10(w32(a[0]))};
    else if (name == "cos129") r = {kevrc_interpolation_cos129(w16(a[0]))};
    else if (name == "interpol") {
      int16_t p[10], c[10], o[10];
      for (int k = 0; k < 10; ++k) {
        p[k] = w16(a[k]);
        c[k] = w16(a[10 + k]);
      }
      kevrc_interpol(o, p, c, w16(a[20]));
      r.assign(o, o + 10);
    } else if (name == "interpol_delay") {
      const int16_t sub = w16(a[2]);
      if (sub < 0 || sub > 2) {
        std::printf("none\n");
        continue;
      }
      int32_t o[3] = {0, 0, 0};
      kevrc_interpol_delay(o, w16(a[0]), w16(a[1]), sub);
      r.assign(o, o + 3);
    } else if (name == "lsp2lpc") {
      int16_t l[10], o[10];
      for (int k = 0; k < 10; ++k) l[k] = w16(a[k]);
      kevrc_lsp2lpc(l, o);
      r.assign(l, l + 10);
      r.insert(r.end(), o, o + 10);
    } else if (name == "ran_noise") {
      int16_t seed = w16(a[0]), flag = w16(a[1]);
      int32_t stored = w32(a[2]);
      for (long long i = 0; i < a[3]; ++i) r.push_back(kevrcd_ran_noise_gen(&seed, &flag, &stored));
      r.insert(r.end(), {seed, flag, stored});
    } else if (name == "iir" || name == "fir") {
      filter(name, a, r);
    } else if (name == "bilinear") {
      if (!bilinear(a, r)) {
        std::printf("skip\n");
        continue;
      }
    } else {
      std::printf("error unknown kernel %s\n", name.c_str());
      continue;
    }
    for (size_t i = 0; i < r.size(); ++i) std::printf(i ? " %lld" : "%lld", r[i]);
    std::printf("\n");
  }
  return 0;
}
