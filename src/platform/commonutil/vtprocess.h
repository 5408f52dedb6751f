#pragma once
// VTPROCESS of the utility library: starting another program, detached.
#include <string>

namespace VTPROCESS {

// Starts the program at path with the arguments (one text, split at blanks)
// and does not wait for it. False when it could not be started; the last
// error (tarn::os::GetLastError) then holds the errno. The third argument is
// the library's reserved one, passed as nullptr.
bool StartProcess(const std::wstring& path, const std::wstring& arguments, void* reserved = nullptr);
bool StartProcess(const std::string& path, const std::string& arguments, void* reserved = nullptr);

}  // namespace VTPROCESS
