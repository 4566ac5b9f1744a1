// Object keys: the tokens, their trace names, and the sharded caches that intern strings and
// Uuids.
#include <tqcore/murmur_hash.h>
#include <tqcore/object_key.h>
#include <tqcore/random.h>
#include <tqcore/transforms.h>

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string_view>

#include "object_key_cache.h"
#include "static_instance_internal.h"
#include "testing_seams.h"

namespace tqcore {
namespace {

// ---- Trace names -----------------------------------------------------------------------------

// Guards the names written once: unique tokens' and the process's.
ACE_Thread_Mutex& name_lock() {
  alignas(ACE_Thread_Mutex) static unsigned char storage[sizeof(ACE_Thread_Mutex)];
  static ACE_Thread_Mutex* const lock = new (storage) ACE_Thread_Mutex;  // never destroyed
  return *lock;
}

constexpr size_t kNameSize = 16;  // 10 random bytes in base 32

void draw_name(char* out) {
  unsigned char bytes[10];
  random_fill(bytes, sizeof(bytes));
  base32_encode(bytes, bytes + sizeof(bytes), out, ETransformPadding::unpadded);
}

// The name that stands for this process in the trace texts of pointer tokens.
char const* process_name() {
  static char name[kNameSize];
  static bool made = false;
  ACE_Guard<ACE_Thread_Mutex> guard(name_lock());
  if (!made) {
    draw_name(name);
    made = true;
  }
  return name;
}

// ---- Tokens with their own trace text ----------------------------------------------------------

class NullObjectKeyToken final : public ObjectKeyToken, public StringTraceData {
 public:
  NullObjectKeyToken() noexcept : ObjectKeyToken(nullptr) {}
  void destroy() override {}  // lives in static storage, never freed
  StringTraceData::Ptr query_trace_data() const override { return self_trace_data(this); }
  std::pair<char const*, size_t> trace_text() const override { return {"<null>", 6}; }
};

class DefaultStringKeyTokenImpl final : public impl::StringKeyToken, public StringTraceData {
 public:
  DefaultStringKeyTokenImpl() noexcept : StringKeyToken(this, &empty()) {}
  void destroy() override {}  // lives in static storage, never freed
  StringTraceData::Ptr query_trace_data() const override { return self_trace_data(this); }
  std::pair<char const*, size_t> trace_text() const override { return {"", 0}; }

 private:
  // Never destroyed, and an empty std::string holds no heap block.
  static std::string const& empty() noexcept {
    alignas(std::string) static unsigned char storage[sizeof(std::string)];
    static std::string const* const text = new (storage) std::string;
    return *text;
  }
};

class DefaultUuidKeyTokenImpl final : public impl::UuidKeyToken, public StringTraceData {
 public:
  DefaultUuidKeyTokenImpl() noexcept : UuidKeyToken(this, &null()) {}
  void destroy() override {}  // lives in static storage, never freed
  StringTraceData::Ptr query_trace_data() const override { return self_trace_data(this); }
  std::pair<char const*, size_t> trace_text() const override {
    return {"00000000-0000-0000-0000-000000000000", 36};
  }

 private:
  static Uuid const& null() {
    static Uuid const uuid;
    return uuid;
  }
};

// The name is drawn when first asked for: a key never traced draws no random number.
class UniqueObjectKeyToken final : public ObjectKeyToken, public StringTraceData {
 public:
  StringTraceData::Ptr query_trace_data() const override { return self_trace_data(this); }
  std::pair<char const*, size_t> trace_text() const override {
    if (!m_named.load(std::memory_order_acquire)) {
      char drawn[kNameSize];
      draw_name(drawn);  // outside the lock
      ACE_Guard<ACE_Thread_Mutex> guard(name_lock());
      if (!m_named.load(std::memory_order_relaxed)) {
        std::memcpy(m_name, drawn, kNameSize);
        m_named.store(true, std::memory_order_release);
      }
    }
    return {m_name, kNameSize};
  }

