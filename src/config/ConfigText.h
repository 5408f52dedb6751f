#pragma once
// Reading configuration files and their values as text.
#include <cstdint>
#include <string>

#include <json/json.h>

namespace tarn::config {

// A value as text: a string as it stands, a number as its decimal text, a
// boolean as "true"/"false", null or missing as "". An array or object throws
// Json::LogicError, as the JSON library does for any such conversion.
std::string ValueText(const Json::Value& value);

// Parses a configuration file (comments allowed). False when the file doesn't
// open (openError tells why; a directory is EISDIR) or isn't JSON; `opened`
// says which, `errors` what the JSON reader found.
bool ParseConfigFile(const std::string& path, Json::Value& root, bool& opened, int& openError,
                     std::string* errors = nullptr);

// std::stol in base 10 on a 32-bit long: leading blanks skipped, conversion
// stops at the first character that doesn't fit. Throws std::invalid_argument
// ("invalid stol argument") or std::out_of_range ("stol argument out of range").
std::int32_t Stol32(const std::string& text);

// atoi on a 32-bit int: what stol would read, 0 when nothing, clamped on overflow.
std::int32_t Atoi32(const std::string& text);

}  // namespace tarn::config
