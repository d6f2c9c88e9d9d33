#pragma once

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "net/address.h"
#include "net/socket.h"
#include "net/socket_linux.h"

// The connections of clients: the daemon reads each one packet by packet, one request after the
// other, until the client ends the stream or an operation fails.
//
// Threads:  the IO thread.
// Lifetime: each pending operation holds its connection.

// The accept callback: gets a new connection, or the failure to accept one.
void OnNewConnection(Base::Status const& err, Net::Address const& address,
                     Base::Shared<Net::SocketLinux> const& socket);

// Reads the next packet of a connection.
void StartReading(Base::Shared<Net::Socket> const& socket);

// The read callback: answers a packet and reads the next one. A failure closes the connection. The
// end of the stream closes it after the responses that are under way: a client that has shut down
// its sending side may still read.
void ReadFromSocket(Base::Shared<Net::Socket> const& socket, Base::Status const& err,
                    Base::ByteBuffer const& buffer, bool complete);
