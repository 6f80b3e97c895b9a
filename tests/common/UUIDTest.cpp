// Identifiers and formatted strings.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "common/StringTool.h"
#include "common/UUID.h"

namespace {

using AR::Common::UUID;
using AR::Common::UUIDHash;

TEST(UUID, HalvesAreLeastSignificantByteFirstAndRoundTrip) {
    const std::pair<unsigned long long, unsigned long long> halves{0x0807060504030201ull,
                                                                   0x100F0E0D0C0B0A09ull};
    const UUID id(halves);
    for (size_t i = 0; i < UUID::kNumBytes; ++i) {
        EXPECT_EQ(id.bytes()[i], i + 1) << i;
    }
    EXPECT_EQ(id.str(), "01020304-0506-0708-090a-0b0c0d0e0f10");
    EXPECT_EQ(id.asUint64(), halves);
    EXPECT_EQ(UUID(id.str()), id);
    EXPECT_EQ(UUID().str(), "00000000-0000-0000-0000-000000000000");
    // Ordered by bytes, first byte first.
    EXPECT_TRUE(UUID() < id);
    EXPECT_FALSE(id < UUID());
    EXPECT_TRUE(UUID(std::make_pair(0x0100ull, 0x0ull)) < UUID(std::make_pair(0x02ull, 0x0ull)));
}

TEST(UUID, TextIsParsedUnlessItIsSixteenRawCharacters) {
    const std::string lower = "3f2504e0-4f89-11d3-9a0c-0305e82c3301";
    EXPECT_EQ(UUID(lower).str(), lower);
    EXPECT_EQ(UUID("3F2504E0-4F89-11D3-9A0C-0305E82C3301").str(), lower);
    const std::string raw = "0123456789abcdef";
    const UUID rawId(raw);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(rawId.bytes()), 16), raw);
}

TEST(UUIDDeathTest, MalformedTextIsAProgrammingError) {
    EXPECT_DEATH(UUID("not-a-uuid"), "AR_ASSERT fields == ");
}

TEST(UUID, HashXorsTheLastWordWithoutMultiplying) {
    const UUIDHash hash;
    const UUID a(std::make_pair(0x1111222233334444ull, 0x5555666677778888ull));
    const UUID b(std::make_pair(0x1111222233334444ull, 0x0000000177778888ull));
    const UUID c(std::make_pair(0x1111222233334445ull, 0x5555666677778888ull));
    // Only the last word (bytes 12..15) differs between a and b: their hashes differ by its xor.
    EXPECT_EQ(static_cast<uint32_t>(hash(a) ^ hash(b)), 0x55556666u ^ 0x00000001u);
    EXPECT_NE(hash(a), hash(c));
    EXPECT_EQ(hash(a), hash(UUID(a.str())));
}

TEST(UUID, GeneratorMakesVersionFourIdsReproducibleBySeed) {
    AR::Common::UUIDGenerator first;
    AR::Common::UUIDGenerator second;
    first.setSeed(17);
    second.setSeed(17);
    std::set<std::string> seen;
    for (int i = 0; i < 500; ++i) {
        const UUID id = first();
        EXPECT_EQ(id, second());
        EXPECT_EQ(id.bytes()[6] >> 4, 4);
        EXPECT_EQ(id.bytes()[8] >> 6, 2);
        seen.insert(id.str());
    }
    EXPECT_EQ(seen.size(), 500u);
    second.setSeed(18);
    EXPECT_NE(first(), second());
    AR::Common::UUIDGenerator systemA;
    AR::Common::UUIDGenerator systemB;
    EXPECT_NE(systemA(), systemB());
}

TEST(StringTool, FormatsShortAndLongTexts) {
    using AR::Common::StringTool::format_string;
    EXPECT_EQ(format_string("%s-%03d", "a", 7), "a-007");
    const std::string longText(700, 'x');
    EXPECT_EQ(format_string("[%s]%d", longText.c_str(), 42), "[" + longText + "]42");
    EXPECT_EQ(format_string("%s", ""), "");
}

}  // namespace
