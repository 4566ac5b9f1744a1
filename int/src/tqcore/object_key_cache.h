// The interning cache behind StringKey and UuidKey: a hash table in prime-sized shards, each
// under its own lock, holding its items weakly. A lookup that hits takes the lock once and
// compares the keys without it; a generation count tells whether the shard changed while the
// lock was let go.
#pragma once

#include <tqcore/object_key.h>

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <utility>

namespace tqcore {
namespace impl {

// Token: the key's token class. Key: what an item stores; Probe: what a lookup passes.
// Hash and Equal work on Probe and Key; Trace makes an item's trace text from its key.
template <class Token, class Key, class Probe, class Hash, class Equal, class Trace>
class ObjectKeyCache {
  struct Shard;

  struct CacheItem final : StringTraceData {
    CacheItem(Probe probe, size_t hash_value, Shard* owner)
        : key(probe), hash(hash_value), shard(owner) {}
    std::pair<char const*, size_t> trace_text() const override { return trace(key); }

    unsigned int references = 0;  // TokenImpls and lookups in progress; under the shard's lock
    Key const key;
    size_t const hash;
    CacheItem* next = nullptr;
    std::atomic<Shard*> shard;  // null once the cache is gone
    Trace trace;
  };

  struct Shard {
    ACE_Thread_Mutex lock;
    unsigned int generation = 0;
    size_t bucket_count;
    std::unique_ptr<CacheItem*[]> buckets;
    size_t item_count = 0;

    explicit Shard(size_t buckets_wanted)
        : bucket_count(buckets_wanted), buckets(new CacheItem*[buckets_wanted]()) {}
    CacheItem*& head(size_t hash_value) { return buckets[hash_value % bucket_count]; }
  };

  // One per lookup; destroying it releases the item.
  class TokenImpl final : public Token {
   public:
    explicit TokenImpl(CacheItem* item) noexcept : Token(item, &item->key), m_item(item) {}
    ~TokenImpl() override { release(m_item); }
    StringTraceData::Ptr query_trace_data() const override {
      return StringTraceData::Ptr(m_item, RefCountPtr<RefCounted<AtomicRefCount> const>(this));
    }

   private:
    CacheItem* const m_item;
  };

 public:
  ObjectKeyCache(size_t shard_count, size_t buckets_per_shard)
      : m_shards(new std::unique_ptr<Shard>[shard_count]) {
    for (size_t i = 0; i < shard_count; ++i) m_shards[i].reset(new Shard(buckets_per_shard));
    m_shardsBuilt = shard_count;
    m_shardCount.store(shard_count, std::memory_order_release);
  }
  ObjectKeyCache(ObjectKeyCache const&) = delete;
  ObjectKeyCache& operator=(ObjectKeyCache const&) = delete;
  // The process's last cleanup (or the library's unload): interning raises from then on, and
  // the items still referred to are left to their keys, which keep reading them. The cache
  // itself is never destroyed: keys in static storage may end after it closed.
  void close() {
    size_t const count = m_shardCount.exchange(0, std::memory_order_acq_rel);
    for (size_t i = 0; i < count; ++i) {
      Shard& shard = *m_shards[i];
      ACE_Guard<ACE_Thread_Mutex> guard(shard.lock);
      for (size_t b = 0; b < shard.bucket_count; ++b) {
        for (CacheItem* item = shard.buckets[b]; item != nullptr; item = item->next) {
          item->shard.store(nullptr, std::memory_order_release);
        }
      }
      ++shard.generation;
    }
  }

  RefCountPtr<Token> intern(Probe probe) {
    size_t const shard_count = m_shardCount.load(std::memory_order_acquire);
    if (shard_count == 0) {
      throw std::runtime_error("tqcore::impl::ObjectKeyCache not constructed or already destroyed");
    }
    size_t const hash_value = Hash()(probe);
    Shard& shard = *m_shards[hash_value % shard_count];
    return make_token(find_or_insert(shard, probe, hash_value));
  }

  // Around fork(): every shard lock, in shard order, so that no other thread is inside.
  void lock_all() {
    for (size_t i = 0; i < m_shardsBuilt; ++i) m_shards[i]->lock.acquire();
  }
  void unlock_all() {
    for (size_t i = m_shardsBuilt; i > 0; --i) m_shards[i - 1]->lock.release();
  }

