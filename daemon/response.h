#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "base/shared.h"
#include "net/socket.h"

// Writing responses to a connection, and its end. On the IO thread.

// Serialises `response` compactly and sends it as one packet, after the responses that are still
// under way on this connection. Returns at once; a failed write disconnects.
// Throws nlohmann::json::exception for text that is not UTF-8, the socket's latched error, and
// Base::Exception "Too Many Unread Responses" when the client leaves more than 1 MiB unread.
void WriteResponse(Base::Shared<Net::Socket> const& socket, nlohmann::json const& response);

// Sends {"status": status, "error_message": message}, the message only where it is not empty.
void WriteErrorResponse(Base::Shared<Net::Socket> const& socket, std::string const& status,
                        std::string const& message);

// Closes the connection. Responses that are not written yet are lost.
void DisconnectSocket(Base::Shared<Net::Socket> const& socket);

// Closes the connection after the responses that are under way have been written.
void DisconnectSocketWhenWritten(Base::Shared<Net::Socket> const& socket);
