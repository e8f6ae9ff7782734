// The MTA base64 coder from short literals: the decoder folds characters outside the alphabet
// into the bytes instead of skipping them, and refuses texts longer than their stated length.
#include "qrb_dlna_base64.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Decodes text with the stated length (its own when -1); "<refused>" when nothing came back.
std::string Decode(std::string text, long length = -1) {
    unsigned char* out = reinterpret_cast<unsigned char*>(1);  // must be reset by the call
    const unsigned long n = QRBDlnaBase64EnDecoder().DecodeBase64(
        reinterpret_cast<signed char*>(&text[0]), length < 0 ? text.size() : length, &out);
    if (n == 0) return out == nullptr ? "<refused>" : "<refused, but out was set>";
    std::string bytes(reinterpret_cast<char*>(out), n);
    delete[] out;
    return bytes;
}

std::string Encode(std::string bytes) {
    signed char* out = nullptr;
    const unsigned long n = QRBDlnaBase64EnDecoder().EncodeBase64(
        reinterpret_cast<unsigned char*>(&bytes[0]), bytes.size(), &out);
    if (out == nullptr) return "<refused>";
    std::string text(reinterpret_cast<char*>(out));  // up to the NUL, which must end it
    delete[] out;
    return text.size() == n ? text : "<wrong length>";
}

TEST(QRBDlnaBase64Test, DecodesEveryCharacterIntoTheBytesAndRefusesOverlongTexts) {
    const struct {
        const char* text;
        long length;
        std::string bytes;
    } cases[] = {
        {"QUJD", -1, "ABC"},
        {"QUI=", -1, std::string("AB\xFF", 3)},  // "=" is the value 255, not padding
        {"QQ==", -1, std::string("A\x0F\xFF", 3)},
        {"QUJDQQ", -1, "ABCA"},  // a short last group gives what it can
        {"QUJD\nQUJD", -1, std::string("ABC\xFD\x05\x09", 6)},  // the line break shifts the rest
        {"QUJD", 5, "ABC"},                                     // reading stops at the NUL
        {"QUJDQUJD", 5, "ABCABC"},         // 5 characters make room for 6 bytes
        {"QUJDQUJDQUJD", 4, "<refused>"},  // more than the stated length has room for
        {"", 4, "<refused>"},
        {"QUJD", 0, "<refused>"},
    };
    for (const auto& c : cases) EXPECT_EQ(Decode(c.text, c.length), c.bytes) << c.text;
    unsigned char* out = nullptr;
    EXPECT_EQ(QRBDlnaBase64EnDecoder().DecodeBase64(nullptr, 4, &out), 0u);
}

TEST(QRBDlnaBase64Test, EncodesWithPaddingThatDecodesBackAsOneByteACharacter) {
    EXPECT_EQ(Encode("ABC"), "QUJD");
    EXPECT_EQ(Encode("AB"), "QUI=");
    EXPECT_EQ(Encode("A"), "QQ==");
    EXPECT_EQ(Encode(""), "<refused>");
    std::string every;
    for (int i = 0; i < 256; ++i) every.push_back(static_cast<char>(255 - i));
    for (size_t n : {1, 2, 3, 100, 256}) {
        const std::string text = Encode(every.substr(0, n));
        ASSERT_EQ(text.size(), (n + 2) / 3 * 4) << n;
        const std::string back = Decode(text);
        EXPECT_EQ(back.size(), text.size() / 4 * 3) << n;
        EXPECT_EQ(back.substr(0, n), every.substr(0, n)) << n;
    }
}

}  // namespace
