#ifndef TESTS_SUPPORT_SPOOLRECORDS_H
#define TESTS_SUPPORT_SPOOLRECORDS_H

#include "core/byteorder.h"

#include <QByteArray>

#include <cstdio>

#include <unistd.h>

// The records the crash tests' peers put through a spool, and their lines.
// Record N is N in 8 bytes and N % 300 bytes of a pattern of N.
inline QByteArray record(quint64 number)
{
    QByteArray bytes(int(8 + number % 300), char(number * 7));
    Brevi::ByteOrder::store64(bytes.data(), number);
    return bytes;
}

// One write a line, so that a line is on the pipe whole or not at all.
inline void say(const char* what, quint64 number)
{
    char line[64];
    const int length = std::snprintf(line, sizeof line, "%s %llu\n", what, static_cast<unsigned long long>(number));
    if (::write(1, line, size_t(length)) != length)
        _exit(3);
}

#endif
