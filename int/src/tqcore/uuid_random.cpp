// The process-wide MT19937 generator behind random_fill and the random_* functions.
#include <tqcore/random.h>

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "static_instance_internal.h"
#include "uuid_internal.h"

namespace tqcore {
namespace {

constexpr size_t kWords = 624;
constexpr size_t kShift = 397;

uint32_t temper(uint32_t y) noexcept {
  y ^= y >> 11;
  y ^= (y << 7) & 0x9D2C5680u;
  y ^= (y << 15) & 0xEFC60000u;
  y ^= y >> 18;
  return y;
}

// State and position under one lock; tempering happens outside it.
class Generator {
 public:
  Generator() { seed(); }

  uint32_t next_raw() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    if (m_position >= kWords) regenerate();
    return m_state[m_position++];
  }

  // Copies `count` raw words; at each regeneration lets other threads in when some wait.
  void fill_raw(unsigned char* out, size_t count, std::atomic<int> const& fillers) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_lock);
    while (count > 0) {
      if (m_position >= kWords) {
        regenerate();
        if (fillers.load(std::memory_order_relaxed) != 1) {
          m_lock.release();
          m_lock.acquire();
          continue;  // another thread may have taken words meanwhile
        }
      }
      size_t const n = std::min(count, kWords - m_position);
      std::memcpy(out, &m_state[m_position], n * sizeof(uint32_t));
      m_position += n;
      out += n * sizeof(uint32_t);
      count -= n;
    }
  }

  // Around fork(): held across it, then a child starts from fresh entropy.
  void lock() { m_lock.acquire(); }
  void unlock() { m_lock.release(); }
  void reseed() { seed(); }

 private:
  void seed() {
    impl::EntropySample const e = impl::sample_entropy();
    m_state[0] = static_cast<uint32_t>(e.realtime_ns);
    m_state[1] = static_cast<uint32_t>(static_cast<uint64_t>(e.realtime_ns) >> 32);
    m_state[2] = e.monotonic_ms;
    m_state[3] = e.process;
    m_state[4] = e.thread;
    m_state[5] = static_cast<uint32_t>(e.cycles);
    m_state[6] = static_cast<uint32_t>(e.cycles >> 32);
    for (uint32_t i = 7; i < kWords; ++i) {
      m_state[i] = 1812433253u * (m_state[i - 1] ^ (m_state[i - 1] >> 30)) + i;
    }
    for (int i = 0; i < 97; ++i) regenerate();
  }

  // The cycle counter goes into the state first: no two regenerations repeat.
  void regenerate() {
    uint64_t const t = impl::cycle_counter();
    auto const low = static_cast<uint32_t>(t);
    auto const high = static_cast<uint32_t>(t >> 32);
    m_state[0] ^= low;
    m_state[2] ^= ~low;
    m_state[1] ^= high;
    m_state[3] ^= ~high;
    for (size_t i = 0; i < kWords; ++i) {
      uint32_t const next = m_state[(i + 1) % kWords];
      uint32_t const y = (m_state[i] & 0x80000000u) | (next & 0x7FFFFFFFu);
      m_state[i] = m_state[(i + kShift) % kWords] ^ (y >> 1) ^ ((next & 1u) ? 0x9908B0DFu : 0u);
    }
    m_position = 0;
  }

  ACE_Thread_Mutex m_lock;
  uint32_t m_state[kWords];
  size_t m_position = kWords;
};

// In static storage, built while the library loads (or by an earlier first use) and never
// destroyed: drawing never allocates, and identifiers may be drawn during static destruction.
Generator& generator() noexcept {
  alignas(Generator) static unsigned char storage[sizeof(Generator)];
  static Generator* const instance = new (storage) Generator;
  return *instance;
}

[[maybe_unused]] Generator& g_generatorAtLoad = generator();
std::atomic<int> g_fillers{0};

}  // namespace

uint32_t random_uint32() { return temper(generator().next_raw()); }

uint64_t random_uint64() {
  uint64_t const low = random_uint32();
  return low | static_cast<uint64_t>(random_uint32()) << 32;
}

void random_fill(void* buffer, size_t size) {
  auto* out = static_cast<unsigned char*>(buffer);
  size_t const words = size / 4;
  if (words > 0) {
    Generator& source = generator();
    g_fillers.fetch_add(1, std::memory_order_relaxed);
    source.fill_raw(out, words, g_fillers);
    g_fillers.fetch_sub(1, std::memory_order_relaxed);
    for (size_t i = 0; i < words; ++i) {
      uint32_t word;
      std::memcpy(&word, out + i * 4, 4);
      word = temper(word);
      std::memcpy(out + i * 4, &word, 4);
    }
  }
  if (size_t const rest = size % 4) {
    uint32_t const word = random_uint32();
    std::memcpy(out + words * 4, &word, rest);
  }
}

// Held across fork() so that no other thread is inside the generator; a child then draws from
// fresh entropy, never repeating its parent.
void impl::random_before_fork() noexcept { generator().lock(); }

void impl::random_after_fork(bool in_child) noexcept {
  Generator& g = generator();
  if (in_child) g.reseed();
  g.unlock();
}

}  // namespace tqcore
