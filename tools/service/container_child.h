#pragma once
// One run of TarnCoreContainer as the service starts it: standard input is the
// read end of a pipe from the service, standard output the write end of a pipe
// to it, and argv[1] the number of an inherited descriptor in "%p" form, the
// read end of the exit pipe whose write end only the service holds. Closing
// that write end (or the service's death) is what tells the container to end.
#include <sys/types.h>

#include <chrono>
#include <string>
#include <string_view>

namespace tarn::service {

class ContainerChild {
 public:
  ContainerChild() = default;
  ~ContainerChild();
  ContainerChild(const ContainerChild&) = delete;
  ContainerChild& operator=(const ContainerChild&) = delete;

  // Starts the program. False with errno set when it could not be started.
  bool Start(const std::string& path);

  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  std::chrono::steady_clock::time_point startedAt() const { return startedAt_; }
  // Read end of the container's standard output, -1 once closed.
  int output() const { return output_; }

  // One write of a whole message to the container's standard input. A full
  // pipe (a container that does not read) drops the message: false, EAGAIN.
  bool Send(std::string_view bytes);
  // Bytes the container has not read yet from its standard input.
  int PendingInput() const;
  // Reads what the container wrote: >0 bytes, 0 at its end (the descriptor is
  // then closed), -1 when nothing is there now.
  ssize_t Receive(char* buf, std::size_t size);

  // Signals the container to end.
  void CloseExitPipe();
  bool exitPipeClosed() const { return exitWrite_ < 0; }
  void Kill();
  // After the process was reaped: releases every descriptor of this run.
  void Ended();

 private:
  void CloseAll();

  pid_t pid_ = -1;
  int input_ = -1;      // write end of the container's standard input
  int output_ = -1;     // read end of the container's standard output
  int exitWrite_ = -1;  // write end of the exit pipe
  std::chrono::steady_clock::time_point startedAt_{};
};

}  // namespace tarn::service
