// Extent, Buffer, PackBuffer and UnpackBuffer: cursor rules, the growth rule to
// the byte, and the packed encoding.

#include "core/buffer.h"
#include "core/extent.h"
#include "core/packbuffer.h"
#include "core/unpackbuffer.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace Brevi;

namespace {
QByteArray hex(const Extent& extent) { return extent.hexDump(); }
} // namespace

// Copies start at the front whatever the source's cursor, and comparisons
// look at the bytes only.
TEST(Extent, CopiesAndComparisonsIgnoreTheCursor)
{
    char bytes[10] = {};
    Extent extent(bytes, 10);
    EXPECT_EQ(extent.put("abc", 3), 7u);
    EXPECT_EQ(extent.offset(), 3u);
    const Extent copy(extent);
    EXPECT_EQ(copy.offset(), 0u);
    EXPECT_EQ(copy.available(), 10u);
    Extent assigned;
    assigned = extent;
    EXPECT_EQ(assigned.offset(), 0u);

    char a[] = {1, 2, 3};
    char b[] = {1, 2, 3};
    Extent x(a, 3), y(b, 3);
    x.offset(2);
    EXPECT_TRUE(x == y);
    b[2] = 4;
    EXPECT_TRUE(x != y);
    EXPECT_EQ(x.hexDump(), QByteArray("010203"));
    EXPECT_EQ(x.hexDumpToOffset(), QByteArray("0102"));
    EXPECT_EQ(x.hexDumpAvailable(), QByteArray("03"));
}

TEST(Extent, ZeroCountsTouchNoMemory)
{
    Extent empty;
    EXPECT_EQ(empty.put(nullptr, 0), 0u);
    EXPECT_EQ(empty.get(nullptr, 0), 0u);
    EXPECT_EQ(empty.pad(0, 'x'), 0u);
    char bytes[4];
    Extent extent(bytes, 4);
    EXPECT_EQ(extent.putAt(2, nullptr, 0), 2u) << "the At form still moves the cursor";
}

TEST(Extent, PutGetAndAvailableTransfersMoveBothCursors)
{
    char source[6] = {'a', 'b', 'c', 'd', 'e', 'f'};
    char target[4] = {};
    Extent from(source, 6);
    Extent to(target, 4);
    from.offset(1);
    EXPECT_EQ(to.putAvailable(from), 0u);
    EXPECT_EQ(from.available(), 1u);
    EXPECT_EQ(QByteArray(target, 4), QByteArray("bcde"));

    Extent drain(source, 6);
    char small[2];
    Extent out(small, 2);
    EXPECT_EQ(drain.getAvailable(out), 4u);
    EXPECT_EQ(out.available(), 0u);

    // An Extent destination of get takes its whole size at its front.
    Extent whole(source, 6);
    char three[3];
    Extent dest(three, 3);
    dest.offset(2);
    whole.get(dest);
    EXPECT_EQ(dest.offset(), 2u);
    EXPECT_EQ(QByteArray(three, 3), QByteArray("abc"));
}

TEST(Extent, TruncateRemoveAndElementSize)
{
    char bytes[] = "line one\nline two";
    Extent extent(bytes, 17);
    EXPECT_EQ(extent.elementSize('\n'), 9u);
    EXPECT_EQ(extent.elementSize(8, '\n'), 1u) << "a terminator at the cursor is one byte";
    EXPECT_EQ(extent.elementSize(9, '\n'), 0u);

    extent.offset(5);
    EXPECT_EQ(extent.remove(4), 8u);
    EXPECT_EQ(extent.size(), 13u);
    EXPECT_EQ(extent.toQByteArray(), QByteArray("line line two"));

    extent.offset(3);
    EXPECT_EQ(extent.truncate(10), 7u) << "the offset stays";
    EXPECT_EQ(extent.offset(), 3u);
}

TEST(Buffer, GrowthRuleToTheByte)
{
    const struct {
        unsigned need;
        unsigned allocated;
    } cases[] = {{0, 8}, {5, 8}, {7, 16}, {62, 64}, {63, 65}, {100, 129}, {4094, 4097}, {4095, 4097}, {5000, 8193}};
    for (const auto& c : cases) {
        Buffer buffer;
        buffer.size(c.need);
        EXPECT_EQ(buffer.allocated(), c.allocated) << "size(" << c.need << ")";
        EXPECT_EQ(buffer.reserved(), c.allocated - 1);
        EXPECT_EQ(buffer.data()[c.need], 0) << "terminator";
    }
    Buffer exact(10);
    EXPECT_EQ(exact.allocated(), 11u) << "the sized constructor allocates exactly";
}

