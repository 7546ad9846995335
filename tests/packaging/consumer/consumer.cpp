// A program built against the installed library: traces and packs a value.
#include <core/packbuffer.h>
#include <core/trace.h>

int main()
{
    Brevi::Trace trace;
    Brevi::PackBuffer pack;
    pack.append(7);
    BREVI_TRACE(Brevi::TraceModuleApplication, Brevi::TraceAlways) << "packed" << pack.size();
    return pack.size() == 8 && trace.getSequence() == 2 ? 0 : 1;
}
