// The text of commands as Command builds it from typed values, and search
// results in their packed form: no server needed.

#include "index/lucenecomm.h"
#include "index/results.h"

#include "core/packbuffer.h"
#include "core/unpackbuffer.h"

#include "tracelines.h"

#include <QDateTime>

#include <gtest/gtest.h>

using namespace Brevi;
using BreviTest::traces;

namespace {

typedef LuceneComm::Options Options;

class CommandText : public BreviTest::TraceTest<TraceModuleLucene>
{
protected:
    CommandText()
        : moFields("name")
    {
        moFields.add("count", Options("V1"));
        moFields.add("n32", Options("V1N"));
        moFields.add("size", Options("V2N"));
        moFields.add("big", Options("V2"));
        moFields.add("when", Options("V3"));
        moFields.add("kind", Options("V4"));
        moFields.add("flag", Options("V5"));
        moFields.addTag("K", Options("V1"));
    }

    LuceneComm::FieldOptions moFields;
};

TEST_F(CommandText, TypedValuesArePaddedUnlessNumericAndEveryClauseHasItsExactForm)
{
    LuceneComm::Command command(moFields);
    ASSERT_TRUE(command.addField("count", "12"));
    ASSERT_TRUE(command.addField("n32", "12"));
    ASSERT_TRUE(command.addField("count", "-5"));
    ASSERT_TRUE(command.addField("big", 7ull));
    ASSERT_TRUE(command.addField("flag", true));
    ASSERT_TRUE(command.addField("kind", 3u));
    ASSERT_TRUE(command.addField("when", QDateTime::fromSecsSinceEpoch(1000, Qt::UTC)));
    ASSERT_TRUE(command.addField("other", "7", "K"));
    ASSERT_TRUE(command.addField("name", "x"));
    ASSERT_TRUE(command.addRange("size", "", "100"));
    ASSERT_TRUE(command.addRange("count", 1u, 2u));
    ASSERT_TRUE(command.addAll("kind"));
    ASSERT_TRUE(command.addAll("flag"));
    ASSERT_TRUE(command.addSort(QString(), "size"));
    ASSERT_TRUE(command.addIndexList("T", {"a", "b"}));
    command.mustContainClauseList();
    command.shouldContainClauseList();
    command.mustNotContainClauseList();
    command.endClauseList();
    EXPECT_EQ(command.toString(),
              ",Fd(\"count\",\"0000000012\"),Fd(\"n32\",\"12\"),Fd(\"count\",\"-000000005\")"
              ",Fd(\"big\",\"00000000000000000007\"),Fd(\"flag\",\"1\"),Fd(\"kind\",\"03\")"
              ",Fd(\"when\",\"00000000001000\"),Fd(K,\"other\",\"0000000007\"),Fd(\"name\",\"x\")"
              ",Fi(\"size\",\"-9223372036854775808\",\"100\"),Fi(\"count\",\"0000000001\",\"0000000002\")"
              ",Fi(\"kind\",\"00\",\"99\"),Fi(\"flag\",\"0\",\"1\"),So(\"size\"),In(T,\"a\"),In(T,\"b\")"
              ",Expr(M),Expr(S),Expr(N),Expr(E)");

    EXPECT_TRUE(command.returnClause().isEmpty());
    ASSERT_TRUE(command.addReturn("path"));
    command.resultsPerPage(20);
    command.maximumResults(100);
    command.returnOptions("S");
    EXPECT_EQ(command.returnClause(), ",Re(SP20M100,\"path\")");
    EXPECT_FALSE(command.isDistinct());
    command.returnOptions("D");
    EXPECT_TRUE(command.isDistinct());

    command.clear();
    EXPECT_TRUE(command.toString().isEmpty());
    EXPECT_TRUE(command.returnClause().isEmpty());
    EXPECT_TRUE(command.returnFields().isEmpty());
}

TEST_F(CommandText, ValuesThatDoNotFitTheFieldOrWouldChangeTheTextAreRefusedAndAddNothing)
{
    LuceneComm::Command command(moFields);
    const QDateTime when = QDateTime::fromSecsSinceEpoch(1000, Qt::UTC);
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(command.addField("name", 5u)); }, TraceAlways,
                       "Cannot add a number to string field"));
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(command.addField("count", when)); }, TraceAlways,
                       "Cannot store date in non date field"));
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(command.addRange("count", when, when)); }, TraceAlways, "Field is not a date"));
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(command.addField("count", 3000000000ull)); }, TraceAlways, "number to large"));
    EXPECT_FALSE(command.addField("count", "twelve"));
    EXPECT_FALSE(command.addField("size", "1e3"));
    EXPECT_FALSE(command.addRange("count", "1", "x"));
    EXPECT_FALSE(command.addField("na\"me", "x"));
    EXPECT_FALSE(command.addField("back\\slash", "x"));
    EXPECT_FALSE(command.addField("name", "x", "two words"));
    EXPECT_FALSE(command.addSort("a,b", "name"));
    EXPECT_FALSE(command.addIndexList(QString(), {"ok", "not\"ok"}));
    EXPECT_FALSE(command.addReturn("qu\"ote"));
    EXPECT_TRUE(command.toString().isEmpty());
    EXPECT_TRUE(command.returnClause().isEmpty());

    // Return options run into the page count: only letters other than P and M stay.
    command.returnOptions("S9,P\"");
    EXPECT_EQ(command.returnClause(), ",Re(SP50)");
}