TEST(Buffer, CopyReusesABlockThatFits)
{
    Buffer buffer(32);
    ASSERT_EQ(buffer.allocated(), 33u);
    const unsigned char* block = buffer.data();
    const char twenty[21] = "01234567890123456789";
    buffer.copy(twenty, 20);
    EXPECT_EQ(buffer.data(), block);
    EXPECT_EQ(buffer.size(), 20u);
    EXPECT_EQ(buffer.data()[20], 0);
    // A copy from inside its own block moves the bytes down.
    buffer.copy(buffer.data() + 10, 5);
    EXPECT_EQ(buffer.data(), block);
    EXPECT_EQ(buffer.toQByteArray(), QByteArray("01234"));
}

TEST(Buffer, BorrowedViewBecomesOwnedWhenSized)
{
    Buffer buffer;
    {
        QByteArray source("borrowed");
        buffer.fromRawData(source);
        EXPECT_EQ(buffer.allocated(), 0u);
        EXPECT_EQ(buffer.data(), reinterpret_cast<const unsigned char*>(source.constData()));
        buffer.size(buffer.size());
        EXPECT_NE(buffer.allocated(), 0u);
        source.fill('x');
    }
    EXPECT_EQ(buffer.toQByteArray(), QByteArray("borrowed"));
}

TEST(Buffer, CopiesKeepTheCursorAndAssignmentToSelfDoesNothing)
{
    Buffer buffer(QByteArray("abcdef"));
    buffer.offset(4);
    Buffer copy(buffer);
    EXPECT_EQ(copy.offset(), 4u);
    EXPECT_EQ(copy.allocated(), 7u);
    Buffer& self = buffer;
    buffer = self;
    EXPECT_EQ(buffer.offset(), 4u);
    EXPECT_EQ(buffer.toQByteArray(), QByteArray("abcdef"));
}

TEST(Buffer, FlipClearCompactAndSizeMoveTheCursor)
{
    Buffer buffer(100);
    buffer.put("1234567", 7);
    buffer.flip();
    EXPECT_EQ(buffer.size(), 7u);
    EXPECT_EQ(buffer.available(), 7u);
    EXPECT_EQ(buffer.data()[7], 0);

    char two[2];
    buffer.get(two, 2);
    buffer.compact();
    EXPECT_EQ(buffer.offset(), 5u) << "the unread bytes wait at the front";
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(buffer.data()), 5), QByteArray("34567"));
    EXPECT_EQ(buffer.size(), buffer.reserved());

    buffer.clear();
    EXPECT_EQ(buffer.offset(), 0u);
    EXPECT_EQ(buffer.size(), buffer.reserved());

    // A size below the offset moves the cursor to the end.
    buffer.size(50);
    buffer.offset(40);
    buffer.size(20);
    EXPECT_EQ(buffer.offset(), 20u);
    EXPECT_EQ(buffer.available(), 0u);
    buffer.size(30);
    EXPECT_EQ(buffer.offset(), 20u);
    EXPECT_EQ(buffer.available(), 10u);
}

TEST(Packing, EncodesLittleEndianWithLengthPrefixes)
{
    PackBuffer pack;
    pack.append(true);
    pack.append(1);
    pack.append(QString("ab"));
    EXPECT_EQ(hex(pack.extent()), QByteArray("0b00000001010000000200000061"
                                             "62"));

    PackBuffer more;
    more.append(static_cast<long long>(-2));
    more.append(0xA1B2C3D4u);
    more.append(QByteArray());
    EXPECT_EQ(hex(more.extent()), QByteArray("10000000"
                                             "feffffffffffffff"
                                             "d4c3b2a1"
                                             "00000000"));
    EXPECT_EQ(more.size(), 20u);
}

