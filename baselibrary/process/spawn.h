#ifndef BASELIBRARY_PROCESS_SPAWN_H
#define BASELIBRARY_PROCESS_SPAWN_H

#include "brevi_export.h"
#include "core/operatorboolgenerator.h"
#include "process/handle.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <boost/shared_ptr.hpp>

#include <cstdio>

namespace Brevi {

// One process to start, and after spawn() the reference to it.
//
// Fill in a program (an absolute path), optionally an account with its
// password (the qualifier), a working directory, a standard input (a file, or
// a pipe from this process), a pipe for the child's output, arguments and
// environment entries; then call spawn().
//
//     Spawn child;
//     child.setProgram("/usr/bin/sort");
//     child.setPipeInput();
//     child.setPipeOutput();
//     child.addArgument("-r");
//     if (child.spawn()) {
//         FILE* in = child.getPipeInputHandle();    // the child's standard input
//         FILE* out = child.getPipeOutputHandle();  // its standard output and error
//         ...
//         child.getOSHandle()->wait(&exitCode);
//     }
//
// Failure: no exceptions. Every setter checks its value at once; a refused
// value returns false, leaves the member as it was, keeps its reason in error()
// and says so in a trace line at TraceAlways. A refused setter does not stop
// the caller: spawn() decides alone, and checks nothing again but that a
// program is set. A failed spawn() returns false; error() tells why, except
// when the operating system refused to start the program ("Failed to create
// process"), which leaves error() as it was.
//
// Running as another account: the qualifier is checked by PAM (service
// "login"), and the child takes the account's groups, group and user id before
// the program starts, which needs root unless the account is the caller's own.
// A refused logon fails spawn() with eLogonFailed. When the logon succeeds but
// the switch of identity fails, spawn() still returns true, with error()
// eLogonFailed, getOSPid() 0, a Handle on 0 and the boolean test false: test
// the object, not only the result of spawn().
//
// Standard handles the child is not given (no stdin file or input pipe, no
// output pipe) are /dev/null: a child never writes into its parent's terminal.
// Standard output and standard error share one pipe.
//
// Copies share the process handle and copy the pipe descriptors as plain
// numbers: whichever copy takes a descriptor with getPipeInputHandle or
// getPipeOutputHandle owns it, and the other copies are not told. No copy
// closes a descriptor in its destructor; one never taken stays open.
//
// Threads: a Spawn belongs to one thread at a time and holds no lock. spawn()
// sets the environment entries on the whole process while it starts the child
// and puts them back afterwards, so two spawn() calls with environment entries
// must not overlap, and no other thread may rely on those variables meanwhile.
// A variable that did not exist before is left behind set to an empty value.
//
// Nothing here waits for the child beyond alive(): use getOSHandle()->wait().
// Every child is collected once it has ended, whoever lets go of it: when the
// last holder of its handle goes while the child still runs, a reaper thread
// of the library takes the handle over and collects the child when it ends
// (the thread exists only while it has such children). A process that reaps
// every child itself (waitpid(-1), SIGCHLD ignored) leaves the handle nothing
// to report. Writing to the input pipe of
// a child that has gone raises SIGPIPE, as on any pipe, unless the process
// ignores that signal.
class BREVI_EXPORT Spawn
{
public:
    enum ErrorE {
        eNone = 0,
        // 1 is reserved and never set.
        eLogonFailed = 2,
        eEmptyString = 3,
        eNullString = 4,
        eBadPath = 5,
        eNotReadable = 6,
        eStdinFailed = 7,
        ePipeFailed = 8
    };

    // One environment entry: a name and its value.
    class BREVI_EXPORT Entry
    {
    public:
        Entry(const QString& name, const QString& value)
            : msName(name)
            , msValue(value)
        {}
        const QString& name() const { return msName; }
        const QString& value() const { return msValue; }

    private:
        QString msName;
        QString msValue;
    };

    Spawn();
    Spawn(const Spawn& other);
    Spawn& operator=(const Spawn& other);
    ~Spawn();

