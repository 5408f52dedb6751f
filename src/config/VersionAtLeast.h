#pragma once
// Dotted version comparison shared by the configuration's level gate and the
// kit runtime.
#include <string>

// True when version a is at least version b, field by field from the left.
// A field's value is built as value * 10 + (character - '0') in 32 bits, with
// no test that the character is a digit; a string that has run out gives 0.
bool VersionAtLeast(const std::string& a, const std::string& b);
