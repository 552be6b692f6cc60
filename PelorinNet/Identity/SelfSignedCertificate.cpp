#include "PelorinNet/Identity/SelfSignedCertificate.h"

#include "PelorinNet/Channel/PelorinTLS.h"

#include <algorithm>
#include <ctime>
#include <fmt/chrono.h>
#include <initializer_list>

namespace pelorin {
namespace {

constexpr std::size_t serialSize = 8;
constexpr auto clockSkew = std::chrono::hours(24); // between the clocks of two devices
constexpr auto lifetime = std::chrono::hours(24 * 7300);

namespace tag {
constexpr std::uint8_t integer = 0x02, bitString = 0x03, utf8String = 0x0C, utcTime = 0x17, sequence = 0x30,
                       set = 0x31, version = 0xA0;
}

// Object identifiers, whole elements.
constexpr std::uint8_t commonNameID[] = {0x06, 0x03, 0x55, 0x04, 0x03}; // 2.5.4.3
constexpr std::uint8_t ecPublicKeyID[]
    = {0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01}; // 1.2.840.10045.2.1
constexpr std::uint8_t prime256v1ID[]
    = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}; // 1.2.840.10045.3.1.7
constexpr std::uint8_t ecdsaWithSHA256ID[]
    = {0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02}; // 1.2.840.10045.4.3.2

Bytes encodedLength(std::size_t length)
{
    if (length < 128) return {static_cast<std::uint8_t>(length)};
    Bytes bytes;
    for (; length > 0; length >>= 8) bytes.insert(bytes.begin(), static_cast<std::uint8_t>(length));
    bytes.insert(bytes.begin(), static_cast<std::uint8_t>(0x80 | bytes.size()));
    return bytes;
}

Bytes element(std::uint8_t tagByte, std::initializer_list<ByteView> contents)
{
    std::size_t size = 0;
    for (const ByteView content : contents) size += content.size();
    Bytes bytes{tagByte};
    const Bytes length = encodedLength(size);
    bytes.insert(bytes.end(), length.begin(), length.end());
    for (const ByteView content : contents) bytes.insert(bytes.end(), content.begin(), content.end());
    return bytes;
}

Bytes integer(ByteView bigEndian)
{
    const auto first = std::ranges::find_if(bigEndian, [](std::uint8_t byte) { return byte != 0; });
    Bytes content(first, bigEndian.end());
    if (content.empty() || content.front() >= 0x80) content.insert(content.begin(), 0x00); // not negative
    return element(tag::integer, {content});
}

// Two digits of the year: readers take 50 and above for the last century, so from 2030 on these certificates
// seem to end before they begin. Nobody who knows what they are looks at their dates.
Bytes utcTime(std::chrono::system_clock::time_point time)
{
    const auto text
        = fmt::format("{:%y%m%d%H%M%S}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(time)));
    return element(tag::utcTime, {Bytes(text.begin(), text.end())});
}

Bytes bitString(ByteView bytes)
{
    const std::uint8_t unusedBits[] = {0};
    return element(tag::bitString, {unusedBits, bytes});
}

Bytes name(const std::string& commonName)
{
    const Bytes text = element(tag::utf8String, {Bytes(commonName.begin(), commonName.end())});
    return element(tag::sequence, {element(tag::set, {element(tag::sequence, {commonNameID, text})})});
}

Bytes serial(const SelfSignedCertificate::RandomBytes& random)
{
    Bytes bytes = random(serialSize);
    bytes.front() &= 0x7F; // positive
    return integer(bytes);
}

} // namespace

Result<Bytes, NetError> SelfSignedCertificate::make(ByteView publicKey, const std::string& commonName,
    std::chrono::system_clock::time_point now, const Sign& sign, const RandomBytes& random)
{
    const std::uint8_t version3[] = {2}; // they count from 0
    const Bytes version = element(tag::version, {integer(version3)});
    const Bytes algorithm = element(tag::sequence, {ecdsaWithSHA256ID});
    const Bytes nameOfBoth = name(commonName); // issuer and subject
    const Bytes validity = element(tag::sequence, {utcTime(now - clockSkew), utcTime(now + lifetime)});
    const Bytes keyInfo = element(
        tag::sequence, {element(tag::sequence, {ecPublicKeyID, prime256v1ID}), bitString(publicKey)});
    const Bytes toBeSigned = element(
        tag::sequence, {version, serial(random), algorithm, nameOfBoth, validity, nameOfBoth, keyInfo});
    const auto signature = sign(toBeSigned);
    if (!signature) return signature;
    return element(tag::sequence, {toBeSigned, algorithm, bitString(*signature)});
}

Result<Bytes, NetError> SelfSignedCertificate::make(ByteView publicKey, const std::string& commonName,
    std::chrono::system_clock::time_point now, const Sign& sign)
{
    return make(publicKey, commonName, now, sign, PelorinTLS::randomBytes);
}

} // namespace pelorin
