#include "persistent/pagedlist.h"

#include "core/context.h"
#include "core/trace.h"
#include "persistent/pagedlistlayout.h"
#include "persistent/rawfile.h"

#include <QDir>
#include <QFileInfo>
#include <QVarLengthArray>

#include <algorithm>
#include <vector>

namespace Brevi {

namespace {
const unsigned TraceModule = TraceModulePagedList;

// The most segments one merge takes at a time.
const int MergeWays = 8;

typedef QVarLengthArray<Extent, 256> Extents;

// The entries of the page from its position on, into `extents` and sorted
// ascending; the page's position ends behind the last whole entry. Only the
// extents move: the entries stay where they are in the page. Sifting each new
// element up builds the heap without a second array, and popping the largest
// to the back leaves the array ascending.
unsigned heapsort(Page& page, Extents& extents, const PagedList::CompareFunction& compare)
{
    extents.clear();
    Extent entry;
    while (page.get(entry) == Page::eOk)
        extents.append(entry);
    const int count = extents.size();
    if (count < 2)
        return unsigned(count);
    Extent* at = extents.data();
    for (int i = 1; i < count; ++i) {
        int child = i;
        while (child > 0) {
            const int parent = (child - 1) >> 1;
            if (compare(at[parent], at[child]) != PagedList::eLess)
                break;
            at[parent].swap(at[child]);
            child = parent;
        }
    }
    // Each pop puts the last element at the root and sifts it down. The
    // element is one of the smallest, so it goes nearly to the bottom: the
    // sift follows the larger children down to a leaf first (one compare a
    // level) and then climbs back to where the element belongs (a compare or
    // two), in place of two compares at every level.
    for (int end = count - 1; end > 0; --end) {
        at[0].swap(at[end]);
        int place = 0;
        for (;;) {
            int child = 2 * place + 1;
            if (child >= end)
                break;
            // The entries lie anywhere in a page of megabytes: asking for the
            // next level's now hides most of the wait for them.
            const int below = 4 * child + 3;
            for (int i = below; i < below + 8 && i < end; ++i)
                __builtin_prefetch(at[i].data());
            if (child + 1 < end && compare(at[child], at[child + 1]) == PagedList::eLess)
                ++child;
            place = child;
        }
        while (place > 0 && compare(at[place], at[0]) == PagedList::eLess)
            place = (place - 1) >> 1;
        if (place == 0)
            continue;
        // The element goes to `place`; those on the path above it move up a
        // level.
        Extent carried = at[place];
        at[place] = at[0];
        while (place > 0) {
            place = (place - 1) >> 1;
            carried.swap(at[place]);
        }
    }
    return unsigned(count);
}

} // namespace

// Entries written one after another into a file from a given offset, through
// a page so that the file sees whole pages.
class PagedList::Output
{
public:
    Output(RawFile* file, quint64 offset, Page& page)
        : mpFile(file)
        , mullOffset(offset)
        , mrPage(page)
    {
        mrPage.clear();
    }

    quint64 position() const { return mullOffset + mrPage.length(); }

    bool put(const Extent& entry)
    {
        Page::Result result = mrPage.put(entry);
        if (result == Page::eFull) {
            if (!flush())
                return false;
            result = mrPage.put(entry);
        }
        return result == Page::eOk;
    }

    bool flush()
    {
        const unsigned length = mrPage.length();
        if (length != 0 && mpFile->writeAt(mullOffset, mrPage.data(), length) != length)
            return false;
        mullOffset += length;
        mrPage.clear();
        return true;
    }

private:
    RawFile* mpFile;
    quint64 mullOffset;
    Page& mrPage;
};

// One sorted stretch of the file: a run of one sort page, or what a merge
// made of up to eight of them.
struct PagedList::Merge {
    quint64 offset;
    quint64 length;
    quint64 count;
};

// One input of a merge: a page of the segment at a time, and the entry it is
// at.
struct PagedList::Way {
    explicit Way(unsigned capacity)
        : page(capacity)
    {}

