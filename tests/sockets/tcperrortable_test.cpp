// What system errors mean to the socket operations, for the cases that real
// sockets on one machine cannot be made to produce, and the differences
// between the tables that the layers above rely on.

#include "sockets/tcperrortable.h"

#include "socketstest.h"

#include <cerrno>

using namespace Brevi;

TEST(TCPErrorTable, MeaningsTheLayersAboveRelyOn)
{
    for (int error : {ECONNRESET, EPIPE}) {
        // A reset is fatal while sending, and only the end while receiving.
        EXPECT_EQ(TCPErrorTable::send(error).error, eTCPErrorClosed);
        EXPECT_TRUE(TCPErrorTable::send(error).fatal);
        EXPECT_EQ(TCPErrorTable::recv(error).error, eTCPErrorClosed);
        EXPECT_FALSE(TCPErrorTable::recv(error).fatal);
    }
    for (int error : {ENOBUFS, ENOMEM}) {
        EXPECT_EQ(TCPErrorTable::send(error).error, eTCPErrorNoBuffers);
        EXPECT_FALSE(TCPErrorTable::recv(error).fatal);
        EXPECT_EQ(TCPErrorTable::accept(error).error, eTCPErrorResource);
        EXPECT_TRUE(TCPErrorTable::accept(error).fatal);
    }
    // A connection its peer gave up does not stop a listener.
    for (int error : {EAGAIN, ECONNABORTED, EPROTO})
        EXPECT_FALSE(TCPErrorTable::accept(error).fatal) << error;
    EXPECT_EQ(TCPErrorTable::send(ETIMEDOUT).error, eTCPErrorUnknown);
    EXPECT_EQ(TCPErrorTable::recv(ETIMEDOUT).error, eTCPErrorInternal);
    EXPECT_EQ(TCPErrorTable::connect(ETIMEDOUT), eTCPErrorTimeout);
    EXPECT_EQ(TCPErrorTable::general(ETIMEDOUT), eTCPErrorUnknown);
    EXPECT_EQ(TCPErrorTable::general(EBADF), eTCPErrorSocketInvalid);
    EXPECT_EQ(TCPErrorTable::option(ENOPROTOOPT), eTCPErrorUnavailable);
    EXPECT_TRUE(TCPErrorTable::waitResource(EINVAL));
    EXPECT_FALSE(TCPErrorTable::waitResource(EBADF));
}
