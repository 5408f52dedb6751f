#pragma once
// Server side of the IPC library: listens on $TARNCORE_ROOT/run/tarncore/ipc.sock
// (mode 0666) and delivers every frame a client sends to the callbacks that an
// in-process TarnCoreIPCMessageClient(IpcAddressContainer, ...) registered.
//
// Each connection (up to Options::readerThreads of them) has a reader thread
// that waits on its socket and runs what it reads itself, so a request costs no
// thread hand-off. Beside them a pool of worker threads (at least 8) shares
// one epoll set: it reads the connections beyond that number, takes further
// frames read in the same go, and reads a connection whose reader has been
// busy with one request for a few milliseconds, so requests from one
// connection run at once.
//
// Per connection the peer process is taken at accept: its pid and a pidfd
// (tarn::os::PeerProcess). A frame is delivered with its sender as the
// thread's caller (tarn::os::CallerScope), so checks of the caller made by the
// callbacks are about that process. Per syncMessageId the server remembers the
// connection that sent it last; a message posted with that id goes back there
// and the entry is dropped. A frame above 16 MiB, or bytes
// that are no frame header, close only that connection.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/ipc/ipc_message.h"

namespace tarn::ipc {
class ServerCore;
}

class TarnCoreIPCMessageServer {
 public:
  struct Options {
    std::string socketPath;  // empty: tarn::ipc::SocketPath() at Start
    int workerThreads = 0;   // below 8: 8
    int readerThreads = 64;  // connections that get a reader of their own
    // Bounds of what clients can make the server hold. Connections beyond the
    // first maxConnections wait in the listen queue (fewer when the process
    // may not open enough descriptors for them). A connection's route entries
    // of requests not yet answered are capped; past the cap the oldest give
    // way and their answers are dropped. Frames waiting for a worker are
    // capped; past the cap the thread that read them runs them itself and
    // reads no further meanwhile. Request bytes held by the server are capped;
    // a connection whose request would go past the cap is closed.
    std::size_t maxConnections = 256;
    std::size_t maxUnanswered = 1024;
    std::size_t maxQueuedFrames = 1024;
    std::size_t maxBufferedInput = 256u * 1024 * 1024;
  };

  TarnCoreIPCMessageServer();
  explicit TarnCoreIPCMessageServer(Options options);
  // Stops the server.
  ~TarnCoreIPCMessageServer();
  TarnCoreIPCMessageServer(const TarnCoreIPCMessageServer&) = delete;
  TarnCoreIPCMessageServer& operator=(const TarnCoreIPCMessageServer&) = delete;

  // Binds the socket and starts the workers. False when the socket can't be
  // made, or when another live server already answers on that path. The started
  // server becomes the one that container-side clients of this process attach to.
  bool Start();
  // Closes every connection, joins the workers and removes the socket file.
  // Callbacks that are running finish first.
  void Stop();

  // Pid of the peer whose connection last sent this id; 0 when unknown (never
  // seen, already answered, or its connection closed). Asked while the frame
  // of that id is delivered, the pid of the frame's own sender.
  uint32_t GetCallerPidByMsgId(int32_t syncMessageId);

  std::size_t ConnectionCount() const;
  const std::string& SocketPathInUse() const;

 private:
  std::shared_ptr<tarn::ipc::ServerCore> core_;
};
