#include <charconv>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "include/orlo_sdk.h"
#include "internal.h"

struct CsvRecord {
  std::string fields;  // each followed by a NUL; fields contain no NUL
  std::size_t count = 0;
  bool malformed = false;
  bool blank = true;  // only white space outside quotes
};

namespace {

// The stream's bytes, with two bytes of pushback.
class Input {
 public:
  explicit Input(FILE* stream) noexcept : stream_(stream) {}

  int get() noexcept {
    return pendingCount_ > 0 ? pending_[--pendingCount_] : getc_unlocked(stream_);
  }
  void putBack(int c) noexcept { pending_[pendingCount_++] = c; }

  // The first byte of a record, after a byte-order mark if there is one.
  int getFirst() noexcept {
    const int first = get();
    if (first != 0xEF) {
      return first;
    }
    const int second = get();
    const int third = second == 0xBB ? get() : 0;
    if (third == 0xBF) {
      return get();
    }
    if (second == 0xBB) {
      putBack(third);
    }
    putBack(second);
    return first;
  }

 private:
  FILE* stream_;
  int pending_[2] = {};
  int pendingCount_ = 0;
};

class RecordReader {
 public:
  RecordReader(Input& input, CsvRecord& record) noexcept : input_(input), record_(record) {}

  // Reads one record, whose first byte is `c`. Reads a malformed record to the end of its line.
  void read(int c) {
    while (c != EOF && !take(c)) {
      c = input_.get();
    }
    if (state_ == State::Quoted) {
      record_.malformed = true;
    }
    endField();
  }

 private:
  enum class State { FieldStart, Bare, Quoted, QuoteClosed };

  // Processes one byte. True when it ends the record.
  bool take(int c) {
    if (state_ == State::Quoted) {
      if (c == '"') {
        state_ = State::QuoteClosed;
      } else {
        append(c);
      }
      return false;
    }
    if (c == '\n' || (c == '\r' && atLineEnd())) {
      return true;
    }
    record_.blank &= orlo::isSpace(static_cast<char>(c));
    if (c == ',') {
      endField();
      state_ = State::FieldStart;
    } else if (c == '"') {
      takeQuote();
    } else {
      record_.malformed |= state_ == State::QuoteClosed;
      append(c);
      state_ = State::Bare;
    }
    return false;
  }

  void takeQuote() {
    if (state_ == State::Bare) {
      record_.malformed = true;
      return;
    }
    if (state_ == State::QuoteClosed) {
      append('"');
    }
    state_ = State::Quoted;
  }

  // Called after a CR: whether it ends the line, before LF or at the end of the file.
  bool atLineEnd() {
    const int next = input_.get();
    if (next == '\n' || next == EOF) {
      return true;
    }
    input_.putBack(next);
    return false;
  }

  void append(int c) {
    if (c == '\0' || record_.fields.size() >= orlo::kMaxLineBytes) {
      record_.malformed = true;
    } else {
      record_.fields.push_back(static_cast<char>(c));
    }
  }

  void endField() {
    if (record_.fields.size() > orlo::kMaxLineBytes) {
      record_.malformed = true;
      return;
    }
    record_.fields.push_back('\0');
    ++record_.count;
  }

  Input& input_;
  CsvRecord& record_;
  State state_ = State::FieldStart;
};

}  // namespace

CsvRecord* CsvRecordRead(FILE* stream) {
  if (stream == nullptr) {
    return nullptr;
  }
  Input input(stream);
  for (int first = input.getFirst(); first != EOF; first = input.getFirst()) {
    std::unique_ptr<CsvRecord> record(new (std::nothrow) CsvRecord);
    if (!record) {
      return nullptr;
    }
    try {
      RecordReader(input, *record).read(first);
    } catch (const std::bad_alloc&) {
      record->malformed = true;
    }
    record->malformed |= ferror(stream) != 0;  // the record may have been cut short
    if (record->malformed || !record->blank) {
      return record.release();
    }
  }
  return nullptr;
}

bool OrloCsvReadStr(const CsvRecord* record, size_t column, const char** result) {
  if (record == nullptr || result == nullptr || record->malformed || column >= record->count) {
    return false;
  }
  const char* field = record->fields.c_str();
  for (; column > 0; --column) {
    field += std::strlen(field) + 1;
  }
  *result = field;
  return true;
}

bool OrloCsvReadUInt(const CsvRecord* record, size_t column, uint32_t* result) {
  const char* text = nullptr;
  if (result == nullptr || !OrloCsvReadStr(record, column, &text)) {
    return false;
  }
  const std::string_view digits = orlo::trimmed(text);
  const char* const end = digits.data() + digits.size();
  uint32_t value = 0;
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || stop != end) {
    return false;
  }
  *result = value;
  return true;
}

void CsvRecordDestroy(CsvRecord* record) {
  std::unique_ptr<CsvRecord>{record}.reset();
}
