// Unsigned numbers stored in a file's byte order, read from bytes in memory. The bytes are
// assembled one by one, so the result does not depend on the host's byte order or on the
// alignment of p; the caller has checked that the bytes are there.
#ifndef QRB_COMMON_BYTE_ORDER_H
#define QRB_COMMON_BYTE_ORDER_H

#include <cstdint>

inline uint16_t QRBReadLE16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t QRBReadLE32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t QRBReadLE64(const uint8_t* p) {
    return static_cast<uint64_t>(QRBReadLE32(p)) |
           (static_cast<uint64_t>(QRBReadLE32(p + 4)) << 32);
}

inline uint16_t QRBReadBE16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t QRBReadBE24(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 16) | (static_cast<uint32_t>(p[1]) << 8) | p[2];
}
inline uint32_t QRBReadBE32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}
inline uint64_t QRBReadBE64(const uint8_t* p) {
    return (static_cast<uint64_t>(QRBReadBE32(p)) << 32) | QRBReadBE32(p + 4);
}

#endif
