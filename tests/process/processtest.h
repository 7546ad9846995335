#ifndef TESTS_PROCESS_PROCESSTEST_H
#define TESTS_PROCESS_PROCESSTEST_H

#include "core/context.h"
#include "process/handle.h"

#include "testhome.h"
#include "tracelines.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdio>
#include <functional>

namespace ProcessTest {

// The helper child built beside the tests.
inline QString helper() { return QStringLiteral(HELPER_PATH); }

using BreviTest::inContext;

// The descriptors this process has open, sorted.
QStringList openDescriptors();

// Reads a stream to its end and closes it.
QByteArray readAndClose(FILE* stream);

// Waits up to `milliseconds` for the process to end, without reaping it.
bool waitUntilEnded(const Brevi::Handle& handle, int milliseconds);

// A file under `directory` with `content` and `mode`.
QString writeFile(const QString& directory, const QString& name, const QByteArray& content, unsigned mode = 0644);

} // namespace ProcessTest

#endif
