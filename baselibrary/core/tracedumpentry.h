#ifndef BASELIBRARY_CORE_TRACEDUMPENTRY_H
#define BASELIBRARY_CORE_TRACEDUMPENTRY_H

#include "core/trace.h"

class QTextStream;

namespace Brevi {

// One decoded trace record.
class BREVI_EXPORT TraceDumpEntry
{
public:
    // `record` points at the record's first byte (its header); `length` runs
    // to the byte after its end mark. The module name comes from `names`, or
    // the built-in names when null.
    TraceDumpEntry(const unsigned char* record, unsigned length, unsigned sequence, TraceLevelE level, unsigned module,
                   const QHash<unsigned, QString>* names = nullptr);

    const QString& getTime() const { return msTime; }
    const QString& getSourceFile() const { return msSourceFile; }
    const QString& getModuleName() const { return msModuleName; }
    const QString& getMessage() const { return msMessage; }
    TraceLevelE getLevel() const { return meLevel; }
    unsigned getSequence() const { return muiSequence; }
    unsigned getModuleId() const { return muiModule; }
    unsigned getId() const { return muiId; }
    unsigned getSourceLine() const { return muiSourceLine; }

    // The line of a crash dump's .tra: like a trace file's line, with the id.
    void writeToStream(QTextStream& stream) const;

private:
    void decodeValues(const unsigned char* at, const unsigned char* end);

    QString msTime;
    QString msSourceFile;
    QString msModuleName;
    QString msMessage;
    TraceLevelE meLevel;
    unsigned muiSequence;
    unsigned muiModule;
    unsigned muiId = 0;
    unsigned muiSourceLine = 0;
};

} // namespace Brevi

#endif
