#pragma once
// Blocking reads that another thread can cancel, the stand-in for
// CancelSynchronousIo: every blocking read of a managed thread goes through
// CancellableRead, which waits on the descriptor and on the thread's cancel signal.
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace tarn::os {

class Thread;

// read(2) that waits until data, end of file, an error, or a cancel of this
// thread. Gives the byte count (0 at end of file), or -1 with the last error
// set: kErrorOperationAborted when cancelled, the errno otherwise.
ssize_t CancellableRead(int fd, void* buffer, std::size_t size);

// Cancels the read the thread is blocked in. False with kErrorNotFound when it
// is not in one, with EBADF for a null thread.
bool CancelSynchronousIo(Thread* thread);

// True while the thread waits in CancellableRead.
bool IsInCancellableRead(const Thread* thread);

}  // namespace tarn::os