TEST_F(CommandText, ValuesAreEscapedAndOptionsAndTheXmlFormReadBack)
{
    LuceneComm::Command command(moFields);
    ASSERT_TRUE(command.copyField("path", "c:\\x \"y\", (z) \xc3\xa9"));
    ASSERT_TRUE(command.copyRange("path", "a\"", "b\\"));
    ASSERT_TRUE(command.addField("name", ""));
    EXPECT_EQ(command.toString(), QString::fromUtf8(",Fd(\"path\",\"c:\\\\x \\\"y\\\", (z) \xc3\xa9\")"
                                                    ",Fi(\"path\",\"a\\\"\",\"b\\\\\"),Fd(\"name\",\"\")"));

    LuceneComm::FieldOptions fields("name");
    fields.add("b", Options("A2"));
    fields.add("a", Options("V1"));
    fields.addTag("K", Options("V1U"));
    fields.command(command);
    EXPECT_EQ(command.toString(), ",De(\"name\"),Fd(\"a\",\"V1\"),Fd(\"b\",\"A2\"),Fd(K,\"\",\"V1U\")");
    EXPECT_EQ(fields.options("unknown").options(), "");
    fields.add("Default", Options("A1"));
    EXPECT_EQ(fields.options("unknown").analyzer(), 1u);
    EXPECT_EQ(fields.options("a", "K").options(), "V1U");
    EXPECT_EQ(fields.options("a", "Z").options(), "V1");

    const Options options("A12V2NUB");
    EXPECT_EQ(options.analyzer(), 12u);
    EXPECT_EQ(options.value(), Options::eInt64);
    EXPECT_TRUE(options.numeric() && options.binary() && !options.stored());
    EXPECT_EQ(Options("V9").value(), Options::eText);
    EXPECT_EQ(Options("AV").getOptionValue('A'), 0u);

    command.clear();
    ASSERT_TRUE(command.addField("count", 4u));
    ASSERT_TRUE(command.addReturn(QStringList{"a", "b"}));
    command.maximumResults(9);
    LuceneComm::Command copy;
    ASSERT_TRUE(copy.fromXml(command.toXml()));
    EXPECT_EQ(copy.toString(), command.toString());
    EXPECT_EQ(copy.returnClause(), command.returnClause());

    XmlList odd = command.toXml();
    odd.set("Surprise", 1u);
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(copy.fromXml(odd)); }, TraceAlways, "Unexpected entry in lucene command xml"));
}

class ResultsPacking : public BreviTest::TraceTest<TraceModuleLucene>
{};

TEST_F(ResultsPacking, ResultsTravelWholeAndACutBufferKeepsTheCompleteOnes)
{
    Results empty;
    PackBuffer packed;
    empty.pack(packed);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(packed.extentWithoutSize().data()), 4), QByteArray(4, '\0'));
    Results none;
    ASSERT_TRUE(none.unpack(empty.pack()));
    EXPECT_EQ(none.resultCount(), 0u);

    Results results;
    for (int i = 0; i < 3; ++i) {
        Results::Result result;
        result.add("path", QString::fromUtf8("/a/\xc3\xa9") + QString::number(i));
        result.add("size", -1 - i);
        result.add("big", 1ull << 40);
        result.add("path", "second");
        results.add(result);
    }
    const boost::shared_ptr<Buffer> whole = results.pack();
    Results back;
    ASSERT_TRUE(back.unpack(whole));
    ASSERT_EQ(back.resultCount(), 3u);
    bool found = false;
    EXPECT_EQ(back.resultList().at(2).value(&found, "path"), QString::fromUtf8("/a/\xc3\xa9"
                                                                               "2"));
    EXPECT_TRUE(found);
    EXPECT_EQ(back.resultList().at(0).value(nullptr, "size"), "-1");
    EXPECT_EQ(back.resultList().at(0).value(nullptr, "big"), "1099511627776");
    EXPECT_TRUE(back.resultList().at(0).value(&found, "absent").isNull());
    EXPECT_FALSE(found);

    UnpackBuffer cut;
    cut.reset(Extent(whole->data(), whole->size() - 3));
    EXPECT_TRUE(traces([&] { EXPECT_FALSE(back.unpack(cut)); }, TraceAlways, "Failed to unpack field name and value"));
    EXPECT_EQ(back.resultCount(), 2u);
    EXPECT_TRUE(
        traces([&] { EXPECT_FALSE(back.unpack(boost::shared_ptr<Buffer>())); }, TraceAlways, "No data supplied"));
}

TEST_F(ResultsPacking, MatchRepliesPackStraightWithTheirNamedFieldsOnly)
{
    QList<LuceneComm::Reply> replies;
    for (int i = 0; i < 2; ++i) {
        LuceneComm::Reply match("SM");
        match.addClause(LuceneComm::eClauseStatus, {"T"});
        match.addClause(LuceneComm::eClauseField, {"path", QString("/p%1").arg(i)});
        match.addClause(LuceneComm::eClauseField, {"lonely"});
        match.addClause(LuceneComm::eClauseField, {"size", "10", "extra"});
        replies.append(match);
    }
    EXPECT_EQ(replies.first().response(), LuceneComm::eResponseSearchMatch);
    EXPECT_EQ(replies.first().responseName(), "SearchMatch");
    EXPECT_EQ(replies.first().fieldCount(), 2u);

    PackBuffer packed;
    Results::pack(packed, replies);
    UnpackBuffer reader;
    reader.reset(packed.extentWithoutSize());
    Results results;
    ASSERT_TRUE(results.unpack(reader));
    ASSERT_EQ(results.resultCount(), 2u);
    const Results::Result& second = results.resultList().at(1);
    ASSERT_EQ(second.fieldCount(), 2u);
    EXPECT_EQ(second.fieldList().at(0).name(), "path");
    EXPECT_EQ(second.fieldList().at(0).value(), "/p1");
    EXPECT_EQ(second.value(nullptr, "size"), "10");
}

} // namespace
