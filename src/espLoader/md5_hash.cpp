#include "md5_hash.h"

#include <cstring>

ESP_LOADER_NAMESPACE_BEGIN

namespace {

// Per-round shift amounts and the sine-derived constants of RFC 1321, 3.4.
constexpr uint32_t kShift[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                                 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                                 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                                 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};

constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

uint32_t rotateLeft(uint32_t value, uint32_t count) {
    return (value << count) | (value >> (32 - count));
}

// The 64-byte block as sixteen little-endian words.
void blockWords(const uint8_t* bytes, uint32_t words[16]) {
    for (int i = 0; i < 16; ++i) {
        words[i] = static_cast<uint32_t>(bytes[4 * i]) | static_cast<uint32_t>(bytes[4 * i + 1]) << 8 |
                   static_cast<uint32_t>(bytes[4 * i + 2]) << 16 |
                   static_cast<uint32_t>(bytes[4 * i + 3]) << 24;
    }
}

void transformBuffered(MD5Context* context) {
    uint32_t words[16];
    blockWords(context->in, words);
    MD5Transform(context->buf, words);
}

} // namespace

void MD5Init(MD5Context* context) {
    context->buf[0] = 0x67452301;
    context->buf[1] = 0xefcdab89;
    context->buf[2] = 0x98badcfe;
    context->buf[3] = 0x10325476;
    context->bits[0] = 0;
    context->bits[1] = 0;
    std::memset(context->in, 0, sizeof(context->in));
}

void MD5Transform(uint32_t buf[4], const uint32_t in[16]) {
    uint32_t a = buf[0];
    uint32_t b = buf[1];
    uint32_t c = buf[2];
    uint32_t d = buf[3];
    for (uint32_t i = 0; i < 64; ++i) {
        uint32_t f = 0;
        uint32_t g = 0;
        if (i < 16) {
            f = (b & c) | (~b & d);
            g = i;
        } else if (i < 32) {
            f = (d & b) | (~d & c);
            g = (5 * i + 1) % 16;
        } else if (i < 48) {
            f = b ^ c ^ d;
            g = (3 * i + 5) % 16;
        } else {
            f = c ^ (b | ~d);
            g = (7 * i) % 16;
        }
        const uint32_t next = d;
        d = c;
        c = b;
        b = b + rotateLeft(a + f + kSine[i] + in[g], kShift[i]);
        a = next;
    }
    buf[0] += a;
    buf[1] += b;
    buf[2] += c;
    buf[3] += d;
}

void MD5Update(MD5Context* context, const uint8_t* data, uint32_t length) {
    uint32_t used = (context->bits[0] >> 3) & 0x3F;
    const uint32_t before = context->bits[0];
    context->bits[0] += length << 3;
    if (context->bits[0] < before) {
        ++context->bits[1];
    }
    context->bits[1] += length >> 29;

    while (length > 0) {
        const uint32_t take = 64 - used < length ? 64 - used : length;
        std::memcpy(context->in + used, data, take);
        used += take;
        data += take;
        length -= take;
        if (used == 64) {
            transformBuffered(context);
            used = 0;
        }
    }
}

void MD5Final(uint8_t digest[16], MD5Context* context) {
    uint8_t length[8];
    for (int i = 0; i < 4; ++i) {
        length[i] = static_cast<uint8_t>(context->bits[0] >> (8 * i));
        length[4 + i] = static_cast<uint8_t>(context->bits[1] >> (8 * i));
    }
    // Pad with one 1 bit and zeros to 56 bytes modulo 64, then the bit count.
    static const uint8_t kPadding[64] = {0x80};
    const uint32_t used = (context->bits[0] >> 3) & 0x3F;
    const uint32_t padLength = used < 56 ? 56 - used : 120 - used;
    MD5Update(context, kPadding, padLength);
    MD5Update(context, length, 8);

    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) {
            digest[4 * i + j] = static_cast<uint8_t>(context->buf[i] >> (8 * j));
        }
    }
    std::memset(context, 0, sizeof(*context));
}

ESP_LOADER_NAMESPACE_END
