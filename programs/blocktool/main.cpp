// blocktool: the state of a block file and its ".free" companion, read-only.
//
//   blocktool stat FILE    the control record and the counts
//   blocktool check FILE   the checker's verdict and each fault found
//
// Exit status: 0 the file is sound, 1 it has faults, 2 it could not be read
// or the command line was wrong.
#include "persistent/blockfilecheck.h"

#include "toolcommon.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

using namespace Brevi;
using Brevi::ToolCommon::parseCommandLine;

namespace {

enum ExitCode { ExitSound = 0, ExitFaulty = 1, ExitUnusable = 2 };

QString hex(quint64 value) { return "0x" + QString::number(value, 16); }

void printStat(QTextStream& out, const QString& path, const BlockFileReport& report)
{
    out << "file            " << path << '\n';
    out << "file size       " << report.fileSize << '\n';
    if (!report.controlRead)
        return;
    unsigned generationBits = 0;
    while (generationBits < 64 && !(report.idMask & (quint64(1) << (63 - generationBits))))
        ++generationBits;
    out << "total blocks    " << report.totalBlockCount << '\n';
    out << "block size      " << report.blockSize << '\n';
    out << "reserved        " << report.reserved << '\n';
    out << "id mask         " << hex(report.idMask) << " (" << generationBits << " generation bits)\n";
    if (!report.freeListRead)
        return;
    out << "free list size  " << report.freeFileSize << '\n';
    out << "free blocks     " << report.freeEntryCount << '\n';
    out << "used blocks     " << report.usedBlockCount << '\n';
    out << "top generation  " << report.highestGeneration << '\n';
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("blocktool");
    QCommandLineParser parser;
    parser.setApplicationDescription("Shows and checks a block file and its .free companion without changing them.\n"
                                     "Exit status: 0 sound, 1 faults found, 2 not readable or bad usage.");
    parser.addHelpOption();
    parser.addPositionalArgument("command", "stat: the control record and counts; check: the checker's verdict.");
    parser.addPositionalArgument("file", "The block file (its free list is FILE.free).");
    QTextStream err(stderr);
    const int parsed = parseCommandLine(parser, application.arguments(), "blocktool", err);
    if (parsed >= 0)
        return parsed;

    QTextStream out(stdout);
    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() != 2 || (arguments[0] != "stat" && arguments[0] != "check")) {
        err << "usage: blocktool stat|check FILE (see --help)\n";
        return ExitUnusable;
    }
    const QString& path = arguments[1];
    BlockFileReport report;
    const bool sound = BlockFileCheck::checkBlockFile(path, report);
    if (arguments[0] == "stat") {
        printStat(out, path, report);
    } else {
        out << path << ": " << (sound ? "sound" : "faulty") << '\n';
        for (const QString& problem : report.problems)
            out << "  " << problem << '\n';
    }
    if (!report.controlRead)
        return ExitUnusable;
    return sound ? ExitSound : ExitFaulty;
}
