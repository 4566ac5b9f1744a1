#include <tqcore/source_string.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <ostream>
#include <stdexcept>

namespace tqcore {

char const* const SourceString::sm_emptyStrData = "";

// ---- StringTraceData -------------------------------------------------------------------------

// The state word holds either an inline record or the address of the array.
StringTraceData::Record* StringTraceData::records_of(uint64_t state) noexcept {
  return reinterpret_cast<Record*>(state);  // NOLINT(performance-no-int-to-ptr)
}

StringTraceData::~StringTraceData() {
  uint64_t const state = m_traceState.load(std::memory_order_acquire);
  if (state != 0 && (state & 1) == 0) ::operator delete(records_of(state));
}

unsigned int StringTraceData::query_trace_file_offset(size_t sink, unsigned int file_id) const {
  uint64_t const state = m_traceState.load(std::memory_order_acquire);
  if (sink >= max_trace_sink_count() || state == 0) return 0;
  if ((state & 1) == 0) {
    Record const& record = records_of(state)[sink];
    return record.file_id == file_id ? record.offset : 0;
  }
  if (sink != 0) return 0;
  // Inline, the file id was stored shifted left by one: an id with its top bit set never
  // matches there.
  uint32_t stored = static_cast<uint32_t>(state) >> 1;
  return stored == file_id ? static_cast<unsigned int>(state >> 32) : 0;
}

// Sink 0 writes inline until another sink needs the array; the switch is published by
// compare-and-exchange, so a write of sink 0 racing it lands in the array, not in a lost word.
void StringTraceData::set_trace_file_offset(size_t sink, unsigned int file_id,
                                            unsigned int offset) const {
  if (sink >= max_trace_sink_count()) return;
  uint64_t state = m_traceState.load(std::memory_order_acquire);
  for (;;) {
    if (state != 0 && (state & 1) == 0) {
      records_of(state)[sink] = Record{file_id, offset};
      return;
    }
    if (sink == 0) {
      uint64_t const inline_record =
          (static_cast<uint64_t>(offset) << 32) | static_cast<uint32_t>(file_id << 1) | 1;
      if (m_traceState.compare_exchange_weak(state, inline_record, std::memory_order_acq_rel)) {
        return;
      }
      continue;
    }
    auto* records = static_cast<Record*>(::operator new(sizeof(Record) * max_trace_sink_count()));
    std::fill(records, records + max_trace_sink_count(), Record{0, 0});
    if (state != 0) {
      records[0] =
          Record{static_cast<uint32_t>(state) >> 1, static_cast<unsigned int>(state >> 32)};
    }
    records[sink] = Record{file_id, offset};
    if (m_traceState.compare_exchange_strong(state, reinterpret_cast<uint64_t>(records),
                                             std::memory_order_acq_rel)) {
      return;
    }
    ::operator delete(records);  // sink 0 wrote meanwhile, or another sink switched first
  }
}

namespace {

// Installed by an outside trace system; written by exchange, read plainly.
std::atomic<StringTraceSupportedHandler> g_supportedHandler{nullptr};
std::atomic<StringTraceWriteDataHandler> g_writeDataHandler{nullptr};
std::atomic<StringTraceWriteStringHandler> g_writeStringHandler{nullptr};

}  // namespace

void set_string_trace_handlers(StringTraceSupportedHandler supported,
                               StringTraceWriteDataHandler write_trace_data,
                               StringTraceWriteStringHandler write_source_string) {
  g_supportedHandler.exchange(supported);
  g_writeDataHandler.exchange(write_trace_data);
  g_writeStringHandler.exchange(write_source_string);
}

bool StringTraceData::supported_by_stream(std::ostream& stream) {
  StringTraceSupportedHandler handler = g_supportedHandler.load(std::memory_order_acquire);
  return handler != nullptr && handler(stream);
}

void StringTraceData::write_to_stream(std::ostream& stream, Ptr const& data) {
  if (StringTraceWriteDataHandler handler = g_writeDataHandler.load(std::memory_order_acquire)) {
    handler(stream, data);
    return;
  }
  if (data) {
    std::pair<char const*, size_t> text = data->trace_text();
    stream.write(text.first, static_cast<std::streamsize>(text.second));
  }
}

// ---- DynamicSourceStringHolder ---------------------------------------------------------------

namespace impl {

DynamicSourceStringHolder::DynamicSourceStringHolder(StringTraceData::Ptr trace_source,
                                                     uint64_t length) noexcept
    : m_traceSource(std::move(trace_source)), m_length(length) {}

DynamicSourceStringHolder* DynamicSourceStringHolder::create(char const* text, size_t length,
                                                             StringTraceData::Ptr trace_source) {
  void* block = ::operator new(sizeof(DynamicSourceStringHolder) + length + 1);
  auto* holder = new (block) DynamicSourceStringHolder(std::move(trace_source), length);
  char* target = const_cast<char*>(holder->text());
  std::memcpy(target, text, length);
  target[length] = '\0';
  RefCountPtr<DynamicSourceStringHolder>(holder).detach();  // the caller's reference
  return holder;
}

std::pair<char const*, size_t> DynamicSourceStringHolder::trace_text() const {
  return {text(), length()};
}

void DynamicSourceStringHolder::destroy() {
  this->~DynamicSourceStringHolder();
  ::operator delete(static_cast<void*>(this));
}

}  // namespace impl

// ---- SourceString ----------------------------------------------------------------------------

SourceString::SourceString(char const* text, size_t length, bool reference) {
  if (!reference) {
    alloc_dynamic(text, length);
    return;
  }
  if (static_cast<int64_t>(length) < 0) length_error();
  if (text == nullptr) length = 0;
  m_text = length == 0 ? sm_emptyStrData : text;
  m_tag = static_cast<int64_t>(length);
}

SourceString::SourceString(StringTraceData::Ptr const& trace_source) {
  std::pair<char const*, size_t> text = trace_source->trace_text();
  alloc_dynamic(text.first, text.second, trace_source);
}

void SourceString::alloc_dynamic(char const* text, size_t length,
                                 StringTraceData::Ptr trace_source) {
  if (static_cast<int64_t>(length) < 0) length_error();
  if (length == 0 || text == nullptr) {
    m_text = sm_emptyStrData;
    m_tag = 0;
    return;
  }
  m_text = impl::DynamicSourceStringHolder::create(text, length, std::move(trace_source))->text();
  m_tag = -static_cast<int64_t>(length);
}

void SourceString::length_error() {
  throw std::runtime_error("tqcore::SourceString : excessive string length");
}

namespace {

int compare_bytes(char const* a, size_t a_length, char const* b, size_t b_length) noexcept {
  int result = std::memcmp(a, b, std::min(a_length, b_length));  // memcmp compares unsigned
  if (result != 0) return result;
  if (a_length == b_length) return 0;
  return a_length < b_length ? -1 : 1;
}

}  // namespace

int SourceString::compare(SourceString const& other) const noexcept {
  if (m_text == other.m_text) return 0;
  return compare_bytes(m_text, size(), other.m_text, other.size());
}

int SourceString::compare(char const* text, size_t length) const noexcept {
  return compare_bytes(m_text, size(), text != nullptr ? text : "", text != nullptr ? length : 0);
}

bool SourceString::operator==(SourceString const& other) const noexcept {
  if (m_text == other.m_text) return true;
  size_t length = size();
  return length == other.size() && std::memcmp(m_text, other.m_text, length) == 0;
}

bool SourceString::operator==(char const* text) const noexcept {
  if (m_text == text) return true;
  if (text == nullptr) return size() == 0;
  size_t length = size();
  return length == std::strlen(text) && std::memcmp(m_text, text, length) == 0;
}

StringTraceData::Ptr SourceString::query_trace_data() const {
  if (tag() >= 0) return StringTraceData::Ptr();
  impl::DynamicSourceStringHolder* block = holder();
  if (block->trace_source()) return block->trace_source();
  return StringTraceData::Ptr(block, RefCountPtr<RefCounted<AtomicRefCount> const>(block));
}

std::ostream& operator<<(std::ostream& stream, SourceString const& text) {
  size_t length = text.size();
  // Below 8 characters a reference into a trace file would cost more than the text.
  if (length >= 8) {
    if (auto handler = g_writeStringHandler.load(std::memory_order_acquire)) {
      handler(stream, text);
      return stream;
    }
  }
  return stream.write(text.data(), static_cast<std::streamsize>(length));
}

// ---- SourceLocation --------------------------------------------------------------------------

namespace {

struct Span {
  size_t start;
  size_t end;
};

// The path starts at the first '/', or at 0 without one.
size_t path_start(char const* id, size_t length) {
  char const* slash = static_cast<char const*>(std::memchr(id, '/', length));
  return slash != nullptr ? static_cast<size_t>(slash - id) : 0;
}

// An end that is not above the start means the whole text stands.
std::string path_text(char const* id, size_t length, Span span) {
  if (span.end <= span.start) return std::string(id, length);
  return std::string(id + span.start, span.end - span.start);
}

void normalise(char const*& id, size_t& length) {
  if (id == nullptr) {
    id = "";
    length = 0;
  } else if (length == SourceString::npos) {
    length = std::strlen(id);
  }
}

}  // namespace

std::string SourceLocation::depot_path_from_file_id(char const* id, size_t length) {
  normalise(id, length);
  // The end lies after the last character that is neither blank nor '$', or at the end.
  size_t end = length;
  while (end > 0 && (id[end - 1] == ' ' || id[end - 1] == '$')) --end;
  if (end == 0) end = length;
  return path_text(id, length, Span{path_start(id, length), end});
}

std::string SourceLocation::file_path_from_file_id(char const* id, size_t length) {
  normalise(id, length);
  // The end lies at the last '#', which drops the revision.
  char const* hash = static_cast<char const*>(memrchr(id, '#', length));
  size_t end = hash != nullptr ? static_cast<size_t>(hash - id) : length;
  return path_text(id, length, Span{path_start(id, length), end});
}

int SourceLocation::compare(SourceLocation const& other) const noexcept {
  if (m_line != other.m_line) return m_line < other.m_line ? -1 : 1;
  if (int result = m_function.compare(other.m_function)) return result;
  return m_fileId.compare(other.m_fileId);
}

}  // namespace tqcore
