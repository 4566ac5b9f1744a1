/// @file
/// SourceString: the two-word string of the error model, and SourceLocation, where an error
/// was raised.
///
/// Failures: only std::bad_alloc, when a dynamic copy is made. A reference (`create_reference`, the
/// `char const*` constructor of SourceLocation) keeps the caller's pointer: the text must outlive
/// it.
///
/// @code
/// tqcore::SourceString const literal = tqcore::SourceString::create_reference("orders");
/// tqcore::SourceLocation const here =
///     TQCORE_SOURCE_LOCATION("example()", "$Id: //example/orders.cpp#7 $");
/// @endcode
#pragma once

#include <tqcore/refcount_ptr.h>
#include <tqcore/refcounted.h>
#include <tqcore/tqcore_export.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <string>
#include <type_traits>
#include <utility>

namespace tqcore {

/// Trace state of a text that a trace sink has written once and can afterwards refer to by
/// file offset. Each sink is the one caller for its own sink number; different sinks may call
/// at the same time.
class TQCORE_EXPORT StringTraceData {
 public:
  static constexpr size_t max_trace_sink_count() { return 4; }

  virtual std::pair<char const*, size_t> trace_text() const = 0;

  unsigned int query_trace_file_offset(size_t sink, unsigned int file_id) const;
  void set_trace_file_offset(size_t sink, unsigned int file_id, unsigned int offset) const;

  using Ptr = InterfacePtr<StringTraceData const, RefCountPtr<RefCounted<AtomicRefCount> const>>;
  /// Asks the first installed string trace handler; false if none is installed.
  static bool supported_by_stream(std::ostream& stream);
  /// Calls the second installed handler, or writes the trace text plainly without one.
  static void write_to_stream(std::ostream& stream, Ptr const& data);

 protected:
  StringTraceData() noexcept : m_traceState{0} {}
  StringTraceData(StringTraceData const&) = delete;
  StringTraceData& operator=(StringTraceData const&) = delete;
  ~StringTraceData();

 private:
  struct Record {
    unsigned int file_id;
    unsigned int offset;
  };
  static Record* records_of(uint64_t state) noexcept;
  /// 0: nothing; low bit set: one inline record for sink 0; otherwise a Record[4] pointer,
  /// published once by compare-and-exchange.
  mutable std::atomic<uint64_t> m_traceState;
};

class SourceString;
class StringKey;

using StringTraceSupportedHandler = bool (*)(std::ostream&);
using StringTraceWriteDataHandler = void (*)(std::ostream&, StringTraceData::Ptr const&);
using StringTraceWriteStringHandler = void (*)(std::ostream&, SourceString const&);

/// Lets an outside trace system take over the writing of strings; null removes a handler.
TQCORE_EXPORT void set_string_trace_handlers(StringTraceSupportedHandler supported,
                                             StringTraceWriteDataHandler write_trace_data,
                                             StringTraceWriteStringHandler write_source_string);

namespace impl {

/// Header of a shared text block; the text and a NUL follow it in the same allocation.
class TQCORE_EXPORT DynamicSourceStringHolder final : public RefCounted<AtomicRefCount>,
                                                      public StringTraceData {
 public:
  /// Makes a block holding a copy of `length` bytes of `text`, with the count at 1.
  static DynamicSourceStringHolder* create(char const* text, size_t length,
                                           StringTraceData::Ptr trace_source);

  static DynamicSourceStringHolder* from_text(char const* text) noexcept {
    return reinterpret_cast<DynamicSourceStringHolder*>(const_cast<char*>(text)) - 1;
  }
  char const* text() const noexcept { return reinterpret_cast<char const*>(this + 1); }
  size_t length() const noexcept { return static_cast<size_t>(m_length); }
  StringTraceData::Ptr const& trace_source() const noexcept { return m_traceSource; }

  std::pair<char const*, size_t> trace_text() const override;

 protected:
  /// The block was not made by a plain `new` of this class, so it is freed raw.
  void destroy() override;
  ~DynamicSourceStringHolder() override = default;

 private:
  DynamicSourceStringHolder(StringTraceData::Ptr trace_source, uint64_t length) noexcept;

  StringTraceData::Ptr m_traceSource;
  uint64_t m_length;
};

}  // namespace impl

/// Two words that either refer to text someone else keeps alive or share an immutable block by
/// reference count. A plain `char const*` copies; a reference has to be asked for.
///
/// A reference may be created unmeasured; the first operation that needs the length measures
/// the text and caches it, even through a const object. The cache is written with relaxed
/// atomics, so concurrent readers are safe: they all store the same value.
class TQCORE_EXPORT SourceString {
 public:
  static char const* const sm_emptyStrData;
  static constexpr size_t npos = static_cast<size_t>(-1);

