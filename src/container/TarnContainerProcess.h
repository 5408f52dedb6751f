#pragma once
// The container's link to TarnCoreService: standard input is a pipe from the
// service (session events), standard output a pipe to it (the work status).
#include <cstddef>
#include <cstdint>
#include <functional>

// The two ends, in this order: the write end, then the read end. Descriptors;
// -1 is the invalid value.
struct TarnPipeHandles {
  int pipeWrite = -1;
  int pipeRead = -1;
};

// The process-wide record that GetParentPipeHandle fills in main.
extern TarnPipeHandles PipeHandles;

class TarnContainerProcess {
 public:
  // Fills the record from standard input and output. False only when the read
  // end is unusable; a missing write end is logged and still gives true.
  static bool GetParentPipeHandle(TarnPipeHandles& handles);
  // One synchronous write of the bytes to the write end, no retry.
  static bool SendDataPipe(const TarnPipeHandles& handles, const void* data, std::size_t size);
  // Thread function of "TarnContainerProcess::Pipe_Listen": its ThreadParam's
  // arg points at the read end. Reads session events until running is cleared.
  static std::uint32_t Pipe_Listen(void* param);

  // Where an accepted session event goes next. The kit runtime's
  // NotifyWinEventToKit and the privacy notice's logon check are installed
  // here when the process starts; until a handler is installed the event ends
  // with the listener's log line.
  struct EventHandlers {
    std::function<bool(std::uint32_t eventType, std::uint32_t sessionId)> notifyWinEventToKit;
    std::function<void()> logonToCheckPrivacyNotice;
  };
  static void SetEventHandlers(EventHandlers handlers);
};