  // Live items of all shards, for tests and statistics.
  size_t item_count() {
    size_t total = 0;
    for (size_t i = 0; i < m_shardCount.load(std::memory_order_acquire); ++i) {
      ACE_Guard<ACE_Thread_Mutex> guard(m_shards[i]->lock);
      total += m_shards[i]->item_count;
    }
    return total;
  }

 private:
  // Returns the item holding `probe` with one reference taken for the caller.
  CacheItem* find_or_insert(Shard& shard, Probe probe, size_t hash_value) {
    std::unique_ptr<CacheItem> fresh;  // freed at the end if another item is used
    ACE_Guard<ACE_Thread_Mutex> guard(shard.lock);
    for (;;) {
      if (CacheItem* found = first_with_hash(shard.head(hash_value), hash_value)) {
        ++found->references;
        guard.release();
        if (Equal()(probe, found->key)) return found;  // the fast path: compared unlocked
        release(found);  // a hash collision: search again, comparing under the lock
        guard.acquire();
        if (CacheItem* equal = find_equal(shard.head(hash_value), probe, hash_value)) {
          ++equal->references;
          return equal;
        }
      }
      unsigned int const generation = shard.generation;
      if (!fresh) {
        guard.release();
        fresh.reset(new CacheItem(probe, hash_value, &shard));
        guard.acquire();
        if (shard.generation != generation) continue;  // the shard changed meanwhile
      }
      grow_if_needed(shard);
      CacheItem*& head = shard.head(hash_value);
      fresh->next = head;
      head = fresh.get();
      ++shard.item_count;
      ++fresh->references;
      ++shard.generation;
      return fresh.release();
    }
  }

  static CacheItem* first_with_hash(CacheItem* item, size_t hash_value) {
    while (item != nullptr && item->hash != hash_value) item = item->next;
    return item;
  }
  static CacheItem* find_equal(CacheItem* item, Probe probe, size_t hash_value) {
    for (; item != nullptr; item = item->next) {
      if (item->hash == hash_value && Equal()(probe, item->key)) return item;
    }
    return nullptr;
  }

  // Up to four items a bucket on average, then the next prime size, to a last size. Makes room
  // for one more item, which the caller counts once it is linked: a failed allocation here
  // leaves the shard as it was.
  static void grow_if_needed(Shard& shard) {
    if (shard.item_count + 1 <= shard.bucket_count * 4) return;
    size_t const t = shard.bucket_count * 4;
    size_t const size = t < 252     ? 251
                        : t < 1022  ? 1021
                        : t <= 4093 ? 4093
                        : t < 16382 ? 16381
                        : t < 65538 ? 65537
                                    : 262151;
    if (size == shard.bucket_count) return;
    std::unique_ptr<CacheItem*[]> buckets(new CacheItem*[size]());
    for (size_t b = 0; b < shard.bucket_count; ++b) {
      for (CacheItem* item = shard.buckets[b]; item != nullptr;) {
        CacheItem* const next = item->next;
        CacheItem*& head = buckets[item->hash % size];
        item->next = head;
        head = item;
        item = next;
      }
    }
    shard.buckets.swap(buckets);
    shard.bucket_count = size;
    ++shard.generation;
  }

  // Drops one reference; the last one unlinks and frees the item. After the cache is gone
  // items are left alone: keys that outlive it keep reading them.
  static void release(CacheItem* item) {
    Shard* const shard = item->shard.load(std::memory_order_acquire);
    if (shard == nullptr) return;
    {
      ACE_Guard<ACE_Thread_Mutex> guard(shard->lock);
      if (--item->references > 0) return;
      CacheItem** link = &shard->head(item->hash);
      while (*link != item) link = &(*link)->next;
      *link = item->next;
      --shard->item_count;
      ++shard->generation;
    }
    delete item;
  }

  static RefCountPtr<Token> make_token(CacheItem* item) {
    try {
      return RefCountPtr<Token>(new TokenImpl(item));
    } catch (...) {
      release(item);
      throw;
    }
  }

  std::atomic<size_t> m_shardCount{0};  // 0 before construction and after close
  size_t m_shardsBuilt = 0;
  std::unique_ptr<std::unique_ptr<Shard>[]> m_shards;
};

}  // namespace impl
}  // namespace tqcore