  SourceString() noexcept : m_text(sm_emptyStrData), m_tag(0) {}
  /// A null text is the empty text in every constructor and comparison.
  SourceString(char const* text) { alloc_dynamic(text, length_of(text)); }
  /// True: unmeasured reference, the text is not read. False: a dynamic copy.
  constexpr SourceString(char const* text, bool reference)
      : m_text(text != nullptr ? text : ""), m_tag(kUnmeasured) {
    if (!reference) alloc_dynamic(m_text, std::strlen(m_text));
  }
  SourceString(char const* text, size_t length) { alloc_dynamic(text, length); }
  /// Keeps `SourceString(p, 3)` from being ambiguous with the reference flag.
  template <class Int, class = std::enable_if_t<std::is_integral<Int>::value &&
                                                !std::is_same<Int, bool>::value>>
  SourceString(char const* text, Int length) : SourceString(text, static_cast<size_t>(length)) {}
  SourceString(char const* text, size_t length, bool reference);
  explicit SourceString(StringTraceData::Ptr const& trace_source);
  /// A copy of the key's text that keeps the key's trace data as its trace source.
  SourceString(StringKey const& key);
  SourceString(SourceString const& other) noexcept : m_text(other.m_text), m_tag(other.tag()) {
    if (m_tag < 0) clone_dynamic();
  }
  SourceString(SourceString&& other) noexcept : m_text(other.m_text), m_tag(other.tag()) {
    other.m_text = sm_emptyStrData;
    other.m_tag = 0;
  }
  SourceString(TransferSource<SourceString> source) noexcept
      : SourceString(std::move(source.source())) {}
  ~SourceString() {
    if (m_tag < 0) dealloc_dynamic();
  }

  static SourceString create_reference(char const* text) { return SourceString(text, true); }
  static SourceString create_copy(char const* text) { return SourceString(text, false); }
  static SourceString create_copy(char const* text, size_t length) {
    return SourceString(text, length);
  }

  /// Assignment builds the new value first and swaps it in; the old block is released last.
  SourceString& operator=(SourceString other) noexcept {
    swap(other);
    return *this;
  }
  SourceString& operator=(TransferSource<SourceString> source) noexcept {
    return *this = SourceString(source);
  }
  SourceString& operator=(StringKey const& key);
  void assign(SourceString const& other) { *this = other; }
  void assign(char const* text, bool reference) { *this = SourceString(text, reference); }
  void assign(char const* text, size_t length) { *this = SourceString(text, length); }
  template <class Int, class = std::enable_if_t<std::is_integral<Int>::value &&
                                                !std::is_same<Int, bool>::value>>
  void assign(char const* text, Int length) {
    assign(text, static_cast<size_t>(length));
  }
  void assign(char const* text, size_t length, bool reference) {
    *this = SourceString(text, length, reference);
  }
  void clear() noexcept { *this = SourceString(); }
  void swap(SourceString& other) noexcept {
    std::swap(m_text, other.m_text);
    int64_t mine = tag();
    m_tag = other.tag();
    other.m_tag = mine;
  }
  TransferSource<SourceString> transfer() noexcept { return TransferSource<SourceString>(*this); }

