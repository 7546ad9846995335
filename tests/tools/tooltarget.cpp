// A process for the tools to look at: it attaches to the Hub through the
// library, as every program of the system does, with the title, name and
// group given as its arguments, traces that it is up, and serves messages for
// a minute at most (the tests end it sooner).

#include "core/context.h"
#include "core/trace.h"
#include "messaging/msg.h"

#include <QString>

using namespace Brevi;

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    const QString title = QString::fromLocal8Bit(argv[1]);
    const QString name = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QString();
    const QString group = argc > 3 ? QString::fromLocal8Bit(argv[3]) : QString();
    const bool ran = Context::run(
        [] {
            BREVI_TRACE(TraceModuleApplication, TraceAlways) << "tool target is up";
            Msg::wait(60);
        },
        Context::TypeAttached, Context::FlagAttachOnce, title, name, group);
    return ran ? 0 : 1;
}