    // An absolute path to an executable file.
    bool setProgram(const QString& path);
    // Refuse only the empty string; nothing is looked up before spawn().
    bool setAccount(const QString& name);
    bool setQualifier(const QString& password);
    bool setWorkingDirectory(const QString& path);
    // An absolute path to a readable file. Turns the input pipe off first,
    // whether or not the path is then accepted.
    bool setStdin(const QString& path);
    // A pipe to the child's standard input; forgets the stdin path.
    void setPipeInput();
    // A pipe from the child's standard output and standard error.
    void setPipeOutput();
    // The child leads a process group of its own (its pid is the group's id),
    // so that whoever ends it can end what it started too: kill(-pid, ...).
    void setProcessGroup() { mbProcessGroup = true; }

    // Arguments are passed in the order of adding. A null string is refused, an
    // empty one is an argument. Numbers are written in base 10; a bool is
    // "true" or "false".
    bool addArgument(const QString& argument);
    bool addArgument(const char* argument) { return addArgument(argument ? QString::fromUtf8(argument) : QString()); }
    bool addArgument(bool argument);
    bool addArgument(unsigned int argument);
    bool addArgument(int argument);
    bool addArgument(unsigned long long argument);
    bool addArgument(long long argument);

    // The name must not be empty; any value is taken. Numbers are written in
    // base 10; a bool is "TRUE" or "FALSE" (upper case here, unlike arguments).
    bool addEnvironment(const QString& name, const QString& value);
    bool addEnvironment(const QString& name, const char* value)
    {
        return addEnvironment(name, value ? QString::fromUtf8(value) : QString());
    }
    bool addEnvironment(const QString& name, bool value);
    bool addEnvironment(const QString& name, unsigned int value);
    bool addEnvironment(const QString& name, int value);
    bool addEnvironment(const QString& name, unsigned long long value);
    bool addEnvironment(const QString& name, long long value);

    unsigned int argumentCount() const { return unsigned(moArguments.size()); }
    unsigned int environmentCount() const { return unsigned(moEnvironment.size()); }

    // Starts the process. May be called again on the same object: the new
    // process replaces the handle and pid, and error() is not reset first.
    bool spawn();

    ErrorE error() const { return meError; }
    unsigned int getOSPid() const { return muiOSPid; }
    // Empty until a process has been started.
    boost::shared_ptr<Handle> getOSHandle() { return mptProcess; }
    // True while the started process has not ended.
    bool alive() const;

    // The write end of the child's input pipe, and the read end of its output
    // pipe, each handed out once: the caller owns the stream and closes it
    // with fclose. Null before spawn(), without the pipe, or the second time.
    FILE* getPipeInputHandle();
    FILE* getPipeOutputHandle();

    // The command line of this process as it is traced: the program and each
    // argument between double quotes, an empty argument as "". A program or
    // argument that begins with a double or single quote is taken as quoted
    // already and written as it stands. Nothing inside is escaped. The child
    // itself gets its arguments as a vector, without the quotes added here.
    QString commandLine() const { return buildCommandLine(msProgram, moArguments); }
    static QString buildCommandLine(const QString& program, const QStringList& arguments);

    // True once a process has been started (a non-zero pid).
    operator OperatorBoolGenerator<Spawn>::Result() const { return OperatorBoolGenerator<Spawn>::make(muiOSPid > 0); }

private:
    void closePipeDescriptors();
    FILE* takeStream(int& descriptor, const char* mode);

    boost::shared_ptr<Handle> mptProcess;
    // This process's ends of the pipes; -1 when there is none or once taken.
    int miPipeInput = -1;
    int miPipeOutput = -1;
    QString msProgram;
    QString msAccount;
    // Held in the clear, as given.
    QString msQualifier;
    QString msWorkingDirectory;
    QStringList moArguments;
    QList<boost::shared_ptr<Entry>> moEnvironment;
    QString msStdin;
    ErrorE meError = eNone;
    bool mbPipeInput = false;
    bool mbPipeOutput = false;
    bool mbProcessGroup = false;
    unsigned int muiOSPid = 0;
};

} // namespace Brevi

#endif
