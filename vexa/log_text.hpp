#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>

namespace VEXA {

/// A growing text of bounded length. Takes no lock, and no memory while it is short.
/// What does not fit is cut, with a mark at the end that shows it.
class LogText {
 public:
  static constexpr std::size_t longest = 65536;
  static constexpr char cutMark[] = " [...]";

  explicit LogText(std::size_t limit = longest) : most(limit) {}
  LogText(const LogText&) = delete;
  LogText& operator=(const LogText&) = delete;
  ~LogText();

  void append(const char* text);
  void append(const char* text, std::size_t size);
  void appendFormatted(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void appendFormatted(const char* format, va_list values) __attribute__((format(printf, 2, 0)));

  /// Appends with control characters written as escapes, such as "\n" and "\x1b".
  void appendEscaped(const char* text, std::size_t size);

  const char* data() const { return bytes; }
  std::size_t size() const { return used; }

 private:
  static constexpr std::size_t markBytes = sizeof(cutMark);

  std::size_t makeRoom(std::size_t size);
  void grow(std::size_t nextCapacity);
  void release();
  void cut();

  std::array<char, 2048> small;
  char* bytes = small.data();
  std::size_t used = 0;
  // Always markBytes less than there are, for the mark or the terminating zero.
  std::size_t capacity = sizeof(small) - markBytes;
  bool isCut = false;
  const std::size_t most;
};

}  // namespace VEXA
