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
#include <ostream>
#include <stdexcept>
#include <string_view>

#include "object_key_cache.h"

namespace tqcore {
namespace {

// ---- Trace names -----------------------------------------------------------------------------

// Guards the names written once: unique tokens' and the process's.
ACE_Thread_Mutex& name_lock() {
  static ACE_Thread_Mutex& lock = *new ACE_Thread_Mutex;  // never destroyed, like the tokens
  return lock;
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
  StringTraceData::Ptr query_trace_data() const override { return self_trace_data(this); }
  std::pair<char const*, size_t> trace_text() const override { return {"<null>", 6}; }
};

class DefaultStringKeyTokenImpl final : public impl::StringKeyToken, public StringTraceData {
 public:
  DefaultStringKeyTokenImpl() noexcept : StringKeyToken(this, &empty()) {}
  StringTraceData::Ptr query_trace_data() const override { return self_trace_data(this); }
  std::pair<char const*, size_t> trace_text() const override { return {"", 0}; }

 private:
  static std::string const& empty() {
    static std::string const& text = *new std::string;  // outlives every key
    return text;
  }
};

class DefaultUuidKeyTokenImpl final : public impl::UuidKeyToken, public StringTraceData {
 public:
  DefaultUuidKeyTokenImpl() noexcept : UuidKeyToken(this, &null()) {}
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

// Built while the library loads and destroyed when it unloads; interning outside that span
// raises std::runtime_error.
StringKeyCache g_string_cache(13, 2039);
UuidKeyCache g_uuid_cache(5, 1021);

}  // namespace

size_t impl::interned_string_count() { return g_string_cache.item_count(); }

// ---- Tokens ------------------------------------------------------------------------------------

ObjectKeyToken::~ObjectKeyToken() = default;

void ObjectKeyToken::write_trace(std::ostream& stream) const {
  StringTraceData::write_to_stream(stream, query_trace_data());
}

std::ostream& operator<<(std::ostream& stream, ObjectKeyToken const& token) {
  token.write_trace(stream);
  return stream;
}

// Made at first use (at the latest while the library loads, by ObjectKey::null), so a key made
// during another library's static initialisation finds them, and never destroyed: keys in
// static storage end in any order, before or after these would.
namespace {
template <class Token, class Impl>
RefCountPtr<Token> const& immortal_token() {
  static RefCountPtr<Token> const& token = *new RefCountPtr<Token>(new Impl);
  return token;
}
}  // namespace

RefCountPtr<ObjectKeyToken> const& ObjectKeyToken::default_token() {
  return immortal_token<ObjectKeyToken, NullObjectKeyToken>();
}

RefCountPtr<impl::StringKeyToken> const& impl::StringKeyToken::default_token() {
  return immortal_token<StringKeyToken, DefaultStringKeyTokenImpl>();
}

RefCountPtr<impl::UuidKeyToken> const& impl::UuidKeyToken::default_token() {
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
  return g_string_cache.intern(std::string_view(text, size));
}

UuidKey::UuidKey(Uuid const& uuid)
    : ObjectKeyBase(uuid.is_null() ? impl::UuidKeyToken::default_token()
                                   : g_uuid_cache.intern(uuid)) {}

SourceString::SourceString(StringKey const& key) : SourceString(key.query_trace_data()) {}

SourceString& SourceString::operator=(StringKey const& key) {
  SourceString copy(key);
  swap(copy);
  return *this;
}

}  // namespace tqcore
