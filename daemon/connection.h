#pragma once

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "net/address.h"
#include "net/socket.h"
#include "net/socket_linux.h"

// The connections that clients make: each is read packet by packet, a request after the other,
// until the client ends it or something fails. On the IO thread; whatever is pending holds the
// connection.

// Takes a connection, or the failure to take one.
void OnNewConnection(Base::Status const& err, Net::Address const& address,
                     Base::Shared<Net::SocketLinux> const& socket);

// Reads the next packet of a connection.
void StartReading(Base::Shared<Net::Socket> const& socket);

// Answers a packet and reads the next one. Whatever goes wrong ends the connection, and so does the
// end of the stream, there only after the responses that are still under way: a client that has
// ended its own direction may still be reading.
void ReadFromSocket(Base::Shared<Net::Socket> const& socket, Base::Status const& err,
                    Base::ByteBuffer const& buffer, bool complete);
