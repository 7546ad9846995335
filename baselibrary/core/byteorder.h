#ifndef BASELIBRARY_CORE_BYTEORDER_H
#define BASELIBRARY_CORE_BYTEORDER_H

#include <cstdint>
#include <cstring>

// Every integer the system stores or sends (trace records, packed values,
// packets, block files) is little-endian whatever the host is. These are the
// only functions that read or write such integers from raw bytes.
namespace Brevi {
namespace ByteOrder {

template <typename T>
inline void storeLittle(void* at, T value)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::memcpy(at, &value, sizeof(T));
#else
    unsigned char* p = static_cast<unsigned char*>(at);
    for (unsigned i = 0; i < sizeof(T); ++i)
        p[i] = static_cast<unsigned char>(static_cast<std::uint64_t>(value) >> (8 * i));
#endif
}

template <typename T>
inline T loadLittle(const void* at)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    T value;
    std::memcpy(&value, at, sizeof(T));
    return value;
#else
    const unsigned char* p = static_cast<const unsigned char*>(at);
    std::uint64_t value = 0;
    for (unsigned i = 0; i < sizeof(T); ++i)
        value |= static_cast<std::uint64_t>(p[i]) << (8 * i);
    return static_cast<T>(value);
#endif
}

inline void store16(void* at, std::uint16_t v) { storeLittle(at, v); }
inline void store32(void* at, std::uint32_t v) { storeLittle(at, v); }
inline void store64(void* at, std::uint64_t v) { storeLittle(at, v); }
inline std::uint16_t load16(const void* at) { return loadLittle<std::uint16_t>(at); }
inline std::uint32_t load32(const void* at) { return loadLittle<std::uint32_t>(at); }
inline std::uint64_t load64(const void* at) { return loadLittle<std::uint64_t>(at); }

} // namespace ByteOrder
} // namespace Brevi

#endif
