#pragma once

#include <sys/socket.h>

#include <cstddef>

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "io/single_read_stream.h"
#include "io/whole_write_stream.h"
#include "net/address.h"

namespace Net {

// An asynchronous socket. One connect, one read and one write may be pending at a time.
//
// Each asynchronous operation throws at its caller, and then never calls back, or calls back
// exactly once, as a task of the IO thread and never from inside the call. `Close` and an error
// end whatever is pending, by its callback.
//
// The first error that closes the socket is final: every later operation but `Disconnect` and
// `Close` throws its text. These errors are "Socket closed" after `Close` and after a read or write
// that failed, "Socket hung up" and "Socket unknown error", or the text of an errno.
//
// Threads:  `Bind` on any thread before the first other operation, all else on the IO thread.
// Lifetime: a pending operation holds the socket, its callback and its buffer until it completes.
//           The end of the loop discards pending operations without calling back.
// Errors:   beside the above, each after an ERROR line: Base::ExceptionPosix for a system call that
//           fails inside the call; what a failed system call reports later is the text of its
//           errno.
class Socket : public Base::Shareable {
 public:
  using Buffer = Base::ByteBuffer;
  using ReadCallback = Base::ReadCallback<Buffer>;    // status, what was read, end of stream
  using WriteCallback = Base::WriteCallback<Buffer>;  // status, what was written

  // bind(2). A failed bind leaves the socket usable.
  virtual void Bind(Address const& address) = 0;

  // setsockopt(2). A failure leaves the socket usable.
  virtual void SetOption(int level, int option, void const* value, socklen_t valueLength) = 0;

  // Calls back with the status of the connect, and leaves the socket usable when that failed.
  // Throws "Socket already connecting"; "Invalid Callback" for an empty callback.
  virtual void Connect(Address const& address, Base::StatusCallback callback) = 0;

  // Closes the socket as `Close` does, and calls back with the status of that. With an empty
  // callback it only closes. Never throws.
  virtual void Disconnect(Base::StatusCallback callback) = 0;

  // Sends once: calls back with the part of `data` that the kernel took, which may be all. Throws
  // "Socket already writing"; "Invalid Callback" for an empty callback.
  virtual void Write(Buffer data, WriteCallback callback) = 0;

  // Receives once into `data`: calls back with the part that was filled, and whether the stream has
  // ended. The end comes with no bytes at all, or along with the last of them. A read that had to
  // wait may report no bytes without the end; the next read reports the end. Throws "Socket already
  // reading"; "Invalid Callback" for an empty callback.
  virtual void Read(Buffer data, ReadCallback callback) = 0;

  // Ends every pending operation with "Socket closed" and closes the descriptor; a second call does
  // nothing. Throws "Socket closed" when closing fails; the descriptor is gone all the same.
  virtual void Close() = 0;
};

// A socket as a byte source: each read is one receive. After `Close` the socket stays open, and the
// stream no longer holds it.
class SocketReadStream final : public IO::SingleReadStream {
 public:
  // `bufferSize` in bytes: the most that one `Read` returns.
  SocketReadStream(Base::Shared<Socket> socket, std::size_t bufferSize);

 private:
  void ReadOnce(Base::ByteBuffer buffer, Callback callback) override;
  void CloseSource() override;

  Base::Shared<Socket> _socket;  // empty once closed
};

// A socket as a byte sink: a write goes on until the kernel has taken all of it.
class SocketWriteStream final : public IO::WholeWriteStream {
 public:
  explicit SocketWriteStream(Base::Shared<Socket> socket);

  // Releases the socket, which stays open. A write between two sends ends with "Write Stream
  // Closed", and a later `Write` throws that.
  void Close() override;

 private:
  void WriteOnce(Base::ByteBuffer data, Callback callback) override;

  Base::Shared<Socket> _socket;  // empty once closed
};

}  // namespace Net
