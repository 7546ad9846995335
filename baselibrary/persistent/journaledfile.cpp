#include "persistent/journaledfile.h"

#include "core/extent.h"
#include "persistent/blocklayout.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace Brevi {

JournaledFile::JournaledFile(const QString& blockFilePath, unsigned file)
{
    const QString path =
        file == JournalLayout::FreeListFile ? blockFilePath + BlockLayout::FreeListSuffix : blockFilePath;
    moFile.open(path, RawFile::eReadOnly);
    if (!moFile)
        return;
    mullFileSize = moFile.size();
    mullSize = mullFileSize;
    std::vector<JournalRecord> records;
    muiTransactions = Journal::read(blockFilePath, records);
    for (JournalRecord& record : records) {
        if (record.file != file)
            continue;
        if (record.kind == JournalLayout::KindLength) {
            mullSize = std::max(mullSize, record.offset);
            continue;
        }
        mullSize = std::max(mullSize, record.offset + record.length);
        moImages[record.offset] = record;
    }
}

bool JournaledFile::read(quint64 offset, void* data, unsigned count)
{
    if (!moFile || offset > mullSize || count > mullSize - offset)
        return false;
    unsigned char* bytes = static_cast<unsigned char*>(data);
    // What the disk has, then zeros up to the length the journal gives.
    unsigned fromFile = 0;
    if (offset < mullFileSize) {
        fromFile = unsigned(std::min<quint64>(count, mullFileSize - offset));
        Extent extent(bytes, fromFile);
        if (!moFile.setPosition(qint64(offset), RawFile::eStart) || !moFile.read(extent) || extent.available())
            return false;
    }
    std::memset(bytes + fromFile, 0, count - fromFile);

    // The images do not overlap one another: only the one starting at or
    // before `offset` can reach into the range from the left.
    const quint64 end = offset + count;
    std::map<quint64, JournalRecord>::const_iterator image = moImages.upper_bound(offset);
    if (image != moImages.begin())
        --image;
    for (; image != moImages.end() && image->first < end; ++image) {
        const JournalRecord& record = image->second;
        const quint64 from = std::max(offset, record.offset);
        const quint64 to = std::min(end, record.offset + record.length);
        if (from >= to)
            continue;
        if (record.kind == JournalLayout::KindZeros)
            std::memset(bytes + (from - offset), 0, size_t(to - from));
        else
            std::memcpy(bytes + (from - offset), record.bytes.constData() + (from - record.offset), size_t(to - from));
    }
    return true;
}

} // namespace Brevi
