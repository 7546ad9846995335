// tracedump: prints the records of binary trace files as text, one line per
// record, in the form of a crash dump's trace.

#include "toolcommon.h"

#include "core/tracefilereader.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

#include <cstdio>

using namespace Brevi;
using Brevi::ToolCommon::parseCommandLine;

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("tracedump");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Prints the records of binary trace files (.tra written as TraceFileBinary) as text: time, level,\n"
        "module, id, source:line and message, one line per record.\n"
        "Example: tracedump --max-level 2 --module CONTEXT runtime/trace/hub-1234.tra");
    parser.addHelpOption();
    parser.addPositionalArgument("files", "Binary trace files to print, in order.", "FILE...");
    QCommandLineOption maxLevel("max-level", "Only records of this level or below (0 always .. 4 debug).", "level");
    QCommandLineOption module("module", "Only records of this module (name or number).", "module");
    parser.addOption(maxLevel);
    parser.addOption(module);
    QTextStream err(stderr);
    const int parsed = parseCommandLine(parser, application.arguments(), "tracedump", err);
    if (parsed >= 0)
        return parsed;

    const QStringList files = parser.positionalArguments();
    if (files.isEmpty()) {
        err << "tracedump: no file given (see --help)\n";
        return 2;
    }
    unsigned level = TraceDebug;
    if (parser.isSet(maxLevel)) {
        bool ok = false;
        level = parser.value(maxLevel).toUInt(&ok);
        if (!ok || level > TraceDebug) {
            err << "tracedump: --max-level takes 0 to 4\n";
            return 2;
        }
    }
    unsigned onlyModule = 0;
    if (parser.isSet(module) && !ToolCommon::parseModule(parser.value(module), onlyModule)) {
        err << "tracedump: unknown module '" << parser.value(module) << "'\n";
        return 2;
    }

    QTextStream out(stdout);
    int status = 0;
    for (const QString& file : files) {
        TraceFileReader reader(file);
        if (!reader.isOpen()) {
            err << "tracedump: cannot open " << file << ": " << reader.errorString() << '\n';
            status = 1;
            continue;
        }
        unsigned records = 0;
        while (const auto entry = reader.next()) {
            ++records;
            if (unsigned(entry->getLevel()) > level || (onlyModule && entry->getModuleId() != onlyModule))
                continue;
            entry->writeToStream(out);
        }
        out.flush();
        if (reader.truncated()) {
            err << "tracedump: " << file
                << (records ? ": the last record is cut short\n" : ": not a binary trace file\n");
            status = 1;
        }
    }
    return status;
}
