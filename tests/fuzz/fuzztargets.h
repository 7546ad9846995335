#ifndef TESTS_FUZZ_FUZZTARGETS_H
#define TESTS_FUZZ_FUZZTARGETS_H

// Entry points that take any bytes at all. Each must come back, without a
// crash, a hang, a leak or a read outside its input, whatever it is given;
// a broken promise of the code under test (two readings that disagree, a
// text that does not read back) is a finding and aborts. They run under
// libFuzzer (fuzzmain.cpp, built with BREVI_FUZZ=ON) and, in every build,
// over the files of corpus/<name>/ (replay_test.cpp).

#include <cstddef>
#include <cstdint>

namespace BreviFuzz {

typedef int (*Target)(const std::uint8_t* data, std::size_t size);

struct Entry {
    const char* name;
    Target run;
};

// Every target, by the name of its corpus directory; ends with a null name.
extern const Entry Targets[];

// The packet receiver fed a byte stream in pieces of varying size: the first
// byte chooses the pieces and whether the link is enabled. Every packet it
// gives is read as its layers would read it.
int packets(const std::uint8_t* data, std::size_t size);
// BinaryAddress: parsing, every view, hop stepping there and back, equality
// and hashing against a copy and against the MsgAddress it builds.
int binaryAddress(const std::uint8_t* data, std::size_t size);
// XmlList::fromBinary, with its oracle: text it accepts must be what QDom
// makes of it, and must come back the same through toBinary.
int xmlList(const std::uint8_t* data, std::size_t size);
// Config: a file loaded, saved and loaded again.
int config(const std::uint8_t* data, std::size_t size);
// UnpackBuffer: a script of takes (the first bytes) over the rest.
int unpack(const std::uint8_t* data, std::size_t size);
// NetAddress: its text form read, and read back from what it writes.
int netAddress(const std::uint8_t* data, std::size_t size);
// The block file and B+ tree checkers on a file of these bytes, with a free
// list cut from its end.
int blockFile(const std::uint8_t* data, std::size_t size);

// Reports a finding and aborts.
[[noreturn]] void finding(const char* what, const char* file, int line);

} // namespace BreviFuzz

#define BREVI_FUZZ_EXPECT(condition)                                                                                   \
    do {                                                                                                               \
        if (!(condition))                                                                                              \
            ::BreviFuzz::finding(#condition, __FILE__, __LINE__);                                                      \
    } while (false)

#endif
