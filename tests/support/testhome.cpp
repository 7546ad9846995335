#include "testhome.h"

#include <QDir>
#include <QFile>
#include <QTextStream>

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace BreviTest {

TestHome::TestHome()
    : msPath(QDir(moDir.path()).canonicalPath())
{
    setenv("BREVI_HOME", msPath.toLocal8Bit().constData(), 1);
}

TestHome::~TestHome() { unsetenv("BREVI_HOME"); }

void TestHome::writeProfile(const QStringList& lines) const
{
    QDir().mkpath(config());
    QFile file(config() + "/profile.cfg");
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return;
    QTextStream out(&file);
    for (const QString& line : lines)
        out << line << '\n';
}

QStringList TestHome::filesIn(const QString& directory, const QString& pattern) const
{
    return QDir(directory).entryList(QStringList{pattern}, QDir::Files, QDir::Name);
}

QByteArray TestHome::readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

namespace {
const std::function<void()>* gpBody = nullptr;
void runBody() { (*gpBody)(); }
} // namespace

void inContext(const std::function<void()>& body, Brevi::Context::Type type)
{
    TestHome home;
    gpBody = &body;
    const bool ran = Brevi::Context::run(runBody, type, 0, "test");
    gpBody = nullptr;
    ASSERT_TRUE(ran) << "the context did not come up";
}

ChildResult runChild(const QString& program, const QStringList& arguments, const QStringList& environment)
{
    ChildResult result;
    const pid_t pid = fork();
    if (pid < 0)
        return result;
    if (pid == 0) {
        for (const QString& entry : environment) {
            const int equals = entry.indexOf('=');
            setenv(entry.left(equals).toLocal8Bit().constData(), entry.mid(equals + 1).toLocal8Bit().constData(), 1);
        }
        std::vector<QByteArray> storage;
        storage.push_back(program.toLocal8Bit());
        for (const QString& argument : arguments)
            storage.push_back(argument.toLocal8Bit());
        std::vector<char*> argv;
        for (QByteArray& item : storage)
            argv.push_back(item.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return result;
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        result.signal = WTERMSIG(status);
    return result;
}

} // namespace BreviTest
