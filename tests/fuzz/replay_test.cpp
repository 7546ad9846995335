// Every file of every fuzz corpus through its target: what fuzzing once found
// stays found. A target that breaks a promise aborts the case.

#include "fuzztargets.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace BreviFuzz {
// A target shows as its name in the case's description.
void PrintTo(const Entry& entry, std::ostream* out) { *out << entry.name; }
} // namespace BreviFuzz

namespace {

class CorpusReplay : public ::testing::TestWithParam<BreviFuzz::Entry>
{};

std::vector<BreviFuzz::Entry> allTargets()
{
    std::vector<BreviFuzz::Entry> targets;
    for (const BreviFuzz::Entry* entry = BreviFuzz::Targets; entry->name; ++entry)
        targets.push_back(*entry);
    return targets;
}

} // namespace

TEST_P(CorpusReplay, EveryFileComesBack)
{
    const QDir corpus(QStringLiteral(BREVI_FUZZ_CORPUS "/") + GetParam().name);
    const QStringList files = corpus.entryList(QDir::Files, QDir::Name);
    EXPECT_FALSE(files.isEmpty()) << "no corpus in " << corpus.path().toStdString();
    for (const QString& name : files) {
        QFile file(corpus.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << name.toStdString();
        const QByteArray bytes = file.readAll();
        SCOPED_TRACE(name.toStdString());
        EXPECT_EQ(GetParam().run(reinterpret_cast<const std::uint8_t*>(bytes.constData()), std::size_t(bytes.size())),
                  0);
    }
}

INSTANTIATE_TEST_SUITE_P(Fuzz, CorpusReplay, ::testing::ValuesIn(allTargets()),
                         [](const ::testing::TestParamInfo<BreviFuzz::Entry>& info) {
                             return std::string(info.param.name);
                         });