  char const* data() const noexcept { return m_text; }
  char const* begin() const noexcept { return m_text; }
  char const* end() const noexcept { return m_text + size(); }
  size_t size() const noexcept {
    int64_t t = tag();
    if (t == kUnmeasured) return measure();
    return static_cast<size_t>(t < 0 ? -t : t);
  }
  bool empty() const noexcept { return tag() == 0; }
  bool is_reference() const noexcept { return tag() >= 0; }
  std::string as_string() const { return std::string(m_text, size()); }

  /// Equal text pointers compare equal at once, whatever the lengths: that shortcut is kept.
  int compare(SourceString const& other) const noexcept;
  int compare(char const* text) const noexcept {
    return compare(text != nullptr ? text : "", length_of(text));
  }
  int compare(char const* text, size_t length) const noexcept;

  bool operator==(SourceString const& other) const noexcept;
  bool operator==(char const* text) const noexcept;
  bool operator!=(SourceString const& other) const noexcept { return !(*this == other); }
  bool operator!=(char const* text) const noexcept { return !(*this == text); }
  bool operator<(SourceString const& other) const noexcept { return compare(other) < 0; }
  bool operator<=(SourceString const& other) const noexcept { return compare(other) <= 0; }
  bool operator>(SourceString const& other) const noexcept { return compare(other) > 0; }
  bool operator>=(SourceString const& other) const noexcept { return compare(other) >= 0; }
  bool operator<(char const* text) const noexcept { return compare(text) < 0; }
  bool operator<=(char const* text) const noexcept { return compare(text) <= 0; }
  bool operator>(char const* text) const noexcept { return compare(text) > 0; }
  bool operator>=(char const* text) const noexcept { return compare(text) >= 0; }

  /// For a dynamic value its trace source, or the block's own trace data; null otherwise.
  StringTraceData::Ptr query_trace_data() const;

 private:
  static constexpr int64_t kUnmeasured = INT64_MAX;

  static size_t length_of(char const* text) noexcept {
    return text != nullptr ? std::strlen(text) : 0;
  }
  int64_t tag() const noexcept { return __atomic_load_n(&m_tag, __ATOMIC_RELAXED); }
  size_t measure() const noexcept {
    size_t length = std::strlen(m_text);
    __atomic_store_n(&m_tag, static_cast<int64_t>(length), __ATOMIC_RELAXED);
    return length;
  }
  impl::DynamicSourceStringHolder* holder() const noexcept {
    return impl::DynamicSourceStringHolder::from_text(m_text);
  }

  void alloc_dynamic(char const* text, size_t length,
                     StringTraceData::Ptr trace_source = StringTraceData::Ptr());
  void clone_dynamic() noexcept { RefCountPtr<impl::DynamicSourceStringHolder>(holder()).detach(); }
  void dealloc_dynamic() noexcept {
    RefCountPtr<impl::DynamicSourceStringHolder> release(holder(), false);
    m_text = nullptr;
  }
  [[noreturn]] static void length_error();