 private:
  mutable std::atomic<bool> m_named{false};
  mutable char m_name[kNameSize] = {};
};

class UniqueLabeledObjectKeyToken final : public ObjectKeyToken, public StringTraceData {
 public:
  UniqueLabeledObjectKeyToken(char const* label, size_t size) {
    char name[kNameSize];
    draw_name(name);
    m_text.reserve(size + kNameSize + 3);
    m_text.append(1, '"').append(label, size).append("\"_").append(name, kNameSize);
  }
  StringTraceData::Ptr query_trace_data() const override { return self_trace_data(this); }
  std::pair<char const*, size_t> trace_text() const override {
    return {m_text.data(), m_text.size()};
  }

 private:
  std::string m_text;
};

// ---- The two caches --------------------------------------------------------------------------

struct StringKeyCacheHashFunc {
  size_t operator()(std::string_view text) const noexcept {
    return static_cast<size_t>(murmur_hash(text.data(), text.size()));
  }
};
struct StringKeyCacheEqualFunc {
  bool operator()(std::string_view probe, std::string const& key) const noexcept {
    return probe.size() == key.size() && std::memcmp(probe.data(), key.data(), key.size()) == 0;
  }
};
struct StringKeyTraceStringFunc {
  std::pair<char const*, size_t> operator()(std::string const& key) const noexcept {
    return {key.data(), key.size()};
  }
};

struct UuidKeyCacheHashFunc {
  size_t operator()(Uuid const& uuid) const noexcept { return uuid.hash(); }
};
// The hyphenated text, made on the first request and published once.
struct UuidKeyTraceStringFunc {
  mutable std::atomic<char*> text{nullptr};
  ~UuidKeyTraceStringFunc() { delete[] text.load(std::memory_order_acquire); }
  std::pair<char const*, size_t> operator()(Uuid const& key) const {
    char* current = text.load(std::memory_order_acquire);
    if (current == nullptr) {
      auto own = std::make_unique<char[]>(Uuid::kMaxTextSize);
      key.as_string(Uuid::Hyphenated, own.get());
      if (text.compare_exchange_strong(current, own.get(), std::memory_order_acq_rel)) {
        current = own.release();
      }
    }
    return {current, 36};
  }
};

using StringKeyCache =
    impl::ObjectKeyCache<impl::StringKeyToken, std::string, std::string_view,
                         StringKeyCacheHashFunc, StringKeyCacheEqualFunc, StringKeyTraceStringFunc>;
using UuidKeyCache =
    impl::ObjectKeyCache<impl::UuidKeyToken, Uuid, Uuid const&, UuidKeyCacheHashFunc,
                         std::equal_to<Uuid>, UuidKeyTraceStringFunc>;

// Built while the library loads (or by an earlier first use) and never destroyed; the process's
// last cleanup closes them, after which interning raises std::runtime_error.
template <class Cache>
Cache& cache_in_static_storage(size_t shards, size_t buckets) {
  alignas(Cache) static unsigned char storage[sizeof(Cache)];
  static Cache* const cache = new (storage) Cache(shards, buckets);
  return *cache;
}
StringKeyCache& string_cache() { return cache_in_static_storage<StringKeyCache>(13, 2039); }
UuidKeyCache& uuid_cache() { return cache_in_static_storage<UuidKeyCache>(5, 1021); }

[[maybe_unused]] bool const g_cachesAtLoad = (string_cache(), uuid_cache(), true);

}  // namespace

size_t impl::testing::interned_string_count() { return string_cache().item_count(); }

// Shard locks first, then the name lock: nothing takes a shard lock while naming.
void impl::key_caches_before_fork() {
  string_cache().lock_all();
  uuid_cache().lock_all();
  name_lock().acquire();
}

void impl::key_caches_after_fork() {
  name_lock().release();
  uuid_cache().unlock_all();
  string_cache().unlock_all();
}

void impl::key_caches_close() {
  string_cache().close();
  uuid_cache().close();
}

// ---- Tokens ------------------------------------------------------------------------------------

ObjectKeyToken::~ObjectKeyToken() = default;

void ObjectKeyToken::write_trace(std::ostream& stream) const {
  StringTraceData::write_to_stream(stream, query_trace_data());
}

std::ostream& operator<<(std::ostream& stream, ObjectKeyToken const& token) {
  token.write_trace(stream);
  return stream;
}

// The default tokens live in static storage, built while the library loads (or by an earlier
// first use, from another library's static initialisation) and never destroyed: keys in static
// storage end in any order, before or after these would. The storage holds the token and a
// reference to it, so the count never reaches zero; nothing here allocates.
namespace {
template <class Token, class Impl>
RefCountPtr<Token> const& immortal_token() noexcept {
  struct Holder {
    Impl token;
    RefCountPtr<Token> reference{&token};
  };
  alignas(Holder) static unsigned char storage[sizeof(Holder)];
  static Holder* const holder = new (storage) Holder;
  return holder->reference;
}

[[maybe_unused]] bool const g_defaultTokensAtLoad =
    (ObjectKeyToken::default_token(), impl::StringKeyToken::default_token(),
     impl::UuidKeyToken::default_token(), true);
}  // namespace

RefCountPtr<ObjectKeyToken> const& ObjectKeyToken::default_token() noexcept {
  return immortal_token<ObjectKeyToken, NullObjectKeyToken>();
}

RefCountPtr<impl::StringKeyToken> const& impl::StringKeyToken::default_token() noexcept {
  return immortal_token<StringKeyToken, DefaultStringKeyTokenImpl>();
}

RefCountPtr<impl::UuidKeyToken> const& impl::UuidKeyToken::default_token() noexcept {
  return immortal_token<UuidKeyToken, DefaultUuidKeyTokenImpl>();
}

impl::ObjectKeyTokenForPointerBase::~ObjectKeyTokenForPointerBase() {
  delete[] m_text.load(std::memory_order_acquire);
}

std::pair<char const*, size_t> impl::ObjectKeyTokenForPointerBase::trace_text() const {
  constexpr size_t kSize = kNameSize + 3 + 16;
  char* text = m_text.load(std::memory_order_acquire);
  if (text == nullptr) {
    auto own = std::make_unique<char[]>(kSize + 1);
    std::memcpy(own.get(), process_name(), kNameSize);
    std::snprintf(own.get() + kNameSize, kSize + 1 - kNameSize, ":0x%016llx",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(key_value())));
    // Published once; a thread that loses keeps the winner's text and frees its own.
    if (m_text.compare_exchange_strong(text, own.get(), std::memory_order_acq_rel)) {
      text = own.release();
    }
  }
  return {text, kSize};
}

