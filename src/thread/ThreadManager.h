#pragma once
// The registry of the container's long-lived threads: the one place that
// makes them, the process-exit event every subsystem watches, and the ladder
// that ends them at shutdown (ask, cancel, wait, give up).
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/os/event.h"
#include "platform/os/thread.h"

namespace VantrelThread {

// What a managed thread function receives, as its untyped argument.
struct ThreadParam {
  ThreadParam(void* a, std::string n) : arg(a), running(true), name(std::move(n)) {}
  void* arg;
  // Cleared by WaitAll; thread loops test it.
  std::atomic<bool> running;
  std::string name;
};

// Called with a pointer to the thread's ThreadParam; the result is not used.
using ThreadFunction = std::function<std::uint32_t(void*)>;
using ThreadHandle = std::shared_ptr<tarn::os::Thread>;
using ThreadMap = std::map<ThreadHandle, std::shared_ptr<ThreadParam>>;

class ThreadManager {
 public:
  // The process-wide registry, made at first use.
  static ThreadManager& Instance();
  // Replaces the process-wide registry with a fresh one, for tests that need a
  // new process-exit event. Threads of the old one must have been ended.
  static void ResetInstanceForTesting();

  ThreadManager();
  ~ThreadManager();
  ThreadManager(const ThreadManager&) = delete;
  ThreadManager& operator=(const ThreadManager&) = delete;

  // Starts fn; flag true puts the thread among those that get the quit message.
  // False once WaitAll has begun, or when no thread could be made.
  bool Create(ThreadFunction fn, void* arg, const std::string& name, bool flag);
  // A thread that may leave the registry by itself through del (kit loaders).
  bool CreateRemovable(ThreadFunction fn, void* arg, const std::string& name);
  // Removes a removable thread, called by the thread itself on its way out.
  bool del(std::uint32_t threadId);
  // True when the thread ended within the time-out; otherwise it is given up on.
  bool ThreadEndHandle(tarn::os::Thread* handle, std::uint32_t timeoutMs);
  // Signals processExitEvent and ends every thread.
  void WaitAll();

  ThreadMap plainThreads;
  ThreadMap quitThreads;
  // Manual reset, signalled once by WaitAll. Read by every subsystem.
  std::shared_ptr<tarn::os::Event> processExitEvent;
  ThreadMap removableThreads;
  // Guards removableThreads.
  std::mutex mutex;

 private:
  ThreadHandle StartThread(ThreadFunction fn, const std::shared_ptr<ThreadParam>& param);
  // Keeps concurrent Create calls from corrupting the two unguarded maps; the
  // walks of WaitAll work on copies.
  std::mutex mapsMutex_;
};

}  // namespace VantrelThread
