// MurmurHash3 x64 128 with a 64-bit seed, folded to one 64-bit value, and its process seed.
#include <tqcore/murmur_hash.h>
#include <tqcore/random.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <type_traits>

namespace tqcore {
namespace {

constexpr uint64_t kC1 = 0x87C37B91114253D5ull;
constexpr uint64_t kC2 = 0x4CF5AD432745937Full;

inline uint64_t rotl64(uint64_t x, int r) noexcept { return (x << r) | (x >> (64 - r)); }

inline uint64_t load64(unsigned char const* p) noexcept {
  uint64_t word;
  std::memcpy(&word, p, 8);  // x86-64 is little-endian, as the hash requires
  return word;
}

inline uint64_t fmix64(uint64_t k) noexcept {
  k ^= k >> 33;
  k *= 0xFF51AFD7ED558CCDull;
  k ^= k >> 33;
  k *= 0xC4CEB9FE1A85EC53ull;
  k ^= k >> 33;
  return k;
}

// h * 5 + c as two one-cycle steps: left to itself the compiler fuses them into one
// three-part lea, which takes three cycles on many x86 cores and sits on the loop's dependency
// chain. The empty asm only keeps the two steps apart.
inline uint64_t times5_plus(uint64_t h, uint64_t c) noexcept {
  h *= 5;
  __asm__("" : "+r"(h));
  return h + c;
}

struct Halves {
  uint64_t h1, h2;

  void block(unsigned char const* p) noexcept {
    h1 ^= rotl64(load64(p) * kC1, 31) * kC2;
    h1 = times5_plus(rotl64(h1, 27) + h2, 0x52DCE729);
    h2 ^= rotl64(load64(p + 8) * kC2, 33) * kC1;
    h2 = times5_plus(rotl64(h2, 31) + h1, 0x38495AB5);
  }
  unsigned char const* blocks(unsigned char const* p, size_t count) noexcept {
    for (; count > 0; --count, p += 16) block(p);
    return p;
  }
  // 1 to 15 bytes, read as if padded with zeros to a block.
  void tail(unsigned char const* p, size_t size) noexcept {
    unsigned char padded[16] = {};
    std::memcpy(padded, p, size);
    h1 ^= rotl64(load64(padded) * kC1, 31) * kC2;
    h2 ^= rotl64(load64(padded + 8) * kC2, 33) * kC1;
  }
  uint64_t finish(uint64_t total) const noexcept {
    uint64_t a = h1 ^ total;
    uint64_t b = h2 ^ total;
    a += b;
    b += a;
    return fmix64(a) + fmix64(b);
  }
};

std::atomic<uint64_t> g_seed{0};

// Drawn on first use, again while its low half is zero, and published once: threads racing
// on the first use all take the first seed stored. The generator it draws from lives in static
// storage built at load, so drawing allocates nothing. (If each kept its own draw, two of them
// could hash one text differently, and interned keys of one text would not meet.)
uint64_t process_seed() noexcept {
  uint64_t seed = g_seed.load(std::memory_order_acquire);
  if (seed != 0) return seed;
  uint64_t drawn;
  do {
    drawn = random_uint64();
  } while (static_cast<uint32_t>(drawn) == 0);
  if (g_seed.compare_exchange_strong(seed, drawn, std::memory_order_acq_rel)) return drawn;
  return seed;  // another thread's draw won
}

// Wide text goes through its UTF-16 form, a stack buffer at a time.
template <class Sink>
void for_each_utf16_chunk(wchar_t const* data, size_t size, Sink sink) noexcept {
  constexpr size_t kChunk = 256;
  char16_t units[kChunk + 1];
  size_t n = 0;
  for (size_t i = 0; i < size; ++i) {
    auto c = static_cast<uint32_t>(static_cast<std::make_unsigned_t<wchar_t>>(data[i]));
    if (c > 0x10FFFF) c = 0xFFFD;
    if (c >= 0x10000) {
      units[n++] = static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
      units[n++] = static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      units[n++] = static_cast<char16_t>(c);
    }
    if (n >= kChunk) {
      sink(units, n * 2);
      n = 0;
    }
  }
  if (n > 0) sink(units, n * 2);
}

}  // namespace

struct MurmurHashContext::State {
  uint64_t seed;
  Halves halves;
  unsigned char tail[16];
  size_t tail_size;
  uint64_t total;

  explicit State(uint64_t s) noexcept : seed(s) { reset(); }
  void reset() noexcept {
    halves = Halves{seed, seed};
    tail_size = 0;
    total = 0;
  }
  void update(unsigned char const* p, size_t size) noexcept {
    total += size;
    if (tail_size > 0) {
      size_t const take = std::min(size, 16 - tail_size);
      std::memcpy(tail + tail_size, p, take);
      tail_size += take;
      p += take;
      size -= take;
      if (tail_size < 16) return;
      halves.block(tail);
      tail_size = 0;
    }
    p = halves.blocks(p, size / 16);
    tail_size = size % 16;
    std::memcpy(tail, p, tail_size);
  }
  uint64_t digest() const noexcept {
    Halves h = halves;
    if (tail_size > 0) h.tail(tail, tail_size);
    return h.finish(total);
  }
};

uint64_t murmur_hash(void const* data, size_t size) {
  auto const* p = static_cast<unsigned char const*>(data);
  uint64_t const seed = process_seed();
  Halves h{seed, seed};
  p = h.blocks(p, size / 16);
  if (size % 16 != 0) h.tail(p, size % 16);
  return h.finish(size);
}

uint64_t murmur_hash(wchar_t const* data, size_t size) {
  MurmurHashContext::State state(process_seed());
  for_each_utf16_chunk(data, size, [&](char16_t const* units, size_t bytes) {
    state.update(reinterpret_cast<unsigned char const*>(units), bytes);
  });
  return state.digest();
}

MurmurHashContext::MurmurHashContext() : m_state(new State(process_seed())) {}
MurmurHashContext::MurmurHashContext(uint64_t seed) : m_state(new State(seed)) {}
MurmurHashContext::MurmurHashContext(MurmurHashContext const& other)
    : m_state(new State(*other.m_state)) {}
MurmurHashContext::~MurmurHashContext() { delete m_state; }

void MurmurHashContext::reset() noexcept { m_state->reset(); }

MurmurHashContext& MurmurHashContext::update(void const* data, size_t size) noexcept {
  m_state->update(static_cast<unsigned char const*>(data), size);
  return *this;
}

MurmurHashContext& MurmurHashContext::update(wchar_t const* data, size_t size) noexcept {
  for_each_utf16_chunk(data, size, [this](char16_t const* units, size_t bytes) {
    m_state->update(reinterpret_cast<unsigned char const*>(units), bytes);
  });
  return *this;
}

uint64_t MurmurHashContext::calculate_digest() const noexcept { return m_state->digest(); }

}  // namespace tqcore
