#pragma once
// Text conversions between the system's narrow (UTF-8) and wide strings.
#include <string>
#include <string_view>

namespace tarn::os {

std::wstring Utf8ToWide(std::string_view text);
std::string WideToUtf8(std::wstring_view text);
std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

}  // namespace tarn::os