TEST(Packing, ExtentsAndMessageBuffers)
{
    PackBuffer pack(16);
    EXPECT_FALSE(pack.messageBuffer()) << "no items, no body";
    pack.append(7);
    const Extent items = pack.extentWithoutSize();
    EXPECT_EQ(items.size(), 4u);
    EXPECT_EQ(items.data(), pack.data() + 4);
    boost::shared_ptr<Buffer> body = pack.messageBuffer();
    ASSERT_TRUE(body);
    EXPECT_EQ(body->hexDump(), QByteArray("07000000"));

    char raw[] = {9, 8};
    Extent extent(raw, 2);
    extent.offset(1);
    PackBuffer spliced;
    spliced.append(extent);
    spliced.appendPacked(extent);
    EXPECT_EQ(hex(spliced.extentWithoutSize()), QByteArray("020000000908"
                                                           "0908"));

    spliced.reset();
    EXPECT_EQ(spliced.size(), 4u);
}

TEST(Packing, RoundTripsEveryType)
{
    PackBuffer pack(4);
    pack.append(false);
    pack.append(-5);
    pack.append(4000000000u);
    pack.append(static_cast<long long>(-1234567890123LL));
    pack.append(18000000000000000000ull);
    pack.append(QString::fromUtf8("h\xc3\xa9llo"));
    pack.append(QByteArray("\0bytes", 6));
    pack.append("raw", 3);

    UnpackBuffer unpack;
    unpack.reset(pack.extentWithoutSize());
    bool ok = false;
    EXPECT_FALSE(unpack.takeBool(&ok));
    EXPECT_TRUE(ok);
    EXPECT_EQ(unpack.takeInt32(), -5);
    EXPECT_EQ(unpack.takeUint32(), 4000000000u);
    EXPECT_EQ(unpack.takeInt64(), -1234567890123LL);
    EXPECT_EQ(unpack.takeUint64(), 18000000000000000000ull);
    EXPECT_EQ(unpack.takeQString(), QString::fromUtf8("h\xc3\xa9llo"));
    EXPECT_EQ(unpack.takeQByteArray(), QByteArray("\0bytes", 6));
    Buffer raw;
    EXPECT_TRUE(unpack.take(raw));
    EXPECT_EQ(raw.toQByteArray(), QByteArray("raw"));
    EXPECT_EQ(unpack.available(), 0u);
    EXPECT_FALSE(unpack.take(ok));
}

TEST(Unpacking, ShortFixedValuesLeaveTheCursorAndACorruptLengthPoisonsTheRest)
{
    UnpackBuffer unpack;
    unpack.reset(QByteArray("\x01\x02\x03", 3));
    int value = 99;
    EXPECT_FALSE(unpack.take(value));
    EXPECT_EQ(value, 0);
    EXPECT_EQ(unpack.available(), 3u);
    long long wide = 1;
    EXPECT_FALSE(unpack.take(wide));
    EXPECT_EQ(unpack.available(), 3u);

    // A corrupt length poisons the rest.
    unpack.reset(QByteArray("\xff\xff\xff\xff"
                            "abcdefgh",
                            12));
    QByteArray item("stale");
    EXPECT_FALSE(unpack.take(item));
    EXPECT_TRUE(item.isEmpty());
    EXPECT_EQ(unpack.available(), 0u);
    bool ok = true;
    EXPECT_EQ(unpack.takeInt32(&ok), 0);
    EXPECT_FALSE(ok);
}

TEST(Unpacking, LengthPrefixedItemsIntoRawMemoryAndASizedBuffer)
{
    PackBuffer pack;
    pack.append("0123456789", 10);
    pack.append(QByteArray());
    pack.append(42);
    UnpackBuffer unpack;
    unpack.fromRawData(pack.extentWithoutSize());
    char four[4] = {};
    EXPECT_TRUE(unpack.take(four, 4));
    EXPECT_EQ(QByteArray(four, 4), QByteArray("0123"));
    EXPECT_EQ(unpack.offset(), 14u) << "the whole item is consumed";
    QByteArray empty("x");
    EXPECT_TRUE(unpack.take(empty));
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_EQ(unpack.takeInt32(), 42);

    // A sized buffer receives bytes and is told their count.
    UnpackBuffer received(64);
    EXPECT_EQ(received.size(), 0u);
    EXPECT_EQ(received.allocated(), 65u);
    std::memcpy(received.data(), "\x05\x00\x00\x00", 4);
    received.size(4);
    EXPECT_EQ(received.available(), 4u);
    EXPECT_EQ(received.takeUint32(), 5u);
}
