#include "PelorinNet/Identity/SoftwareIdentity.h"

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Files/AtomicFile.h"
#include "PelorinNet/Identity/SelfSignedCertificate.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace pelorin {
namespace {

using nlohmann::json;
using Made = Result<std::unique_ptr<SoftwareIdentity>, NetError>;

constexpr std::size_t maxFileSize = 4096; // bytes; ours has 64
constexpr int maxDepth = 2; // of an object with a string; what lies deeper is not even kept

void wipe(std::string& text)
{
    SecretBytes::wipe({reinterpret_cast<std::uint8_t*>(text.data()), text.size()});
}

std::optional<SigningKey> load(const std::filesystem::path& file)
{
    auto content = readWholeFile(file, maxFileSize);
    if (!content) return std::nullopt;
    auto stored = SoftwareIdentity::Stored::parse(*content);
    wipe(*content);
    if (!stored) return std::nullopt;
    auto key = SigningKey::fromScalar(std::move(stored->privateKey));
    if (!key) return std::nullopt;
    return std::move(*key);
}

bool save(const std::filesystem::path& file, const SigningKey& key)
{
    std::string content = SoftwareIdentity::Stored{key.scalar()}.json();
    const bool isSaved = writeFileAtomically(file, content); // with mode 0600
    wipe(content);
    return isSaved;
}

} // namespace

std::string SoftwareIdentity::Stored::json() const
{
    std::string encoded = base64EncodedString(privateKey.view());
    std::string text;
    text.reserve(encoded.size() + 32); // no growth leaves a copy behind
    text.append(R"({"privateKey":")").append(encoded).append(R"("})");
    wipe(encoded);
    return text;
}

std::optional<SoftwareIdentity::Stored> SoftwareIdentity::Stored::parse(std::string_view text)
{
    const auto notTooDeep
        = [](int depth, json::parse_event_t, const ::nlohmann::json&) { return depth <= maxDepth; };
    auto parsed = json::parse(text, notTooDeep, false);
    if (!parsed.is_object() || !parsed.contains("privateKey")) return std::nullopt;
    auto* const encoded = parsed["privateKey"].get_ptr<std::string*>();
    if (!encoded) return std::nullopt;
    auto bytes = bytesFromBase64(*encoded);
    wipe(*encoded);
    if (!bytes) return std::nullopt;
    return Stored{SecretBytes(std::move(*bytes))};
}

Made SoftwareIdentity::create(SigningKey privateKey, const std::string& commonName, WallTime now)
{
    auto certificate = SelfSignedCertificate::make(privateKey.publicKey(), commonName, now,
        [&](ByteView toBeSigned) { return privateKey.sign(toBeSigned); });
    if (!certificate) return std::unexpected(std::move(certificate.error()));
    if (!privateKey.isKeyOf(*certificate)) return std::unexpected(NetError{"cannot build the TLS identity"});
    TLSIdentity identity{.certificate = std::move(*certificate), .privateKey = privateKey.x963()};
    return std::unique_ptr<SoftwareIdentity>(
        new SoftwareIdentity(std::move(privateKey), std::move(identity)));
}

Made SoftwareIdentity::loadOrCreate(
    const std::filesystem::path& file, const std::string& commonName, WallTime now)
{
    if (auto key = load(file)) return create(std::move(*key), commonName, now);

    auto key = SigningKey::generate();
    if (!key) return std::unexpected(std::move(key.error()));
    auto identity = create(*key, commonName, now);
    if (identity && !save(file, *key))
        return std::unexpected(NetError{fmt::format("cannot keep the device identity in {}", file.string())});
    return identity;
}

} // namespace pelorin
