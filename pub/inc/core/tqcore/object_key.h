/// @file
/// Object keys: handles whose equality and hash cost one pointer comparison. ObjectKey is a
/// unique identity (optionally labelled), StringKey an interned string and UuidKey an interned
/// Uuid. Keys of the same text, made on any thread at any time, compare equal; the cache holds
/// its entries weakly, so the last key of a text takes the entry with it.
///
/// Order and hash follow addresses: they hold within one run, never across runs.
///
/// Failures: interning raises std::bad_alloc, and "error.tqcore.objectManager.closed" after the key
/// caches have closed at exit; comparison and hashing never raise.
///
/// @code
/// std::map<tqcore::StringKey, int> counts;
/// ++counts[tqcore::StringKey("orders")];
/// ++counts[tqcore::StringKey(std::string("orders").c_str())];  // the same key: one entry, 2
/// tqcore::ObjectKey const session = tqcore::ObjectKey::create_unique();
/// @endcode
#pragma once

#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>
#include <tqcore/source_string.h>
#include <tqcore/tqcore_export.h>
#include <tqcore/uuid.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace tqcore {

class TQCORE_EXPORT ObjectKeyToken : public RefCounted<AtomicRefCount> {
 public:
  ~ObjectKeyToken() override;
  /// Writes the trace text the stream form of StringTraceData gives.
  virtual void write_trace(std::ostream& stream) const;
  virtual StringTraceData::Ptr query_trace_data() const = 0;
  void const* key_value() const noexcept { return m_keyValue; }

  /// The null key's token: key value null, trace text "<null>".
  /// Built while the library loads, in storage never freed: handing it out never allocates.
  static RefCountPtr<ObjectKeyToken> const& default_token() noexcept;

 protected:
  /// The key value is the token's own address.
  ObjectKeyToken() noexcept : m_keyValue(this) {}
  explicit ObjectKeyToken(void const* value) noexcept : m_keyValue(value) {}
  /// A token that is its own trace data hands itself out, kept alive by the pointer.
  StringTraceData::Ptr self_trace_data(StringTraceData const* data) const {
    return StringTraceData::Ptr(data, RefCountPtr<RefCounted<AtomicRefCount> const>(this));
  }

 private:
  void const* const m_keyValue;
};

namespace impl {

class TQCORE_EXPORT StringKeyToken : public ObjectKeyToken {
 public:
  std::string const& value() const noexcept { return *m_value; }
  /// Built while the library loads, in storage never freed: handing it out never allocates.
  static RefCountPtr<StringKeyToken> const& default_token() noexcept;

 protected:
  StringKeyToken(void const* key_value, std::string const* value) noexcept
      : ObjectKeyToken(key_value), m_value(value) {}

 private:
  std::string const* m_value;
};

class TQCORE_EXPORT UuidKeyToken : public ObjectKeyToken {
 public:
  Uuid const& uuid() const noexcept { return *m_uuid; }
  /// Built while the library loads, in storage never freed: handing it out never allocates.
  static RefCountPtr<UuidKeyToken> const& default_token() noexcept;

 protected:
  UuidKeyToken(void const* key_value, Uuid const* uuid) noexcept
      : ObjectKeyToken(key_value), m_uuid(uuid) {}

 private:
  Uuid const* m_uuid;
};

/// A token standing for an address: traced as the process's 16-character name, ":0x" and the
/// address in 16 hexadecimal digits, made on first request.
class TQCORE_EXPORT ObjectKeyTokenForPointerBase : public ObjectKeyToken, public StringTraceData {
 public:
  ~ObjectKeyTokenForPointerBase() override;
  StringTraceData::Ptr query_trace_data() const override { return self_trace_data(this); }
  std::pair<char const*, size_t> trace_text() const override;

 protected:
  explicit ObjectKeyTokenForPointerBase(void const* value) noexcept : ObjectKeyToken(value) {}

 private:
  mutable std::atomic<char*> m_text{nullptr};
};

}  // namespace impl

/// What the three keys share: one token pointer, never null.
template <class Token>
class ObjectKeyBase {
 public:
  size_t hash() const noexcept { return reinterpret_cast<size_t>(key_value()); }
  void clear() noexcept { m_token = Token::default_token(); }
  void swap(ObjectKeyBase& other) noexcept { m_token.swap(other.m_token); }
  void write_trace(std::ostream& stream) const { m_token->write_trace(stream); }
  StringTraceData::Ptr query_trace_data() const { return m_token->query_trace_data(); }

