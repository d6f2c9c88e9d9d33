#pragma once

#include "base/buffer.h"
#include "base/callback.h"
#include "base/exception.h"
#include "base/maybe.h"
#include "base/shared.h"

namespace Base {

// The outcome of an asynchronous operation. Empty: success.
using Status = Maybe<Exception>;

// Completions. Each operation either throws at its caller or calls its completion exactly once.
using StatusCallback = Shared<CallbackNoCopy<Status const&>>;

template <typename Data>
using ReadCallback = Shared<CallbackNoCopy<Status const&, Data, bool>>;  // the bool: end of stream

template <typename Data>
using WriteCallback = Shared<CallbackNoCopy<Status const&, Data>>;

// A source of `Data`, read piece by piece.
template <typename Data>
class ReadStream : public Shareable {
 public:
  using Callback = ReadCallback<Data>;

  // Reads the next piece. One read at a time, none after `Close`.
  virtual void Read(Callback callback) = 0;

  // Lets go of what the stream reads from; a second call does nothing.
  virtual void Close() = 0;
};

// A sink of `Data`.
template <typename Data>
class WriteStream : public Shareable {
 public:
  using Callback = WriteCallback<Data>;

  // Writes all of `data`, which the callback hands back. One write at a time, none after `Close`.
  virtual void Write(Data data, Callback callback) = 0;

  // Lets go of what the stream writes to; a second call does nothing.
  virtual void Close() = 0;
};

}  // namespace Base
