#include "platform/commonutil/vtprocess.h"

#include "platform/os/process.h"
#include "platform/os/text.h"

namespace VTPROCESS {

bool StartProcess(const std::string& path, const std::string& arguments, void* /*reserved*/) {
  return tarn::os::GetProcesses().StartProcess(path, arguments);
}

bool StartProcess(const std::wstring& path, const std::wstring& arguments, void* reserved) {
  return StartProcess(tarn::os::WideToUtf8(path), tarn::os::WideToUtf8(arguments), reserved);
}

}  // namespace VTPROCESS