  char const* m_text;
  mutable int64_t m_tag;
};

inline bool operator==(char const* text, SourceString const& s) noexcept { return s == text; }
inline bool operator!=(char const* text, SourceString const& s) noexcept { return s != text; }

inline void swap(SourceString& a, SourceString& b) noexcept { a.swap(b); }

/// Short texts are written directly; longer ones go to the installed string trace handler.
TQCORE_EXPORT std::ostream& operator<<(std::ostream& stream, SourceString const& text);

/// Function, file identifier and line of the place where an error was made.
class TQCORE_EXPORT SourceLocation {
 public:
  SourceLocation() noexcept : m_line(0) {}
  /// The form used at raising sites: both texts are unmeasured references to literals, which
  /// never allocate.
  /// NOLINTNEXTLINE(bugprone-exception-escape)
  constexpr SourceLocation(char const* function, char const* file_id, unsigned int line) noexcept
      : m_function(function, true), m_fileId(file_id, true), m_line(line) {}
  SourceLocation(SourceString function, SourceString file_id, unsigned int line) noexcept
      : m_function(std::move(function)), m_fileId(std::move(file_id)), m_line(line) {}
  SourceLocation(TransferSource<SourceString> function, TransferSource<SourceString> file_id,
                 unsigned int line) noexcept
      : m_function(function), m_fileId(file_id), m_line(line) {}
  SourceLocation(SourceLocation const&) = default;
  SourceLocation(SourceLocation&& other) noexcept
      : m_function(std::move(other.m_function)),
        m_fileId(std::move(other.m_fileId)),
        m_line(other.m_line) {
    other.m_line = 0;
  }
  SourceLocation(TransferSource<SourceLocation> source) noexcept
      : SourceLocation(std::move(source.source())) {}
  SourceLocation& operator=(SourceLocation other) noexcept {
    swap(other);
    return *this;
  }

  void swap(SourceLocation& other) noexcept {
    m_function.swap(other.m_function);
    m_fileId.swap(other.m_fileId);
    std::swap(m_line, other.m_line);
  }
  void clear() noexcept { *this = SourceLocation(); }
  TransferSource<SourceLocation> transfer() noexcept {
    return TransferSource<SourceLocation>(*this);
  }

  SourceString const& function() const noexcept { return m_function; }
  SourceString const& file_id() const noexcept { return m_fileId; }
  unsigned int line() const noexcept { return m_line; }
  /// Looks at the two texts only, never at the line.
  bool empty() const noexcept { return m_function.empty() && m_fileId.empty(); }

  /// The depot path of the file, without the revision: "//depot/a/b.cpp".
  std::string file_path() const { return file_path_from_file_id(m_fileId.data(), m_fileId.size()); }
  /// The depot path with the revision: "//depot/a/b.cpp#3".
  std::string file_depot_path() const {
    return depot_path_from_file_id(m_fileId.data(), m_fileId.size());
  }
  /// `length` may be npos; a null `id` counts as empty.
  static std::string file_path_from_file_id(char const* id, size_t length);
  static std::string depot_path_from_file_id(char const* id, size_t length);

  /// Line first, then function, then file: sorted locations group by line.
  int compare(SourceLocation const& other) const noexcept;
  bool operator==(SourceLocation const& other) const noexcept {
    return m_line == other.m_line && m_function == other.m_function && m_fileId == other.m_fileId;
  }
  bool operator!=(SourceLocation const& other) const noexcept { return !(*this == other); }
  bool operator<(SourceLocation const& other) const noexcept { return compare(other) < 0; }
  bool operator<=(SourceLocation const& other) const noexcept { return compare(other) <= 0; }
  bool operator>(SourceLocation const& other) const noexcept { return compare(other) > 0; }
  bool operator>=(SourceLocation const& other) const noexcept { return compare(other) >= 0; }

 private:
  SourceString m_function;
  SourceString m_fileId;
  unsigned int m_line;
};

inline void swap(SourceLocation& a, SourceLocation& b) noexcept { a.swap(b); }

}  // namespace tqcore

// Builds the SourceLocation of a raising site from a function-name literal and a file
// identifier literal; costs no allocation and reads no character.
#define TQCORE_SOURCE_LOCATION(function, file_id) \
  ::tqcore::SourceLocation((function), (file_id), __LINE__)

// The SourceLocation of the line where it stands: the enclosing function's name (`__func__`,
// unqualified), the source file's name as the compiler gives it, and the line. For raising
// sites in users' code; no allocation, and the texts live as long as the program.
#define TQCORE_HERE ::tqcore::SourceLocation(__func__, __FILE__, __LINE__)
