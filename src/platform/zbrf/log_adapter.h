#pragma once
// The framework's diagnostics leave through one adapter that the host
// registers with ZServiceManager. Without one they are dropped.
//
// The level operations keep this slot order; the destructor comes last.
namespace tarn::zbrf {

class LogAdapter {
 public:
  virtual void Print(const char* tag, const char* text);
  virtual void Debug(const char* tag, const char* text);
  virtual void Info(const char* tag, const char* text);
  virtual void Warn(const char* tag, const char* text);
  virtual void Error(const char* tag, const char* text);
  virtual void Fatal(const char* tag, const char* text);
  virtual ~LogAdapter();
};

}  // namespace tarn::zbrf
