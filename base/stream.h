#pragma once

#include "base/buffer.h"
#include "base/callback.h"
#include "base/exception.h"
#include "base/maybe.h"
#include "base/shared.h"

namespace Base {

// The outcome of an asynchronous operation. Empty: success. Set: a plain Exception with the text of
// the failure.
using Status = Maybe<Exception>;

// Completions. An operation either throws at its caller, and then releases its callback without a
// call, or it calls its callback exactly once. That call is a task of the IO thread and never runs
// inside the operation. When the IO thread's loop ends, it discards the callbacks that are pending.
using StatusCallback = Shared<CallbackNoCopy<Status const&>>;

template <typename Data>
using ReadCallback = Shared<CallbackNoCopy<Status const&, Data, bool>>;  // status, data, complete

template <typename Data>
using WriteCallback = Shared<CallbackNoCopy<Status const&, Data>>;  // status, data

// A source of `Data`, read piece by piece.
//
// Threads:  the constructor on any thread, all else on the IO thread.
// Lifetime: a pending read holds the stream until its callback has run, so the user may release the
//           stream meanwhile.
template <typename Data>
class ReadStream : public Shareable {
 public:
  using Callback = ReadCallback<Data>;

  // Reads the next piece; calls back with (status, data, complete). `complete` is the end of the
  // stream. Success with `complete` and no data is the end alone; success with `complete` and data
  // is the last piece. The data of a failed read mean nothing.
  // Failures: those of the source, which the call itself may throw at its first step; "Read Stream
  // Closed", or the source's own text, when `Close` ends the read. One read at a time, and no read
  // after `Close`.
  virtual void Read(Callback callback) = 0;

  // Closes the source and releases it. A pending read ends with a failure, by its callback. A
  // second call does nothing.
  virtual void Close() = 0;
};

// A sink of `Data`.
//
// Threads:  the constructor on any thread, all else on the IO thread.
// Lifetime: a pending write holds the stream until its callback has run, so the user may release
//           the stream meanwhile.
template <typename Data>
class WriteStream : public Shareable {
 public:
  using Callback = WriteCallback<Data>;

  // Writes all of `data`; calls back with (status, data), the data being those of the call, after
  // the last byte or the first failure. A failed write may have written a part.
  // Failures: those of the destination, which the call itself may throw at its first step; "Write
  // Stream Closed", or the destination's own text, when `Close` ends the write. One write at a
  // time, and no write after `Close`.
  virtual void Write(Data data, Callback callback) = 0;

  // Closes the destination and releases it. A pending write ends with a failure, by its callback. A
  // second call does nothing.
  virtual void Close() = 0;
};

}  // namespace Base