  friend bool operator==(ObjectKeyBase const& a, ObjectKeyBase const& b) noexcept {
    return a.key_value() == b.key_value();
  }
  friend bool operator!=(ObjectKeyBase const& a, ObjectKeyBase const& b) noexcept {
    return !(a == b);
  }
  friend bool operator<(ObjectKeyBase const& a, ObjectKeyBase const& b) noexcept {
    return std::less<void const*>()(a.key_value(), b.key_value());
  }
  friend bool operator>(ObjectKeyBase const& a, ObjectKeyBase const& b) noexcept { return b < a; }
  friend bool operator<=(ObjectKeyBase const& a, ObjectKeyBase const& b) noexcept {
    return !(b < a);
  }
  friend bool operator>=(ObjectKeyBase const& a, ObjectKeyBase const& b) noexcept {
    return !(a < b);
  }

 protected:
  explicit ObjectKeyBase(RefCountPtr<Token> token) noexcept : m_token(std::move(token)) {}
  void const* key_value() const noexcept { return m_token->key_value(); }

  RefCountPtr<Token> m_token;
};

class TQCORE_EXPORT ObjectKey : public ObjectKeyBase<ObjectKeyToken> {
 public:
  static ObjectKey const null;

  ObjectKey() noexcept : ObjectKeyBase(ObjectKeyToken::default_token()) {}
  explicit ObjectKey(RefCountPtr<ObjectKeyToken> token) noexcept
      : ObjectKeyBase(std::move(token)) {}
  bool is_null() const noexcept { return key_value() == nullptr; }

  /// A new identity, equal only to its copies. Its trace name is drawn when first asked for.
  static ObjectKey create_unique();
  /// The same, traced as "\"label\"_" and the 16-character name.
  static ObjectKey create_unique_with_label(char const* label, size_t size);
};

class TQCORE_EXPORT StringKey : public ObjectKeyBase<impl::StringKeyToken> {
 public:
  /// The empty text: the default token, never cached.
  StringKey() noexcept : ObjectKeyBase(impl::StringKeyToken::default_token()) {}
  explicit StringKey(char const* text);
  StringKey(char const* text, size_t size) : ObjectKeyBase(token_from_string(text, size)) {}
  /// Any text, embedded NULs included: `StringKey(name)` for a std::string or a view.
  explicit StringKey(std::string_view text) : StringKey(text.data(), text.size()) {}
  static StringKey from_string(char const* text) { return StringKey(text); }
  static StringKey from_string(char const* text, size_t size) { return StringKey(text, size); }

  std::string const& value() const noexcept { return m_token->value(); }
  ObjectKey as_object_key() const noexcept { return ObjectKey(m_token); }

 private:
  static RefCountPtr<impl::StringKeyToken> token_from_string(char const* text, size_t size);
};

class TQCORE_EXPORT UuidKey : public ObjectKeyBase<impl::UuidKeyToken> {
 public:
  /// The null Uuid: the default token, never cached.
  UuidKey() noexcept : ObjectKeyBase(impl::UuidKeyToken::default_token()) {}
  explicit UuidKey(Uuid const& uuid);
  static UuidKey from_uuid(Uuid const& uuid) { return UuidKey(uuid); }

  Uuid const& uuid() const noexcept { return m_token->uuid(); }
  ObjectKey as_object_key() const noexcept { return ObjectKey(m_token); }
};

TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, ObjectKeyToken const& token);

template <class Token>
std::ostream& operator<<(std::ostream& stream, ObjectKeyBase<Token> const& key) {
  key.write_trace(stream);
  return stream;
}

}  // namespace tqcore

namespace std {
template <>
struct hash<tqcore::ObjectKey> {
  size_t operator()(tqcore::ObjectKey const& key) const noexcept { return key.hash(); }
};
template <>
struct hash<tqcore::StringKey> {
  size_t operator()(tqcore::StringKey const& key) const noexcept { return key.hash(); }
};
template <>
struct hash<tqcore::UuidKey> {
  size_t operator()(tqcore::UuidKey const& key) const noexcept { return key.hash(); }
};
}  // namespace std
