#include "PelorinNet/Identity/SigningKey.h"

#include "PelorinNet/OpenSsl.h"

#include <array>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

namespace pelorin {
namespace {
using openssl::Handle;

using BigNumber = Handle<BIGNUM, BN_clear_free>;
using Point = Handle<EC_POINT, EC_POINT_free>;

constexpr std::size_t fieldSize = 32; // bytes of a coordinate, of a scalar and of half a raw signature
constexpr std::size_t pointSize = 1 + 2 * fieldSize;

std::unexpected<NetError> failure(const char* what)
{
    return std::unexpected(NetError{what + openssl::takeErrorText()});
}

std::unexpected<NetError> cannotLoad()
{
    return failure("cannot load the private key: ");
}

// P-256, with room for its arithmetic.
struct Curve {
    BigNumber number(ByteView bigEndian) const
    {
        return BigNumber(BN_bin2bn(bigEndian.data(), static_cast<int>(bigEndian.size()), nullptr));
    }
    BigNumber randomScalar() const
    {
        BigNumber scalar(BN_new());
        do
            if (!scalar || !BN_priv_rand_range(scalar.get(), order)) return nullptr;
        while (BN_is_zero(scalar.get()));
        return scalar;
    }
    bool isScalar(const BigNumber& value) const
    {
        return value && !BN_is_zero(value.get()) && BN_cmp(value.get(), order) < 0;
    }
    // The public key of a private scalar; empty when the library fails.
    Bytes publicPoint(const BigNumber& scalar) const
    {
        const Point point(EC_POINT_new(group.get()));
        Bytes bytes(pointSize);
        if (!point || !EC_POINT_mul(group.get(), point.get(), scalar.get(), nullptr, nullptr, work.get())
            || EC_POINT_point2oct(group.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, bytes.data(),
                   bytes.size(), work.get())
                != bytes.size())
            return {};
        return bytes;
    }
    bool isCompact(ByteView point) const
    {
        const BigNumber twiceY = number(point.last(fieldSize));
        return twiceY && BN_lshift1(twiceY.get(), twiceY.get())
            && BN_cmp(twiceY.get(), EC_GROUP_get0_field(group.get())) < 0;
    }

    Handle<EC_GROUP, EC_GROUP_free> group{EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1)};
    Handle<BN_CTX, BN_CTX_free> work{BN_CTX_secure_new()};
    const BIGNUM* order = EC_GROUP_get0_order(group.get());
};

SecretBytes bytesOf(const BigNumber& scalar)
{
    Bytes bytes(fieldSize);
    BN_bn2binpad(scalar.get(), bytes.data(), static_cast<int>(bytes.size()));
    return SecretBytes(std::move(bytes));
}

std::shared_ptr<EVP_PKEY> importKey(const BigNumber& scalar, ByteView point)
{
    Bytes native(fieldSize); // the library takes numbers in the machine's own order of bytes
    BN_bn2nativepad(scalar.get(), native.data(), static_cast<int>(native.size()));
    char groupName[] = SN_X9_62_prime256v1;
    auto* const pointData = const_cast<std::uint8_t*>(point.data()); // only read
    OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, groupName, 0),
        OSSL_PARAM_construct_octet_string(OSSL_PKEY_PARAM_PUB_KEY, pointData, point.size()),
        OSSL_PARAM_construct_BN(OSSL_PKEY_PARAM_PRIV_KEY, native.data(), native.size()),
        OSSL_PARAM_construct_end()};
    const Handle<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new_from_name(nullptr, "EC", nullptr));
    EVP_PKEY* key = nullptr;
    if (context && EVP_PKEY_fromdata_init(context.get()) > 0)
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_KEYPAIR, parameters);
    SecretBytes::wipe(native);
    if (!key) return nullptr;
    return {key, EVP_PKEY_free};
}

} // namespace

Result<SigningKey, NetError> SigningKey::generate()
{
    const Curve curve;
    const BigNumber scalar = curve.randomScalar();
    if (!scalar) return cannotLoad();
    // The negated scalar makes the mirrored point: same X, and p - Y for Y.
    if (!curve.isCompact(curve.publicPoint(scalar)) && !BN_sub(scalar.get(), curve.order, scalar.get()))
        return cannotLoad();
    return fromScalar(bytesOf(scalar));
}

Result<SigningKey, NetError> SigningKey::fromScalar(SecretBytes scalar)
{
    const Curve curve;
    const BigNumber number = curve.number(scalar.view());
    if (scalar.view().size() != fieldSize || !curve.isScalar(number))
        return std::unexpected(NetError{"cannot load the private key: no scalar of the curve"});
    SigningKey key;
    key.publicPoint = curve.publicPoint(number);
    if (key.publicPoint.empty()) return cannotLoad();
    key.handle = importKey(number, key.publicPoint);
    if (!key.handle) return cannotLoad();
    key.privateScalar = std::move(scalar);
    return key;
}

SecretBytes SigningKey::x963() const
{
    Bytes bytes;
    bytes.reserve(pointSize + fieldSize); // no growth leaves a copy behind
    bytes.insert(bytes.end(), publicPoint.begin(), publicPoint.end());
    bytes.insert(bytes.end(), privateScalar.view().begin(), privateScalar.view().end());
    return SecretBytes(std::move(bytes));
}

Result<Bytes, NetError> SigningKey::sign(ByteView data) const
{
    const Handle<EVP_MD_CTX, EVP_MD_CTX_free> context(EVP_MD_CTX_new());
    Bytes signature(static_cast<std::size_t>(EVP_PKEY_get_size(handle.get())));
    std::size_t size = signature.size();
    if (!context
        || EVP_DigestSignInit_ex(context.get(), nullptr, "SHA256", nullptr, nullptr, handle.get(), nullptr)
            <= 0
        || EVP_DigestSign(context.get(), signature.data(), &size, data.data(), data.size()) <= 0)
        return failure("cannot sign: ");
    signature.resize(size);
    return signature;
}

Result<Bytes, NetError> SigningKey::signRaw(ByteView data) const
{
    const auto der = sign(data);
    if (!der) return der;
    const std::uint8_t* at = der->data();
    const Handle<ECDSA_SIG, ECDSA_SIG_free> signature(
        d2i_ECDSA_SIG(nullptr, &at, static_cast<long>(der->size())));
    constexpr int half = fieldSize;
    Bytes raw(2 * fieldSize);
    if (!signature || BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), raw.data(), half) != half
        || BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), raw.data() + half, half) != half)
        return failure("cannot sign: ");
    return raw;
}

bool SigningKey::isKeyOf(ByteView certificate) const
{
    const std::uint8_t* at = certificate.data();
    const Handle<X509, X509_free> parsed(d2i_X509(nullptr, &at, static_cast<long>(certificate.size())));
    const bool isKey = parsed && at == certificate.data() + certificate.size()
        && X509_check_private_key(parsed.get(), handle.get()) == 1;
    if (!isKey) openssl::takeErrorText();
    return isKey;
}

} // namespace pelorin
