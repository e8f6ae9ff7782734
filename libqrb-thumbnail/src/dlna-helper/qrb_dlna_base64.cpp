#define QRB_LOG_TAG "QRB-DLNA"
#include "qrb_dlna_base64.h"

#include "qrb_log.h"

#include <cstring>
#include <new>

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

void QRBDlnaBase64EnDecoder::Initialize() {
    std::memset(m_Reverse, 255, sizeof(m_Reverse));
    for (int i = 0; i < 64; ++i)
        m_Reverse[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
}

unsigned long QRBDlnaBase64EnDecoder::DecodeBase64(signed char* in, unsigned long length,
                                                   unsigned char** out) {
    if (out != nullptr) *out = nullptr;
    if (in == nullptr || out == nullptr || length == 0) return 0;
    const unsigned long room = (length / 4) * 3 + (length % 4 != 0 ? 3 : 0);
    unsigned char* bytes = new (std::nothrow) unsigned char[room];
    if (bytes == nullptr) {
        QRB_LOGW("no memory for %lu decoded bytes", room);
        return 0;
    }

    unsigned long made = 0;
    unsigned int previous = 0;
    int step = 0;
    for (const signed char* p = in; *p != 0; ++p) {
        const unsigned int current = m_Reverse[static_cast<unsigned char>(*p)];
        if (step != 0) {
            if (made >= room) {
                delete[] bytes;
                return 0;
            }
            unsigned int value = 0;
            if (step == 1)
                value = (previous << 2) | ((current >> 4) & 0x3);
            else if (step == 2)
                value = (previous << 4) | ((current >> 2) & 0xF);
            else
                value = (previous << 6) | current;
            bytes[made++] = static_cast<unsigned char>(value);
        }
        previous = current;
        step = (step + 1) % 4;
    }
    if (made == 0) {
        delete[] bytes;
        return 0;
    }
    *out = bytes;
    return made;
}

unsigned long QRBDlnaBase64EnDecoder::EncodeBase64(unsigned char* in, unsigned long length,
                                                   signed char** out) {
    if (out != nullptr) *out = nullptr;
    if (in == nullptr || out == nullptr || length == 0) return 0;
    if (length / 3 >= (static_cast<unsigned long>(-1) - 5) / 4) return 0;  // size would wrap
    const unsigned long size = (length + 2) / 3 * 4;
    signed char* text = new (std::nothrow) signed char[size + 1];
    if (text == nullptr) {
        QRB_LOGW("no memory for %lu encoded characters", size);
        return 0;
    }
    unsigned long n = 0;
    for (unsigned long i = 0; i < length; i += 3) {
        const unsigned long left = length - i;
        const unsigned int group =
            (in[i] << 16) | (left > 1 ? in[i + 1] << 8 : 0) | (left > 2 ? in[i + 2] : 0);
        text[n++] = kAlphabet[(group >> 18) & 0x3F];
        text[n++] = kAlphabet[(group >> 12) & 0x3F];
        text[n++] = left > 1 ? kAlphabet[(group >> 6) & 0x3F] : '=';
        text[n++] = left > 2 ? kAlphabet[group & 0x3F] : '=';
    }
    text[n] = 0;
    *out = text;
    return n;
}
