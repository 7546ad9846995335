// blocktool: the state of a block file and its ".free" companion.
//
//   blocktool stat FILE    the control record and the counts
//   blocktool check FILE   the checker's verdict and each fault found, as a
//                          B+ tree if the file holds one
//   blocktool repair FILE  puts the blocks a B+ tree file has lost back on its
//                          free list
//
// stat and check only read, and judge the files as the next open will find
// them (with what the journal holds written). repair opens the file, so it
// needs it not to be open elsewhere.
//
// Exit status: 0 the file is sound (or repaired), 1 it has faults (or repair
// refused), 2 it could not be read or the command line was wrong.
#include "persistent/blockfilecheck.h"
#include "persistent/bplustreecheck.h"
#include "persistent/bplustreerepair.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QTextStream>

using namespace Brevi;

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
    out << "journal         " << report.journalTransactions << " transactions to write again\n";
}

int repair(QTextStream& out, const QString& path)
{
    BPlusTreeRepairReport report;
    const bool repaired = BPlusTreeRepair::reclaimLostBlocks(path, report);
    if (report.replayed)
        out << path << ": wrote " << report.replayed << " transactions again from the journal\n";
    if (!repaired) {
        out << path << ": not repaired, nothing changed\n";
        for (const QString& problem : report.problems)
            out << "  " << problem << '\n';
        return ExitFaulty;
    }
    if (report.reclaimed.empty()) {
        out << path << ": sound, no lost blocks\n";
        return ExitSound;
    }
    out << path << ": reclaimed " << report.reclaimed.size() << " lost blocks\n ";
    for (quint64 id : report.reclaimed)
        out << ' ' << id;
    out << '\n';
    return ExitSound;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("blocktool");
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Shows and checks a block file and its .free companion without changing them, or repairs a B+ tree file\n"
        "that has lost blocks.\n"
        "Exit status: 0 sound (or repaired), 1 faults found (or repair refused), 2 not readable or bad usage.");
    parser.addHelpOption();
    parser.addPositionalArgument("command", "stat: the control record and counts; check: the checker's verdict; "
                                            "repair: lost blocks of a B+ tree file back to its free list.");
    parser.addPositionalArgument("file", "The block file (its free list is FILE.free).");
    parser.process(application);

    QTextStream out(stdout);
    QTextStream err(stderr);
    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() != 2 || (arguments[0] != "stat" && arguments[0] != "check" && arguments[0] != "repair")) {
        err << "usage: blocktool stat|check|repair FILE (see --help)\n";
        return ExitUnusable;
    }
    const QString& path = arguments[1];
    if (arguments[0] == "repair") {
        if (QFile::exists(path))
            return repair(out, path);
        err << path << ": no such file\n";
        return ExitUnusable;
    }
    BlockFileReport report;
    bool sound = BlockFileCheck::checkBlockFile(path, report);
    if (arguments[0] == "stat") {
        printStat(out, path, report);
    } else {
        // A file that holds a B+ tree is checked as one: its lost blocks, for
        // one, are faults only there.
        BPlusTreeReport tree;
        BPlusTreeCheck::checkTreeFile(path, tree);
        if (tree.treeFound) {
            sound = tree.sound();
            report.problems = tree.problems;
        }
        out << path << ": " << (sound ? "sound" : "faulty") << '\n';
        if (tree.treeFound)
            out << "  a B+ tree of " << tree.recordCount << " records in " << tree.leafCount << " leaves, depth "
                << tree.depth << '\n';
        for (const QString& problem : report.problems)
            out << "  " << problem << '\n';
    }
    if (!report.controlRead)
        return ExitUnusable;
    return sound ? ExitSound : ExitFaulty;
}
