// Targets of sockets and persistent files, and the table of all targets.

#include "fuzztargets.h"

#include "persistent/blockfilecheck.h"
#include "persistent/bplustreecheck.h"
#include "sockets/netaddress.h"

#include <QFile>
#include <QString>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using namespace Brevi;

namespace BreviFuzz {

const Entry Targets[] = {
    {"packets", packets}, {"binaryaddress", binaryAddress}, {"xmllist", xmlList},     {"config", config},
    {"unpack", unpack},   {"netaddress", netAddress},       {"blockfile", blockFile}, {nullptr, nullptr}};

void finding(const char* what, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: broken promise: %s\n", file, line, what);
    std::abort();
}

int netAddress(const std::uint8_t* data, std::size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    const NetAddress address(text);
    if (!address.valid())
        return 0;
    const NetAddress again(address.getAddressString());
    BREVI_FUZZ_EXPECT(again.valid());
    BREVI_FUZZ_EXPECT(again == address);
    BREVI_FUZZ_EXPECT(again.getPort() == address.getPort());
    return 0;
}

int blockFile(const std::uint8_t* data, std::size_t size)
{
    static const QTemporaryDir directory;
    const QString path = directory.filePath("fuzz.blocks");
    // The last two bytes say how much of the rest, from its end, is the free
    // list.
    if (size < 2)
        return 0;
    const std::size_t claimed = std::size_t(data[size - 2]) | std::size_t(data[size - 1]) << 8;
    const std::size_t freeSize = std::min<std::size_t>(size - 2, claimed);
    const std::size_t blockSize = size - 2 - freeSize;
    {
        QFile blocks(path);
        QFile freeList(path + ".free");
        if (!blocks.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            !freeList.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return 0;
        blocks.write(reinterpret_cast<const char*>(data), qint64(blockSize));
        freeList.write(reinterpret_cast<const char*>(data + blockSize), qint64(freeSize));
    }
    BlockFileReport report;
    const bool sound = BlockFileCheck::checkBlockFile(path, report);
    BREVI_FUZZ_EXPECT(sound == report.sound());
    BPlusTreeReport tree;
    const bool treeSound = BPlusTreeCheck::checkTreeFile(path, tree);
    BREVI_FUZZ_EXPECT(treeSound == tree.sound());
    BREVI_FUZZ_EXPECT(!treeSound || sound);
    QStringList problems;
    BlockFileCheck::checkReferenceCountFile(path, report.idMask, problems);
    BlockFileCheck::checkIndirectBlockFile(path, problems);
    return 0;
}

} // namespace BreviFuzz
