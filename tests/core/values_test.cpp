// The small value types: hashed strings and machine names, sizes for people,
// the SHA-1 helper and the authorization's binary form.

#include "core/authorization.h"
#include "core/convertabledatasize.h"
#include "core/hashedstring.h"
#include "core/machinename.h"
#include "core/sha1.h"

#include <QHash>
#include <QLocale>

#include <gtest/gtest.h>

using namespace Brevi;

namespace {

// The text with the system locale's decimal point shown as '.', so that the
// expectations hold on any machine.
std::string pointed(const QString& text)
{
    QString copy = text;
    copy.replace(QLocale::system().decimalPoint(), QLatin1Char('.'));
    return copy.toStdString();
}

std::string hex(const Extent& digest) { return digest.toQByteArray().toHex().toStdString(); }

} // namespace

TEST(HashedString, ComparesOnTextAndCarriesQtsHash)
{
    const HashedString a("a");
    EXPECT_EQ(a, HashedString("a"));
    EXPECT_EQ(a.hash(), qHash(QStringLiteral("a"), 0u));
    EXPECT_EQ(HashedString().hash(), 0u);
    EXPECT_TRUE(HashedString().isEmpty());
    EXPECT_TRUE(HashedString("a") < HashedString("b"));
    EXPECT_LT(HashedString("a").compare(HashedString("b")), 0);
    EXPECT_TRUE(a == QStringLiteral("a"));
    EXPECT_TRUE(QStringLiteral("b") != a);

    HashedString cleared("x");
    cleared.clear();
    EXPECT_TRUE(cleared.isEmpty());
    EXPECT_EQ(cleared.hash(), 0u);

    QHash<HashedString, int> byName;
    byName.insert(HashedString("one"), 1);
    byName.insert(HashedString("two"), 2);
    EXPECT_EQ(byName.value(HashedString("two")), 2);
}

TEST(MachineName, SplitsAtTheFirstAt)
{
    const MachineName name("node@id@more");
    EXPECT_EQ(name.nodeName(), "node");
    EXPECT_EQ(name.machineId(), "id@more");
    EXPECT_EQ(name.fullName(), "node@id@more");
    EXPECT_EQ(name.toUtf8(), QByteArray("node@id@more"));
    const MachineName plain("plain");
    EXPECT_EQ(plain.nodeName(), "plain");
    EXPECT_EQ(plain.machineId(), "plain");
    EXPECT_EQ(MachineName("n@m"), MachineName("n@m"));
    EXPECT_NE(MachineName("n@m"), MachineName("n@x"));
    EXPECT_EQ(MachineName("n@m").hash(), HashedString("n@m").hash());
}

TEST(ConvertableDataSize, NormalisesToTheUnitThatFits)
{
    using C = ConvertableDataSize;
    const struct {
        double size;
        C::SizeScaleE scale;
        double normalSize;
        C::SizeScaleE normalScale;
        const char* text;
    } cases[] = {{1536, C::ScaleBytes, 1.5, C::ScaleKilo, "1.50 KB"},
                 {0.5, C::ScaleKilo, 512, C::ScaleBytes, "512 B"},
                 {1023, C::ScaleBytes, 1023, C::ScaleBytes, nullptr},
                 {0, C::ScaleGiga, 0, C::ScaleBytes, "0 B"},
                 {3.0 * 1024 * 1024, C::ScaleMega, 3, C::ScaleTera, "3.00 TB"}};
    for (const auto& c : cases) {
        C size(c.size, c.scale);
        size.normalise();
        EXPECT_DOUBLE_EQ(size.size(), c.normalSize) << c.size;
        EXPECT_EQ(size.scale(), c.normalScale) << c.size;
        if (c.text) {
            EXPECT_EQ(pointed(size.toString()), c.text);
        }
    }

    C converted(2, C::ScaleMega);
    converted.convertUnits(C::ScaleKilo);
    EXPECT_DOUBLE_EQ(converted.size(), 2048);
    converted.setScale(C::ScaleGiga);
    EXPECT_DOUBLE_EQ(converted.size(), 2048) << "setScale keeps the number";
}

TEST(ConvertableDataSize, PrintsThreeSignificantFigures)
{
    using C = ConvertableDataSize;
    EXPECT_EQ(pointed(C(123.4, C::ScaleMega).toString()), "123 MB");
    EXPECT_EQ(pointed(C(12.34, C::ScaleMega).toString()), "12.3 MB");
    EXPECT_EQ(pointed(C(1.234, C::ScaleMega).toString()), "1.23 MB");
    EXPECT_EQ(pointed(C(9.5, C::ScaleBytes).toString()), "10 B") << "bytes have no decimals";
    EXPECT_EQ(pointed(C(2.5, C::ScaleGiga).toString()), "2.50 GB");
    EXPECT_EQ(pointed(C(700, C::ScaleTera).toString()), "700 TB");
    EXPECT_EQ(pointed(C::normalised(5ull << 30)), "5.00 GB");
    EXPECT_EQ(pointed(C::normalised(0)), "0 B");

    EXPECT_EQ(C::addDelimiters(1234567).toStdString(), "1,234,567");
    EXPECT_EQ(C::addDelimiters(999).toStdString(), "999");
    EXPECT_EQ(C::addDelimiters(100000).toStdString(), "100,000");
    EXPECT_EQ(C::addDelimiters(0).toStdString(), "0");
    EXPECT_EQ(C::addDelimiters(18446744073709551615ull).toStdString(), "18,446,744,073,709,551,615");
}

TEST(Sha1, GivesThePublishedDigests)
{
    Sha1 empty;
    EXPECT_EQ(hex(empty.result()), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(hex(empty.result()), "da39a3ee5e6b4b0d3255bfef95601890afd80709") << "the same digest twice";

    Sha1 pieces;
    pieces.addData("a", 1);
    const QByteArray rest("bc");
    pieces.addData(Extent(rest));
    Sha1 copy = pieces;
    EXPECT_EQ(hex(pieces.result()), "a9993e364706816aba3e25717850c26c9cd0d89d");
    pieces.addData("ignored", 7);
    EXPECT_EQ(hex(pieces.result()), "a9993e364706816aba3e25717850c26c9cd0d89d") << "finished until reset";

    copy.addData("d", 1);
    EXPECT_EQ(hex(copy.result()), "81fe8bfe87576c3ecb22426f8e57847382917acf") << "the copy went on from abc";

    pieces.reset();
    EXPECT_EQ(hex(pieces.result()), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(Authorization, BinaryFormNeedsBothHalves)
{
    EXPECT_TRUE(Authorization("a").binary("").isEmpty());
    EXPECT_TRUE(Authorization().binary("b").isEmpty());
    EXPECT_EQ(Authorization("a").binary("b"), QByteArray("a-b"));
    EXPECT_EQ(Authorization(QStringLiteral("ü")).binary("m@1"), QByteArray("\xc3\xbc-m@1"));
    EXPECT_TRUE(Authorization::equal("a-b", "a-b"));
    EXPECT_FALSE(Authorization::equal("a-b", "a-c"));
    EXPECT_FALSE(Authorization::equal("a-b", "a-bc"));
    EXPECT_TRUE(Authorization::equal(QByteArray(), QByteArray()));
}
