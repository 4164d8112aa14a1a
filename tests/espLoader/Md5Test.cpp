#include "FakeLoaderPort.h"
#include "md5_hash.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace {

std::string hexDigest(const std::string& text, size_t piece = 0) {
    MD5Context context;
    MD5Init(&context);
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    if (piece == 0) {
        MD5Update(&context, bytes, static_cast<uint32_t>(text.size()));
    } else {
        for (size_t at = 0; at < text.size(); at += piece) {
            const size_t n = std::min(piece, text.size() - at);
            MD5Update(&context, bytes + at, static_cast<uint32_t>(n));
        }
    }
    uint8_t digest[16];
    MD5Final(digest, &context);
    std::string hex;
    char two[3];
    for (uint8_t b : digest) {
        std::snprintf(two, sizeof(two), "%02x", b);
        hex += two;
    }
    return hex;
}

} // namespace

TEST(Md5, Rfc1321TestSuite) {
    EXPECT_EQ(hexDigest(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(hexDigest("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(hexDigest("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(hexDigest("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(hexDigest("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(hexDigest("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    std::string digits;
    for (int i = 0; i < 8; ++i) {
        digits += "1234567890";
    }
    EXPECT_EQ(hexDigest(digits), "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, PiecesGiveTheSameDigestAcrossBlockEdges) {
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += static_cast<char>('a' + i % 26);
    }
    const std::string whole = hexDigest(text);
    for (size_t piece : {1u, 3u, 55u, 56u, 63u, 64u, 65u, 200u}) {
        EXPECT_EQ(hexDigest(text, piece), whole) << piece;
    }
    // Padding edges: 55 bytes fit one block, 56 need two.
    EXPECT_NE(hexDigest(std::string(55, 'x')), hexDigest(std::string(56, 'x')));
}
