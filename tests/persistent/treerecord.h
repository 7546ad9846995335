#ifndef TESTS_PERSISTENT_TREERECORD_H
#define TESTS_PERSISTENT_TREERECORD_H

#include "core/byteorder.h"
#include "core/trace.h"
#include "persistent/key.h"

#include <QByteArray>

#include <cstring>

namespace PersistentTest {

// A record of the tree tests: the key's id in its first 4 bytes, then bytes
// made from id and version, so that a record read back tells which version of
// which key it is. Two keys are equal when their ids are.
class RecordKey : public Brevi::Key
{
public:
    RecordKey(quint32 hashWord, quint32 id, unsigned size, quint32 version = 0)
        : moHash(hashWord)
        , muiId(id)
        , muiSize(size)
        , muiVersion(version)
    {}

    static QByteArray content(quint32 id, quint32 version, unsigned size)
    {
        QByteArray bytes(int(size), 0);
        unsigned char idBytes[4];
        Brevi::ByteOrder::store32(idBytes, id);
        for (unsigned i = 0; i < size; ++i)
            bytes[int(i)] = char(i < 4 ? idBytes[i] : (id * 31 + version * 17 + i) & 0xff);
        return bytes;
    }

    void setHash(const Brevi::KeyHash& hash) override { moHash = hash; }
    Brevi::KeyHash hash() const override { return moHash; }
    unsigned size() const override { return muiSize; }
    void store(Brevi::KeyData& data) const override
    {
        const QByteArray bytes = content(muiId, muiVersion, muiSize);
        std::memcpy(data.data(), bytes.constData(), muiSize);
    }
    void load(const Brevi::KeyData& data) override
    {
        moLoaded = QByteArray(reinterpret_cast<char*>(data.data()), int(data.size()));
    }
    bool equal(const Brevi::KeyData& data) const override
    {
        return data.size() >= 4 ? Brevi::ByteOrder::load32(data.data()) == muiId : data.size() == muiSize;
    }
    void display(const Brevi::KeyData& data) const override
    {
        BREVI_TRACE(Brevi::TraceModuleApplication, Brevi::TraceAlways) << "record of" << data.size() << "bytes";
    }

    Brevi::KeyHash moHash;
    quint32 muiId;
    unsigned muiSize;
    quint32 muiVersion;
    QByteArray moLoaded;
};

} // namespace PersistentTest

#endif
