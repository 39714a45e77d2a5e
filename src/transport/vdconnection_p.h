#pragma once
// Test access to a connection's receive path. Not part of the public API:
// tests and the fuzz target include it to drive a connection without a peer.

#include "transport/vdconnection.h"

class ZT_EXPORT VDConnectionTestAccess
{
public:
    //! Hands `bytes` to the receive path as the socket's reads would: an
    //! 8-byte length, then a body of that length, and so on, each body
    //! decoded, run and answered exactly as one read from the socket (faults
    //! logged and skipped). Stops at an incomplete length or body, and at a
    //! length over the limit (logged; the socket is left open). The socket's
    //! own reads are not involved.
    static void receive(VDConnection *connection, const QByteArray &bytes);
};
