#include "vexa/log_text.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace VEXA {

namespace {

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7f;
}

void appendEscape(LogText& text, char character) {
  switch (character) {
    case '\n':
      text.append("\\n");
      break;
    case '\r':
      text.append("\\r");
      break;
    case '\t':
      text.append("\\t");
      break;
    default:
      text.appendFormatted("\\x%02x", static_cast<unsigned int>(character));
  }
}

}  // namespace

LogText::~LogText() {
  release();
}

void LogText::release() {
  if (bytes != small.data()) {
    std::free(bytes);
  }
}

void LogText::append(const char* text) {
  append(text, std::strlen(text));
}

void LogText::append(const char* text, std::size_t size) {
  const std::size_t room = std::min(size, makeRoom(size));
  std::memcpy(bytes + used, text, room);
  used += room;
  if (room < size) {
    cut();
  }
}

void LogText::appendFormatted(const char* format, ...) {
  va_list values;
  va_start(values, format);
  appendFormatted(format, values);
  va_end(values);
}

void LogText::appendFormatted(const char* format, va_list values) {
  va_list again;
  va_copy(again, values);
  std::size_t room = makeRoom(1);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is, by va_start above
  const int length = std::vsnprintf(bytes + used, room + 1, format, values);
  const std::size_t size = length < 0 ? 0 : static_cast<std::size_t>(length);
  if (size > room) {
    room = makeRoom(size);
    std::vsnprintf(bytes + used, room + 1, format, again);
  }
  va_end(again);
  used += std::min(size, room);
  if (size > room) {
    cut();
  }
}

void LogText::appendEscaped(const char* text, std::size_t size) {
  const char* const end = text + size;
  while (text != end) {
    const char* const control = std::find_if(text, end, isControl);
    append(text, static_cast<std::size_t>(control - text));
    text = control;
    if (control != end) {
      appendEscape(*this, *control);
      ++text;
    }
  }
}

// @return how many more bytes fit, as many as wanted if possible.
std::size_t LogText::makeRoom(std::size_t size) {
  if (isCut) {
    return 0;
  }
  if (used + size > capacity && capacity < most) {
    grow(std::min(std::max(used + size, 2 * capacity), most));
  }
  return capacity - used;
}

// Without memory the text stays as it is and is cut.
void LogText::grow(std::size_t nextCapacity) {
  void* const bigger = std::malloc(nextCapacity + markBytes);
  if (bigger != nullptr) {
    std::memcpy(bigger, bytes, used);
    release();
    bytes = static_cast<char*>(bigger);
    capacity = nextCapacity;
  }
}

void LogText::cut() {
  if (!isCut) {
    isCut = true;
    std::memcpy(bytes + used, cutMark, markBytes);
    used += markBytes - 1;
  }
}

}  // namespace VEXA
