#include "PelorinNet/Identity/SigningKey.h"
#include "PelorinNet/Identity/VerifyingKey.h"

#include <gtest/gtest.h>

using namespace pelorin;

namespace {

TEST(VerifyingKey, believesItsOwnSignatureAndNoOther)
{
    const auto key = SigningKey::generate().value(), other = SigningKey::generate().value();
    const Bytes data{'d', 'a', 't', 'a'}, otherData{'d', 'a', 't', 'e'};
    const Bytes der = key.sign(data).value(), raw = key.signRaw(data).value();
    const auto verifying = VerifyingKey::fromX963(key.publicKey());
    ASSERT_TRUE(verifying);
    EXPECT_TRUE(verifying->hasSigned(data, der));
    EXPECT_TRUE(verifying->hasSignedRaw(data, raw));
    EXPECT_FALSE(verifying->hasSigned(otherData, der));
    EXPECT_FALSE(verifying->hasSignedRaw(otherData, raw));
    EXPECT_FALSE(VerifyingKey::fromX963(other.publicKey())->hasSigned(data, der));
    EXPECT_FALSE(verifying->hasSigned(data, raw)); // each in its own form alone
    EXPECT_FALSE(verifying->hasSignedRaw(data, der));
    for (std::size_t i = 0; i < raw.size(); ++i) {
        Bytes changed = raw;
        changed[i] ^= 1;
        EXPECT_FALSE(verifying->hasSignedRaw(data, changed)) << i;
    }
    for (std::size_t i = 0; i < der.size(); ++i) {
        Bytes changed = der;
        changed[i] ^= 1;
        EXPECT_FALSE(verifying->hasSigned(data, changed)) << i;
        EXPECT_FALSE(verifying->hasSigned(data, ByteView(der).first(i))) << i;
    }
    for (const std::size_t size : {0, 63, 65}) EXPECT_FALSE(verifying->hasSignedRaw(data, Bytes(size, 1)));
    EXPECT_FALSE(verifying->hasSignedRaw(data, Bytes(64, 0)));
    EXPECT_FALSE(verifying->hasSignedRaw(data, Bytes(64, 0xFF))); // above the order
}

TEST(VerifyingKey, isAnUncompressedPointOfTheCurveAndNothingElse)
{
    const Bytes good = SigningKey::generate().value().publicKey();
    Bytes compressed(good.begin(), good.begin() + 33);
    compressed[0] = 2;
    Bytes hybrid = good;
    hybrid[0] = 6;
    Bytes offCurve = good;
    offCurve[64] ^= 1;
    Bytes tooLarge(65, 0xFF); // coordinates above the field's size
    tooLarge[0] = 4;
    for (const Bytes& bad : {compressed, hybrid, offCurve, tooLarge, Bytes(65), Bytes{0}, Bytes{},
             Bytes(good.begin(), good.end() - 1)})
        EXPECT_FALSE(VerifyingKey::fromX963(bad)) << bad.size();
}

} // namespace
