#include "container/pipe_message.h"

#include <cctype>
#include <cstdio>
#include <cwchar>

#include "platform/os/text.h"

namespace tarn::container {

std::string ToPipeBytes(std::string_view utf8) {
  const std::u16string wide = os::Utf8ToUtf16(utf8);
  std::string bytes;
  bytes.reserve(wide.size() * 2);
  for (char16_t unit : wide) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes;
}

std::string FromPipeBytes(std::string_view bytes) {
  std::u16string wide;
  wide.reserve(bytes.size() / 2);
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const auto lo = static_cast<unsigned char>(bytes[i]);
    const auto hi = static_cast<unsigned char>(bytes[i + 1]);
    wide += static_cast<char16_t>(lo | (hi << 8));
  }
  return os::Utf16ToUtf8(wide);
}

std::string NotifyWinEventText(std::uint32_t type, std::uint32_t session) {
  return "NotifyWinEvent" + std::to_string(type) + "EventId" + std::to_string(session);
}

std::string WorkStatusText(int status) {
  return std::string(kWorkStatusWord) + std::to_string(status);
}

bool ScanNotifyWinEvent(const char16_t* text, std::uint32_t& type, std::uint32_t& session) {
  // swscanf reads wchar_t, which is 32 bits here; widen unit by unit. Digits
  // and the ASCII words are all the scan can match, so surrogates need no care.
  std::wstring wide;
  for (const char16_t* p = text; *p != 0; ++p) wide += static_cast<wchar_t>(*p);
  unsigned long first = 0;
  unsigned long second = 0;
  if (std::swscanf(wide.c_str(), kNotifyWinEventFormat, &first, &second) != 2) return false;
  // The service's numbers are DWORDs; a longer unsigned long keeps their low 32 bits.
  type = static_cast<std::uint32_t>(first);
  session = static_cast<std::uint32_t>(second);
  return true;
}

std::optional<int> FindWorkStatus(std::string_view text) {
  for (std::size_t at = text.find(kWorkStatusWord); at != std::string_view::npos;
       at = text.find(kWorkStatusWord, at + 1)) {
    std::size_t i = at + kWorkStatusWord.size();
    int value = 0;
    std::size_t digits = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])) && digits < 9) {
      value = value * 10 + (text[i] - '0');
      ++i;
      ++digits;
    }
    if (digits > 0) return value;
  }
  return std::nullopt;
}

std::string FormatExitHandle(int fd) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
  return text;
}

std::intptr_t ScanExitHandle(const std::wstring& commandLine) {
  void* handle = nullptr;
  std::swscanf(commandLine.c_str(), L"%p", &handle);
  return reinterpret_cast<std::intptr_t>(handle);
}

}  // namespace tarn::container
