// Changes a B+ tree without end until it is killed: inserts, updates and
// removes records (treerecord.h) at random, every one of which must succeed.
// Before each change it writes what it is about to do, and after it returns
// true, that it did, one line each on stdout, so that the test that kills it
// knows every change that was committed and the one that may have been:
//   "? I id size"    insert of key id with a record of `size` bytes
//   "I seq"          ... done, with the sequence number it got
//   "? U id version" update of key id to `version`
//   "U"              ... done
//   "? R id"         remove of key id
//   "R"              ... done
//
//   treewriter FILE SEED MODEL [sync]   MODEL: a file of lines
//                                       "id sequence size version", the
//                                       records the tree holds
//   treewriter FILE                     opens the tree and exits
// Prints "running" once the tree is open. Exit codes: 0 opened (second form),
// 1 usage, 2 refused as open elsewhere, 3 open failed, 4 a change failed.
#include "persistent/bplustree.h"

#include "treerecord.h"
#include "treewriter.h"

#include <QFile>
#include <QString>
#include <QTextStream>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>

#include <unistd.h>

using namespace Brevi;
using PersistentTest::RecordKey;

namespace {

void say(const char* format, unsigned a = 0, unsigned b = 0)
{
    char line[64];
    const int length = std::snprintf(line, sizeof line, format, a, b);
    // One write a line: a kill cuts the output only between lines, or leaves
    // a line without its end, which the reader drops.
    if (::write(STDOUT_FILENO, line, size_t(length)) != length)
        std::exit(4);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 4 && argc != 5)
        return 1;
    BPlusTree tree(32);
    if (argc == 5)
        tree.setDurability(Blocks::eSynchronous);
    if (!tree.open(QString::fromLocal8Bit(argv[1])))
        return tree.lastError() == BPlusTree::eInUse ? 2 : 3;
    if (argc == 2)
        return 0;

    std::map<quint32, TreeWriter::Entry> model;
    QFile modelFile(QString::fromLocal8Bit(argv[3]));
    if (!modelFile.open(QIODevice::ReadOnly))
        return 1;
    QTextStream in(&modelFile);
    for (;;) {
        TreeWriter::Entry entry;
        quint32 id = 0;
        in >> id >> entry.sequence >> entry.size >> entry.version;
        if (in.status() != QTextStream::Ok)
            break;
        model[id] = entry;
    }

    std::mt19937 random(unsigned(std::strtoul(argv[2], nullptr, 10)));
    say("running\n");
    for (;;) {
        const quint32 id = random() % TreeWriter::IdSpace;
        const quint32 hash = TreeWriter::hashOf(id);
        const auto found = model.find(id);
        if (found == model.end()) {
            const unsigned size = TreeWriter::recordSize(random());
            say("? I %u %u\n", id, size);
            RecordKey key(hash, id, size);
            if (!tree.insert(key))
                return 4;
            say("I %u\n", key.hash().sequence());
            model[id] = TreeWriter::Entry{key.hash().sequence(), size, 0};
            continue;
        }
        TreeWriter::Entry& entry = found->second;
        if (random() % 10 < 3) {
            say("? U %u %u\n", id, entry.version + 1);
            RecordKey key(hash, id, entry.size, entry.version + 1);
            key.setHash(KeyHash(hash, entry.sequence));
            if (!tree.update(key))
                return 4;
            say("U\n");
            ++entry.version;
        } else {
            say("? R %u\n", id);
            RecordKey key(hash, id, entry.size);
            key.setHash(KeyHash(hash, entry.sequence));
            if (!tree.remove(key))
                return 4;
            say("R\n");
            model.erase(found);
        }
    }
}
