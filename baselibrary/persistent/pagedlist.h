#ifndef BASELIBRARY_PERSISTENT_PAGEDLIST_H
#define BASELIBRARY_PERSISTENT_PAGEDLIST_H

#include "brevi_export.h"
#include "core/extent.h"
#include "core/operatorboolgenerator.h"
#include "persistent/page.h"

#include <QByteArray>
#include <QString>
#include <QVector>

#include <boost/function.hpp>

#include <memory>
#include <vector>

namespace Brevi {

class RawFile;

// An append-and-scan list of byte entries of any size (0 included) that lives
// in one memory page until it outgrows it, and then in a file (layout in
// persistent/pagedlistlayout.h). It sorts itself, in memory or by an external
// merge sort, and finds entries with functions the caller gives.
//
// Positions are byte offsets of entries in the list; getPosition() before a
// read() gives the position of the entry that read() returns. setPosition() is
// only remembered until the next read, write or find. A write goes at the
// current position and ends the list there: to add to a list that has been
// read, setPositionEnd() first. A list that is still being written reads from
// its end, so rewind (setPositionStart()) after writing.
//
// Files: with an empty path the list starts in memory and, once its page is
// full, goes on in a temporary file under the directory tree's tmp folder
// (Context::temporaryFileName, so the thread needs a Context), deleted when
// the list ends. With a path, that file is the list from the start: an
// existing file is opened and read as a list, and it is deleted at the end
// unless `keep` is true. A kept file is complete when the object is
// destroyed.
//
// Sorting: in the page when the list is in memory; in one sort page when the
// file fits into it; otherwise in runs of the sort page size, merged eight at
// a time in passes through a second temporary file. Equal entries are not
// kept in their order: within a run they come out as the heap leaves them,
// and in a merge, of two ways holding equal entries, the way that took its
// place first comes first. The sort needs the sort page, 16 bytes for each
// entry a sort page holds (in an array that grows by doubling), and nine
// pages of the page size.
//
// Failure: false, with lastError() telling why. Running off the end (eEndOfList)
// and not finding (eNotFound) are normal ends; an entry too large for the page
// (eEntryTooLarge) and missing functions are refused with the list unchanged.
// A file that cannot be made, read or written, or holds something that is not
// a whole entry, makes the list invalid for good (eFileError): the object then
// tests false and every call fails. Each failure is traced at TraceAlways,
// except the two normal ends.
//
// One thread at a time; nothing locks. Entries handed out by read(Extent&)
// point into the page and are valid until the next call on the list.
class BREVI_EXPORT PagedList
{
public:
    enum Error {
        eNoError = 0,
        eEndOfList = 1,
        eEntryTooLarge = 2,
        eFileError = 4,
        // The two page results that the list handles itself; the caller does
        // not see them.
        eNoEntryInPage = 6,
        ePageFull = 7,
        eNotFound = 8,
        eNoCompareFunction = 9,
        eNoFindFunction = 10
    };

    // What a compare function answers for (first, second).
    enum CompareResult { eLess = -1, eEqual = 0, eGreater = 1 };

    // Orders two entries: less, equal or greater. Called with the entries'
    // bytes, never with the list's header words.
    typedef boost::function<CompareResult(const Extent& first, const Extent& second)> CompareFunction;
    // Whether an entry (first) is the one looked for (second).
    typedef boost::function<bool(const Extent& entry, const Extent& target)> FindFunction;

    static const unsigned DefaultPageSize = 65536;

