#pragma once

#include <sys/socket.h>

#include <cstddef>

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "io/file_stream.h"
#include "io/whole_write_stream.h"
#include "net/address.h"

namespace Net {

// An asynchronous socket. One connect, one read and one write may be pending at a time.
//
// Threads: after its construction a socket belongs to the IO thread, where its completions run.
// Errors:  misuse and what went wrong before throw at the caller; see the implementation.
class Socket : public Base::Shareable {
 public:
  using Buffer = Base::Buffer<unsigned char>;
  using ReadCallback = Base::ReadCallback<Buffer>;    // status, what was read, end of stream
  using WriteCallback = Base::WriteCallback<Buffer>;  // status, what was written

  virtual void Bind(Address const& address) = 0;

  // setsockopt(2).
  virtual void SetOption(int level, int option, void const* value, socklen_t valueLength) = 0;

  virtual void Connect(Address const& address, Base::StatusCallback callback) = 0;

  // Closes the socket and reports how that went through the callback.
  virtual void Disconnect(Base::StatusCallback callback) = 0;

  // Sends once: the callback gets the part of `data` that was taken.
  virtual void Write(Buffer data, WriteCallback callback) = 0;

  // Receives once into `data`: the callback gets the part that was filled. The end of the stream
  // comes with no bytes at all, or along with the last of them. A read that had to wait may report
  // no bytes without the end; the next one has it.
  virtual void Read(Buffer data, ReadCallback callback) = 0;

  // Ends every pending operation and closes the descriptor; a second call does nothing.
  virtual void Close() = 0;
};

// A socket as a byte source: each read is one receive.
class SocketReadStream final : public IO::FileReadStream {
 public:
  // `bufferSize` in bytes: the most that one `Read` hands out.
  SocketReadStream(Base::Shared<Socket> socket, std::size_t bufferSize);

  // Throw Base::Exception "Read Stream Closed" after `Close`, else as the socket's `Read`.
  void Read(Callback callback) override;
  void ReadInto(Base::Buffer<unsigned char> buffer, Callback callback) override;

  // Lets go of the socket, which stays open.
  void Close() override;

 private:
  Socket& GetOpenSocket() const;

  Base::Shared<Socket> _socket;  // empty once closed
  std::size_t const _bufferSize;
};

// A socket as a byte sink: a write goes on until the kernel has taken all of it.
class SocketWriteStream final : public IO::WholeWriteStream {
 public:
  explicit SocketWriteStream(Base::Shared<Socket> socket);

  // Lets go of the socket, which stays open. `Write` is not to be called after it; a write between
  // two sends ends with "Write Stream Closed".
  void Close() override;

 private:
  void WriteOnce(Base::Buffer<unsigned char> data, Callback callback) override;

  Base::Shared<Socket> _socket;  // empty once closed
};

}  // namespace Net