// ---- Keys --------------------------------------------------------------------------------------

ObjectKey const ObjectKey::null;

ObjectKey ObjectKey::create_unique() { return ObjectKey(new UniqueObjectKeyToken); }

ObjectKey ObjectKey::create_unique_with_label(char const* label, size_t size) {
  if (label == nullptr) size = 0;
  return ObjectKey(new UniqueLabeledObjectKeyToken(label != nullptr ? label : "", size));
}

StringKey::StringKey(char const* text)
    : ObjectKeyBase(token_from_string(text, text != nullptr ? std::strlen(text) : 0)) {}

// The empty text (and a null one) is never cached.
RefCountPtr<impl::StringKeyToken> StringKey::token_from_string(char const* text, size_t size) {
  if (size == 0 || text == nullptr) return impl::StringKeyToken::default_token();
  return string_cache().intern(std::string_view(text, size));
}

UuidKey::UuidKey(Uuid const& uuid)
    : ObjectKeyBase(uuid.is_null() ? impl::UuidKeyToken::default_token()
                                   : uuid_cache().intern(uuid)) {}

SourceString::SourceString(StringKey const& key) : SourceString(key.query_trace_data()) {}

SourceString& SourceString::operator=(StringKey const& key) {
  SourceString copy(key);
  swap(copy);
  return *this;
}

}  // namespace tqcore
