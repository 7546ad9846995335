// The meaning of system errors to each socket operation: the cases that real
// sockets on one machine cannot be made to produce, and the differences
// between the tables that the layers above rely on.

#include "sockets/tcperrortable.h"

#include "socketstest.h"

#include <cerrno>

using namespace Brevi;

TEST(TCPErrorTable, ResetIsFatalWhenSendingAndSoftWhenReceiving)
{
    for (int error : {ECONNRESET, EPIPE}) {
        EXPECT_EQ(TCPErrorTable::send(error).error, eTCPErrorClosed);
        EXPECT_TRUE(TCPErrorTable::send(error).fatal);
        EXPECT_EQ(TCPErrorTable::recv(error).error, eTCPErrorClosed);
        EXPECT_FALSE(TCPErrorTable::recv(error).fatal);
    }
    // The catch-alls differ too.
    EXPECT_EQ(TCPErrorTable::send(ETIMEDOUT).error, eTCPErrorUnknown);
    EXPECT_EQ(TCPErrorTable::recv(ETIMEDOUT).error, eTCPErrorInternal);
    EXPECT_TRUE(TCPErrorTable::recv(ETIMEDOUT).fatal);
}

TEST(TCPErrorTable, PassingShortagesAreSoftForDataAndFatalForAccept)
{
    for (int error : {ENOBUFS, ENOMEM}) {
        EXPECT_EQ(TCPErrorTable::send(error).error, eTCPErrorNoBuffers);
        EXPECT_FALSE(TCPErrorTable::send(error).fatal);
        EXPECT_EQ(TCPErrorTable::recv(error).error, eTCPErrorNoBuffers);
        EXPECT_FALSE(TCPErrorTable::recv(error).fatal);
        EXPECT_EQ(TCPErrorTable::accept(error).error, eTCPErrorResource);
        EXPECT_TRUE(TCPErrorTable::accept(error).fatal);
        EXPECT_EQ(TCPErrorTable::general(error), eTCPErrorResource);
    }
    for (int error : {EINTR, EAGAIN, EWOULDBLOCK}) {
        EXPECT_FALSE(TCPErrorTable::send(error).fatal);
        EXPECT_FALSE(TCPErrorTable::recv(error).fatal);
    }
    EXPECT_EQ(TCPErrorTable::accept(EMFILE).error, eTCPErrorTooManyFiles);
    EXPECT_EQ(TCPErrorTable::accept(ENFILE).error, eTCPErrorTooManyFiles);
}

TEST(TCPErrorTable, AcceptGoesOnPastConnectionsTheirPeerGaveUp)
{
    for (int error : {EAGAIN, ECONNABORTED, EPROTO}) {
        EXPECT_FALSE(TCPErrorTable::accept(error).fatal) << error;
        EXPECT_EQ(TCPErrorTable::accept(error).error, eTCPErrorWouldBlock) << error;
    }
    EXPECT_TRUE(TCPErrorTable::accept(EINTR).fatal);
    EXPECT_EQ(TCPErrorTable::accept(ENETDOWN).error, eTCPErrorUnreachable);
}

TEST(TCPErrorTable, DescriptorErrorsMeanNoSocket)
{
    for (int error : {EBADF, ENOTSOCK}) {
        EXPECT_EQ(TCPErrorTable::general(error), eTCPErrorSocketInvalid);
        EXPECT_EQ(TCPErrorTable::option(error), eTCPErrorSocketInvalid);
        EXPECT_EQ(TCPErrorTable::send(error).error, eTCPErrorSocketInvalid);
        EXPECT_EQ(TCPErrorTable::recv(error).error, eTCPErrorSocketInvalid);
        EXPECT_EQ(TCPErrorTable::accept(error).error, eTCPErrorSocketInvalid);
        EXPECT_EQ(TCPErrorTable::shutdown(error), eTCPErrorSocketInvalid);
    }
    EXPECT_EQ(TCPErrorTable::connect(ETIMEDOUT), eTCPErrorTimeout);
    EXPECT_EQ(TCPErrorTable::general(ETIMEDOUT), eTCPErrorUnknown);
    EXPECT_EQ(TCPErrorTable::connect(EAFNOSUPPORT), eTCPErrorInvalidArgument);
    EXPECT_EQ(TCPErrorTable::option(ENOPROTOOPT), eTCPErrorUnavailable);
    EXPECT_TRUE(TCPErrorTable::waitResource(EINVAL));
    EXPECT_FALSE(TCPErrorTable::waitResource(EINTR));
    EXPECT_FALSE(TCPErrorTable::waitResource(EBADF));
}