    // `pageSize` bounds the size of one entry (with its 8 header bytes and
    // padding); the sort page is the greater of `sortPageSize` and it.
    explicit PagedList(const CompareFunction& compare = CompareFunction(), const FindFunction& find = FindFunction(),
                       unsigned pageSize = DefaultPageSize, unsigned sortPageSize = 0, const QString& path = QString(),
                       bool keep = false);
    // A copy of `other`'s entries, with these functions, in `path` (or, with
    // an empty path, in memory if `other` is, otherwise in a temporary file).
    // The copy starts at position 0.
    PagedList(const CompareFunction& compare, const FindFunction& find, const PagedList& other, const QString& path,
              bool keep = false);
    // The same with `other`'s functions.
    PagedList(const PagedList& other, const QString& path, bool keep = false);
    // Copy and assignment make a copy with no path.
    PagedList(const PagedList& other);
    PagedList& operator=(const PagedList& other);
    // Writes a kept file out, then closes (and deletes what is not kept).
    ~PagedList();

    // Adds an entry at the current position; everything after it is gone.
    bool write(const Extent& entry);
    bool write(const void* data, unsigned size);
    bool write(const QByteArray& entry);

    // The entry at the current position, and the position moves past it. The
    // first two give a view into the page, valid until the next call; the last
    // copies. eEndOfList at the end.
    bool read(Extent& entry);
    bool read(const void*& data, unsigned& size);
    bool read(QByteArray& entry);

    quint64 getPosition() const;
    // Remembered, and applied by the next read, write, find or sort. A position
    // past the end counts as the end. A position that is not the start of an
    // entry reads garbage entries (never bytes outside the page) or fails with
    // eFileError.
    bool setPosition(quint64 position);
    bool setPositionStart();
    bool setPositionEnd();

    // Sorts the whole list in ascending order by the compare function
    // (eNoCompareFunction without one) and leaves the position at 0.
    bool sort();
    // Set by a successful sort, cleared by any write.
    bool isSorted() const { return mbSorted; }

    // Looks from the current position on for an entry, and gives its position.
    // With a find function, the first entry it accepts. Without one, with the
    // compare function: the first entry that compares equal; on a sorted list
    // the search stops at the first greater entry. eNoFindFunction with
    // neither, eNotFound when nothing matched. The list's position is put
    // back in every case.
    bool find(quint64& position, const Extent& target);
    bool find(quint64& position, const void* data, unsigned size);
    bool find(quint64& position, const QByteArray& target);

    // Empties the list (and its file), at position 0.
    void clear();
    // The file's path; empty while the list is in memory.
    QString path() const;
    // The file is deleted at the end even if it was to be kept.
    void deleteOnClose();
    Error lastError() const { return meLastError; }

    operator OperatorBoolGenerator<PagedList>::Result() const
    {
        return OperatorBoolGenerator<PagedList>::make(mbValid);
    }

private:
    struct Merge;
    struct Way;
    class Output;

    void construct(unsigned pageSize, unsigned sortPageSize);
    void initialize(const PagedList& other, const QString& path, bool keep);
    bool openBacking(const QString& path, bool keep);
    bool copyFile(const PagedList& other, const QString& path, bool keep);
    RawFile* makeTemporaryFile(const char* failure, const char* detail);
    void invalidate(Error error);
    bool fileNotValid(quint64 offset);

    bool flush();
    bool load();
    bool startReading();
    bool applyPosition();
    quint64 endPosition() const;

    bool sortInOnePage(quint64 size);
    bool sortExternally(quint64 size);
    bool merge(QVector<Merge>& segments, RawFile*& data, RawFile*& spare);
    bool mergeGroup(const Merge* segments, int count, std::vector<Way>& ways, RawFile& source, Output& out,
                    Merge& made);

    bool mbValid = true;
    std::unique_ptr<RawFile> mpFile;
    Error meLastError = eNoError;
    Page moPage;
    // File offset of the page's first byte.
    quint64 mullPageOffset = 0;
    unsigned muiSortPageSize = 0;
    bool mbWriting = true;
    bool mbSorted = false;
    CompareFunction mfCompare;
    FindFunction mfFind;
    bool mbDeferred = false;
    quint64 mullDeferredPosition = 0;
    // The file was named by the caller (not a temporary one) and is kept.
    bool mbNamed = false;
    bool mbKeep = false;
};

} // namespace Brevi

#endif