    Page page;
    // File offset of the page's first byte, and the end of the segment.
    quint64 pageOffset = 0;
    quint64 end = 0;
    Extent entry;
};

PagedList::PagedList(const CompareFunction& compare, const FindFunction& find, unsigned pageSize, unsigned sortPageSize,
                     const QString& path, bool keep)
    : mfCompare(compare)
    , mfFind(find)
{
    construct(pageSize, sortPageSize);
    BTRACE(TraceNormal) << "IN:PagedList" << pageSize << muiSortPageSize << path << keep;
    if (!path.isEmpty())
        openBacking(path, keep);
}

PagedList::PagedList(const CompareFunction& compare, const FindFunction& find, const PagedList& other,
                     const QString& path, bool keep)
    : mfCompare(compare)
    , mfFind(find)
{
    construct(other.moPage.capacity(), other.muiSortPageSize);
    initialize(other, path, keep);
}

PagedList::PagedList(const PagedList& other, const QString& path, bool keep)
    : mfCompare(other.mfCompare)
    , mfFind(other.mfFind)
{
    construct(other.moPage.capacity(), other.muiSortPageSize);
    initialize(other, path, keep);
}

PagedList::PagedList(const PagedList& other)
    : PagedList(other, QString(), false)
{}

PagedList& PagedList::operator=(const PagedList& other)
{
    if (this == &other)
        return *this;
    mpFile.reset();
    moPage.release();
    mbValid = true;
    meLastError = eNoError;
    mullPageOffset = 0;
    mbWriting = true;
    mbSorted = false;
    mbDeferred = false;
    mullDeferredPosition = 0;
    mbNamed = mbKeep = false;
    mfCompare = other.mfCompare;
    mfFind = other.mfFind;
    construct(other.moPage.capacity(), other.muiSortPageSize);
    initialize(other, QString(), false);
    return *this;
}

PagedList::~PagedList()
{
    // Only a kept file is worth the write: the others go with the list.
    if (mbValid && mpFile && mbNamed && mbKeep && mbWriting)
        flush();
}

void PagedList::construct(unsigned pageSize, unsigned sortPageSize)
{
    // A page must at least hold an empty entry.
    moPage = Page(std::max(pageSize, PagedListLayout::EntryHeaderSize));
    muiSortPageSize = std::max(sortPageSize, moPage.capacity());
}

bool PagedList::openBacking(const QString& path, bool keep)
{
    std::unique_ptr<RawFile> file(new RawFile);
    if (!file->open(path, RawFile::eReadWrite) && !file->create(path, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << "Failed to create backing file" << path;
        invalidate(eFileError);
        return false;
    }
    if (!keep)
        file->deleteOnClose();
    mbNamed = true;
    mbKeep = keep;
    // What is in the file is the list, to be read from the start; writing it
    // over takes a setPositionStart() and a write, adding to it a
    // setPositionEnd().
    mbWriting = file->size() == 0;
    mpFile = std::move(file);
    return true;
}

RawFile* PagedList::makeTemporaryFile(const char* failure, const char* detail)
{
    const QString name = Context::temporaryFileName();
    // The tree's tmp folder is made by whoever first needs it.
    const QString folder = QFileInfo(name).path();
    if (!name.isEmpty() && !QFileInfo(folder).isDir())
        QDir().mkpath(folder);
    std::unique_ptr<RawFile> file(new RawFile);
    if (name.isEmpty() || !file->create(name, RawFile::eReadWrite)) {
        BTRACE(TraceAlways) << failure << name;
        if (detail)
            BTRACE(TraceAlways) << detail;
        invalidate(eFileError);
        return nullptr;
    }
    file->deleteOnClose();
    return file.release();
}

void PagedList::initialize(const PagedList& other, const QString& path, bool keep)
{
    BTRACE(TraceNormal) << "IN:initialize" << other.path() << path << keep;
    if (!other.mbValid) {
        invalidate(other.meLastError);
        return;
    }
    // The copy shows the other's entries from its start.
    mbSorted = other.mbSorted;
    if (!other.mpFile) {
        BTRACE(TraceNormal) << "Memory";
        if (path.isEmpty()) {
            moPage.assign(other.moPage);
            mbWriting = false;
            return;
        }
        if (!openBacking(path, keep))
            return;
        const unsigned length = other.moPage.length();
        if (!mpFile->truncate(0, false) || mpFile->writeAt(0, other.moPage.data(), length) != length) {
            BTRACE(TraceAlways) << "Failed to write to file" << path;
            invalidate(eFileError);
            return;
        }
        mbWriting = false;
        return;
    }
    BTRACE(TraceNormal) << "Other data in a file";
    copyFile(other, path, keep);
}

bool PagedList::copyFile(const PagedList& other, const QString& path, bool keep)
{
    if (path.isEmpty()) {
        mpFile.reset(makeTemporaryFile("Failed to create backing file", nullptr));
        if (!mpFile)
            return false;
    } else if (!openBacking(path, keep) || !mpFile->truncate(0, false)) {
        if (mbValid) {
            BTRACE(TraceAlways) << "Failed to create backing file" << path;
            invalidate(eFileError);
        }
        return false;
    }
    // The other list's entries are its file up to its page and, while it is
    // being written, the page. Positioned reads leave it as it was.
    RawFile& from = *other.mpFile;
    const quint64 size = other.mbWriting ? other.mullPageOffset : from.size();
    unsigned char* buffer = moPage.room();
    const unsigned capacity = moPage.capacity();
    unsigned buffers = 0;
    for (quint64 offset = 0; offset < size; offset += capacity, ++buffers) {
        const unsigned want = unsigned(std::min<quint64>(size - offset, capacity));
        if (from.readAt(offset, buffer, want) != want) {
            BTRACE(TraceAlways) << "Error reading other file" << from.path() << offset;
            invalidate(eFileError);
            return false;
        }
        if (mpFile->writeAt(offset, buffer, want) != want) {
            BTRACE(TraceAlways) << "Failed to write to file" << mpFile->path() << offset;
            invalidate(eFileError);
            return false;
        }
    }
    const unsigned pageLength = other.mbWriting ? other.moPage.length() : 0;
    if (pageLength != 0 && mpFile->writeAt(size, other.moPage.data(), pageLength) != pageLength) {
        BTRACE(TraceAlways) << "Failed to write to file" << mpFile->path() << size;
        invalidate(eFileError);
        return false;
    }
    BTRACE(TraceNormal) << "Copied" << buffers << "buffers";
    mbWriting = false;
    return true;
}

void PagedList::invalidate(Error error)
{
    mbValid = false;
    meLastError = error;
    mpFile.reset();
    moPage.release();
}

bool PagedList::flush()
{
    if (!mbWriting || !mbValid)
        return mbValid;
    if (!mpFile) {
        mpFile.reset(makeTemporaryFile("Failed to create a file", nullptr));
        if (!mpFile)
            return false;
        BTRACE(TraceNormal) << "Spilled to" << mpFile->path();
    }
    const unsigned length = moPage.length();
    if (length != 0 && mpFile->writeAt(mullPageOffset, moPage.data(), length) != length) {
        BTRACE(TraceAlways) << "Failed to write data to file" << mpFile->path() << mullPageOffset;
        BTRACE(TraceAlways) << "Failed to flush file";
        invalidate(eFileError);
        return false;
    }
    mullPageOffset += length;
    moPage.clear();
    return true;
}

bool PagedList::fileNotValid(quint64 offset)
{
    BTRACE(TraceAlways) << "File is not valid" << (mpFile ? mpFile->path() : QString()) << offset;
    invalidate(eFileError);
    return false;
}

// The next page from the file, starting at the first entry not yet read. A page
// always begins with a whole entry unless the file is not a list.
bool PagedList::load()
{
    mullPageOffset += moPage.position();
    moPage.clear();
    const quint64 size = mpFile->size();
    if (size <= mullPageOffset)
        return true;
    const unsigned want = unsigned(std::min<quint64>(size - mullPageOffset, moPage.capacity()));
    if (mpFile->readAt(mullPageOffset, moPage.room(), want) != want) {
        BTRACE(TraceAlways) << "Failed to read data from file" << mpFile->path() << mullPageOffset;
        invalidate(eFileError);
        return false;
    }
    moPage.loaded(want);
    if (!moPage.holdsEntry())
        return fileNotValid(mullPageOffset);
    return true;
}

// From writing to reading: what the page holds goes to the file, if there is
// one, and reading goes on from the end.
bool PagedList::startReading()
{
    if (!mbWriting)
        return true;
    if (mpFile && !flush())
        return false;
    mbWriting = false;
    moPage.setPosition(moPage.length());
    return true;
}

quint64 PagedList::endPosition() const
{
    if (mbWriting || !mpFile)
        return mullPageOffset + moPage.length();
    return mpFile->size();
}

quint64 PagedList::getPosition() const
{
    if (mbDeferred)
        return mullDeferredPosition;
    return mullPageOffset + (mbWriting ? moPage.length() : moPage.position());
}

bool PagedList::setPosition(quint64 position)
{
    if (!mbValid)
        return false;
    BTRACE(TraceDebug) << "Defer syncronize to" << position;
    mbDeferred = true;
    mullDeferredPosition = position;
    return true;
}

bool PagedList::setPositionStart() { return setPosition(0); }

bool PagedList::setPositionEnd()
{
    if (!mbValid)
        return false;
    mbDeferred = false;
    return setPosition(endPosition());
}

// Makes a remembered position the list's own. Within the page in memory only
// the cursor moves; elsewhere the page is dropped and the next read loads it.
bool PagedList::applyPosition()
{
    if (!mbDeferred)
        return true;
    mbDeferred = false;
    const quint64 position = std::min(mullDeferredPosition, endPosition());
    if (position == getPosition())
        return true;
    if (!startReading())
        return false;
    if (position >= mullPageOffset && position - mullPageOffset <= moPage.length()) {
        moPage.setPosition(unsigned(position - mullPageOffset));
    } else {
        moPage.clear();
        mullPageOffset = position;
    }
    return true;
}

bool PagedList::write(const Extent& entry)
{
    if (!mbValid || !applyPosition())
        return false;
    if (!mbWriting) {
        // The list ends at the current position from now on.
        const quint64 position = getPosition();
        if (mpFile && !mpFile->truncate(position, false)) {
            BTRACE(TraceAlways) << "Failed to trucate file" << mpFile->path() << position;
            invalidate(eFileError);
            return false;
        }
        moPage.cut(moPage.position());
        mbWriting = true;
    }
    mbSorted = false;
    Page::Result result = moPage.put(entry);
    if (result == Page::eFull) {
        if (!flush())
            return false;
        result = moPage.put(entry);
    }
    if (result != Page::eOk) {
        BTRACE(TraceAlways) << "Entry of" << entry.size() << "bytes does not fit into a page of" << moPage.capacity();
        meLastError = Error(result);
        return false;
    }
    return true;
}

bool PagedList::write(const void* data, unsigned size) { return write(Extent(data, size)); }

bool PagedList::write(const QByteArray& entry) { return write(Extent(entry)); }

bool PagedList::read(Extent& entry)
{
    if (!mbValid || !startReading() || !applyPosition())
        return false;
    if (moPage.get(entry) == Page::eOk)
        return true;
    if (mpFile) {
        if (!load())
            return false;
        if (moPage.get(entry) == Page::eOk)
            return true;
    }
    meLastError = eEndOfList;
    return false;
}

bool PagedList::read(const void*& data, unsigned& size)
{
    Extent entry;
    if (!read(entry))
        return false;
    data = entry.data();
    size = entry.size();
    return true;
}

bool PagedList::read(QByteArray& entry)
{
    Extent view;
    if (!read(view))
        return false;
    entry = QByteArray(reinterpret_cast<const char*>(view.data()), int(view.size()));
    return true;
}

bool PagedList::find(quint64& position, const Extent& target)
{
    if (!mbValid)
        return false;
    if (!mfFind && !mfCompare) {
        BTRACE(TraceAlways) << "No find function";
        meLastError = eNoFindFunction;
        return false;
    }
    const quint64 start = getPosition();
    bool found = false;
    for (;;) {
        const quint64 at = getPosition();
        Extent entry;
        if (!read(entry))
            break;
        if (mfFind) {
            found = mfFind(entry, target);
        } else {
            const CompareResult result = mfCompare(entry, target);
            found = result == eEqual;
            if (mbSorted && result == eGreater)
                break;
        }
        if (found) {
            position = at;
            break;
        }
    }
    if (!mbValid)
        return false;
    if (!found)
        meLastError = eNotFound;
    setPosition(start);
    return found;
}

bool PagedList::find(quint64& position, const void* data, unsigned size) { return find(position, Extent(data, size)); }

bool PagedList::find(quint64& position, const QByteArray& target) { return find(position, Extent(target)); }

void PagedList::clear()
{
    if (!mbValid)
        return;
    moPage.clear();
    if (mpFile && !mpFile->truncate(0, false)) {
        BTRACE(TraceAlways) << "Failed to trucate file" << mpFile->path() << 0;
        invalidate(eFileError);
        return;
    }
    mullPageOffset = 0;
    mbWriting = true;
    mbSorted = false;
    mbDeferred = false;
    meLastError = eNoError;
}

QString PagedList::path() const { return mpFile ? mpFile->path() : QString(); }

void PagedList::deleteOnClose()
{
    mbKeep = false;
    if (mpFile)
        mpFile->deleteOnClose();
}

bool PagedList::sort()
{
    BTRACE(TraceNormal) << "IN:sort";
    if (!mbValid)
        return false;
    if (!mfCompare) {
        BTRACE(TraceAlways) << "No Compare function supplied";
        meLastError = eNoCompareFunction;
        return false;
    }
    if (!startReading())
        return false;
    mbDeferred = false;
    if (!mpFile) {
        Extents extents;
        moPage.setPosition(0);
        heapsort(moPage, extents, mfCompare);
        Page sorted(moPage.capacity());
        for (const Extent& entry : extents)
            sorted.put(entry);
        moPage.swap(sorted);
    } else {
        const quint64 size = mpFile->size();
        // The file is rewritten under the page: nothing in it stays valid.
        moPage.clear();
        mullPageOffset = 0;
        const bool sorted = size <= muiSortPageSize ? sortInOnePage(size) : sortExternally(size);
        if (!sorted)
            return false;
        moPage.clear();
        mullPageOffset = 0;
    }
    moPage.setPosition(0);
    mbSorted = true;
    BTRACE(TraceNormal) << "OUT:sort ,";
    return true;
}

bool PagedList::sortInOnePage(quint64 size)
{
    BTRACE(TraceNormal) << "Fits into one sort page" << size;
    Page sortPage(muiSortPageSize);
    BTRACE(TraceNormal) << "Load single sort page";
    if (mpFile->readAt(0, sortPage.room(), size) != size) {
        BTRACE(TraceAlways) << "Failed to read data from file" << mpFile->path() << 0;
        invalidate(eFileError);
        return false;
    }
    sortPage.loaded(unsigned(size));
    Extents extents;
    heapsort(sortPage, extents, mfCompare);
    if (sortPage.position() != size)
        return fileNotValid(sortPage.position());
    BTRACE(TraceNormal) << "Write out single sort page";
    Output out(mpFile.get(), 0, moPage);
    for (const Extent& entry : extents) {
        if (!out.put(entry)) {
            BTRACE(TraceAlways) << "Failed to write data to file" << mpFile->path() << out.position();
            invalidate(eFileError);
            return false;
        }
    }
    if (!out.flush()) {
        BTRACE(TraceAlways) << "Failed to write data to file" << mpFile->path() << out.position();
        invalidate(eFileError);
        return false;
    }
    return true;
}

bool PagedList::sortExternally(quint64 size)
{
    std::unique_ptr<RawFile> spare(
        makeTemporaryFile("Failed to create file to sort into", "Failed to create sort file"));
    if (!spare)
        return false;
    BTRACE(TraceNormal) << "Load pages and sort them" << size;
    QVector<Merge> segments;
    {
        Page sortPage(muiSortPageSize);
        Extents extents;
        Output out(spare.get(), 0, moPage);
        quint64 offset = 0;
        while (offset < size) {
            const unsigned want = unsigned(std::min<quint64>(size - offset, muiSortPageSize));
            if (mpFile->readAt(offset, sortPage.room(), want) != want) {
                BTRACE(TraceAlways) << "Failed to read data from file" << mpFile->path() << offset;
                invalidate(eFileError);
                return false;
            }
            sortPage.loaded(want);
            const unsigned count = heapsort(sortPage, extents, mfCompare);
            // A page that holds no whole entry: the file ends inside one, or
            // it is longer than any page of this list.
            if (count == 0)
                return fileNotValid(offset);
            const Merge run = {out.position(), sortPage.position(), count};
            for (const Extent& entry : extents) {
                if (!out.put(entry)) {
                    BTRACE(TraceAlways) << "Failed to write data to file" << spare->path() << out.position();
                    invalidate(eFileError);
                    return false;
                }
            }
            segments.append(run);
            offset += sortPage.position();
        }
        BTRACE(TraceNormal) << "flush the last page";
        if (!out.flush()) {
            BTRACE(TraceAlways) << "Failed to write data to file" << spare->path() << out.position();
            invalidate(eFileError);
            return false;
        }
    }
    // The runs are in the spare file; each pass goes from one file to the
    // other.
    RawFile* data = spare.get();
    RawFile* other = mpFile.get();
    if (!merge(segments, data, other))
        return false;
    if (data == mpFile.get())
        return true;
    if (!mbNamed) {
        // The sorted temporary file becomes the list's; the old one goes.
        mpFile.swap(spare);
        return true;
    }
    // A named file stays the list's: the result goes back into it.
    unsigned char* buffer = moPage.room();
    const unsigned capacity = moPage.capacity();
    for (quint64 offset = 0; offset < size; offset += capacity) {
        const unsigned want = unsigned(std::min<quint64>(size - offset, capacity));
        if (spare->readAt(offset, buffer, want) != want || mpFile->writeAt(offset, buffer, want) != want) {
            BTRACE(TraceAlways) << "Failed to write data to file" << mpFile->path() << offset;
            invalidate(eFileError);
            return false;
        }
    }
    return true;
}

// Merges the segments of `data` eight at a time into `spare`, pass after pass,
// until one is left; `data` then points at the file that holds it.
bool PagedList::merge(QVector<Merge>& segments, RawFile*& data, RawFile*& spare)
{
    std::vector<Way> ways(MergeWays, Way(moPage.capacity()));
    while (segments.size() > 1) {
        const int groups = (segments.size() + MergeWays - 1) / MergeWays;
        BTRACE(TraceNormal) << "Pass" << segments.size() << "segments to merge into" << groups;
        QVector<Merge> made;
        Output out(spare, 0, moPage);
        for (int first = 0; first < segments.size(); first += MergeWays) {
            const int count = std::min(MergeWays, segments.size() - first);
            Merge segment = {out.position(), 0, 0};
            if (!mergeGroup(segments.constData() + first, count, ways, *data, out, segment))
                return false;
            made.append(segment);
        }
        if (!out.flush()) {
            BTRACE(TraceAlways) << "Failed to write data to file" << spare->path() << out.position();
            invalidate(eFileError);
            return false;
        }
        segments.swap(made);
        std::swap(data, spare);
    }
    BTRACE(TraceNormal) << "Sorted into" << data->path();
    return true;
}

bool PagedList::mergeGroup(const Merge* segments, int count, std::vector<Way>& ways, RawFile& source, Output& out,
                           Merge& made)
{
    BTRACE(TraceNormal) << "Merge" << count << "segments";
    // The next entry of a way, loading its next page when the page is used up:
    // 1 with an entry, 0 when the segment is spent, -1 on failure.
    auto advance = [&](Way& way) -> int {
        if (way.page.get(way.entry) == Page::eOk)
            return 1;
        way.pageOffset += way.page.position();
        way.page.clear();
        if (way.pageOffset >= way.end)
            return 0;
        const unsigned want = unsigned(std::min<quint64>(way.end - way.pageOffset, way.page.capacity()));
        if (source.readAt(way.pageOffset, way.page.room(), want) != want) {
            BTRACE(TraceAlways) << "Failed to read data from file" << source.path() << way.pageOffset;
            invalidate(eFileError);
            return -1;
        }
        way.page.loaded(want);
        if (way.page.get(way.entry) != Page::eOk) {
            fileNotValid(way.pageOffset);
            return -1;
        }
        return 1;
    };
    // The ways in the order of their entries, lowest first. A way goes in
    // behind those whose entries equal its own.
    Way* order[MergeWays];
    int ordered = 0;
    auto insert = [&](Way* way) {
        int low = 0;
        int high = ordered;
        while (low < high) {
            const int middle = (low + high) / 2;
            if (mfCompare(way->entry, order[middle]->entry) == eLess)
                high = middle;
            else
                low = middle + 1;
        }
        std::copy_backward(order + low, order + ordered, order + ordered + 1);
        order[low] = way;
        ++ordered;
    };

    for (int i = 0; i < count; ++i) {
        BTRACE(TraceDebug) << "Segment" << i << "Entries" << segments[i].count;
        Way& way = ways[size_t(i)];
        way.page.clear();
        way.pageOffset = segments[i].offset;
        way.end = segments[i].offset + segments[i].length;
        const int got = advance(way);
        if (got < 0)
            return false;
        if (got > 0)
            insert(&way);
    }
    while (ordered > 0) {
        Way* way = order[0];
        if (!out.put(way->entry)) {
            BTRACE(TraceAlways) << "Failed to write data to file" << out.position();
            invalidate(eFileError);
            return false;
        }
        ++made.count;
        std::copy(order + 1, order + ordered, order);
        --ordered;
        const int got = advance(*way);
        if (got < 0)
            return false;
        if (got > 0)
            insert(way);
    }
    made.length = out.position() - made.offset;
    return true;
}

} // namespace Brevi
