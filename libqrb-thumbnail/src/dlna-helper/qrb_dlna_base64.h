// The base64 coder of MTA files, with the standard alphabet (A-Z, a-z, 0-9, "+", "/").
//
// The decoder is deliberately simple: it does not skip anything. A character outside the
// alphabet ("=" padding and line breaks included) counts as the value 255 and is folded into the
// bytes like any other, so padding adds bytes past the end of the data. The pictures it carries
// are JPEG, whose readers stop at the end-of-image marker and ignore what follows.
#ifndef QRB_DLNA_BASE64_H
#define QRB_DLNA_BASE64_H

class QRBDlnaBase64EnDecoder {
public:
    QRBDlnaBase64EnDecoder() { Initialize(); }

    // Fills the reverse table: 255 everywhere, then each alphabet character with its index.
    void Initialize();

    // Decodes the NUL-terminated text in (read up to its NUL) into a new array (array new; the
    // caller delete[]s it) and returns the number of bytes made. length is the text's length:
    // it sizes the output at (length / 4) * 3 bytes, 3 more when length is not a multiple of 4.
    // A null argument, a zero length, an empty text, or a text that would overflow that room
    // gives 0 with *out null.
    unsigned long DecodeBase64(signed char* in, unsigned long length, unsigned char** out);

    // Encodes length bytes into a new NUL-terminated text (array new; the caller delete[]s it),
    // padded with "=", without line breaks; returns its length. Null or empty input gives 0
    // with *out null.
    unsigned long EncodeBase64(unsigned char* in, unsigned long length, signed char** out);

private:
    unsigned char m_Reverse[256];
};

#endif
