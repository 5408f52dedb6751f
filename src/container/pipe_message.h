#pragma once
// The words that cross the two pipes between TarnCoreService and the container,
// and the text form of the exit handle on the container's command line.
//
// Pipe messages are UTF-16LE without terminator or framing: one message is
// what one read returns.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tarn::container {

// Inbound, service to container.
inline constexpr const wchar_t* kNotifyWinEventFormat = L"NotifyWinEvent%luEventId%lu";
// Outbound, container to service: this word followed by a decimal status.
inline constexpr std::string_view kWorkStatusWord = "NotifyWorkStatus";

// Session change events as the service numbers them.
inline constexpr std::uint32_t kSessionLogon = 5;
inline constexpr std::uint32_t kSessionLogoff = 6;
inline constexpr std::uint32_t kSessionLock = 7;
inline constexpr std::uint32_t kSessionUnlock = 8;

// UTF-8 text as the bytes of its UTF-16LE form.
std::string ToPipeBytes(std::string_view utf8);
// UTF-16LE bytes as UTF-8 text; a trailing odd byte is dropped.
std::string FromPipeBytes(std::string_view bytes);

// "NotifyWinEvent<type>EventId<session>".
std::string NotifyWinEventText(std::uint32_t type, std::uint32_t session);
// "NotifyWorkStatus<status>".
std::string WorkStatusText(int status);

// Scans a zero-ended UTF-16 buffer with kNotifyWinEventFormat. True only when
// both numbers were read; the numbers are 32-bit as the service sends them.
bool ScanNotifyWinEvent(const char16_t* text, std::uint32_t& type, std::uint32_t& session);

// The status of the first "NotifyWorkStatus<digits>" in text, if any.
std::optional<int> FindWorkStatus(std::string_view text);

// A descriptor number as it goes on the container's command line ("%p": "0x3").
std::string FormatExitHandle(int fd);
// The command line scanned with "%p", without a check of the result: the
// value stays 0 (the null handle) when nothing could be read.
std::intptr_t ScanExitHandle(const std::wstring& commandLine);

}  // namespace tarn::container
