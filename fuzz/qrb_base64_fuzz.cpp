// The MTA base64 coder on arbitrary bytes. The input, as text, decodes to exactly three bytes per
// four characters (characters outside the alphabet are folded in, never skipped) and never past
// the room its stated length gives; as bytes, it encodes to a text that decodes back to it,
// followed by one byte per padding character.
#include "dlna-helper/qrb_dlna_base64.h"
#include "dlog_sink.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

unsigned long Decode(QRBDlnaBase64EnDecoder& coder, std::string text, unsigned long length,
                     std::string* bytes) {
    unsigned char* out = reinterpret_cast<unsigned char*>(1);
    const unsigned long n =
        coder.DecodeBase64(reinterpret_cast<signed char*>(&text[0]), length, &out);
    if ((n == 0) != (out == nullptr)) abort();
    if (n > 0) {
        bytes->assign(reinterpret_cast<char*>(out), n);
        delete[] out;
    }
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    dlog_set_stderr_level(7);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QRBDlnaBase64EnDecoder coder;

    // As text, read up to its first NUL.
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    const unsigned long k = text.size();
    std::string bytes;
    const unsigned long n = Decode(coder, text, k, &bytes);
    if (n != k - (k + 3) / 4) abort();
    // A stated length below the text's: refused, or within the room that length gives.
    if (k > 1) {
        const unsigned long stated = data[0] % k + 1;
        const unsigned long room = stated / 4 * 3 + (stated % 4 != 0 ? 3 : 0);
        std::string shorter;
        const unsigned long m = Decode(coder, text, stated, &shorter);
        if (m > room || (m != 0 && shorter != bytes)) abort();
    }

    // As bytes: encoded, then decoded back.
    if (size == 0) return 0;
    std::string copy(reinterpret_cast<const char*>(data), size);
    signed char* encoded = nullptr;
    const unsigned long length =
        coder.EncodeBase64(reinterpret_cast<unsigned char*>(&copy[0]), size, &encoded);
    if (encoded == nullptr || length != (size + 2) / 3 * 4 ||
        std::strlen(reinterpret_cast<char*>(encoded)) != length)
        abort();
    const std::string encodedText(reinterpret_cast<char*>(encoded), length);
    delete[] encoded;
    std::string back;
    if (Decode(coder, encodedText, length, &back) != length / 4 * 3) abort();
    if (back.compare(0, size, copy) != 0) abort();
    return 0;
}
