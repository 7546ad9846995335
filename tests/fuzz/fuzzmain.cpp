// One libFuzzer program per target, chosen when it is compiled.

#include "fuzztargets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return BreviFuzz::BREVI_FUZZ_TARGET(data, size);
}
