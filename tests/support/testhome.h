#ifndef TESTS_SUPPORT_TESTHOME_H
#define TESTS_SUPPORT_TESTHOME_H

#include "core/context.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>

namespace BreviTest {

// A fresh home directory for one test, set as BREVI_HOME for this process and
// removed afterwards. A process reads its directory tree once, at its first
// context, so a test that needs another tree runs in its own process (each test
// case is its own CTest test).
class TestHome
{
public:
    TestHome();
    ~TestHome();

    const QString& path() const { return msPath; }
    QString config() const { return msPath + "/db/config"; }
    QString trace() const { return msPath + "/runtime/trace"; }
    QString dump() const { return msPath + "/runtime/dump"; }

    // Writes "profile.cfg" with the given lines.
    void writeProfile(const QStringList& lines) const;
    QStringList filesIn(const QString& directory, const QString& pattern = "*") const;
    static QByteArray readFile(const QString& path);

private:
    QTemporaryDir moDir;
    QString msPath;
};

// Runs `body` on this thread inside a context with tracing, under a fresh
// BREVI_HOME, so that the trace lines of what it calls can be read back and
// what it makes under the directory tree goes away. The default type has no
// messaging; TypeStandalone gives the thread its own.
void inContext(const std::function<void()>& body, Brevi::Context::Type type = Brevi::Context::Type(7));

// Runs an executable built next to the tests, waits for it, and reports how it
// ended. `signal` is the terminating signal or 0.
struct ChildResult {
    int exitCode = -1;
    int signal = 0;
};
ChildResult runChild(const QString& program, const QStringList& arguments, const QStringList& environment = {});

} // namespace BreviTest

#endif
