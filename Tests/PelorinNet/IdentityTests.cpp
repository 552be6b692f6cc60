#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Channel/PelorinTLS.h"
#include "PelorinNet/Identity/Base32.h"
#include "PelorinNet/Identity/KeyFingerprint.h"
#include "PelorinNet/Identity/SoftwareIdentity.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

using namespace pelorin;
using namespace std::chrono_literals;
using lab::outputOf;
using testing::HasSubstr;

namespace {

const WallTime now = std::chrono::sys_days(std::chrono::year(2025) / 3 / 1) + 12h;

Bytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

std::string hexOf(ByteView bytes)
{
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string written(const lab::TemporaryFolder& folder, const char* name, ByteView bytes)
{
    const auto file = folder.path() / name;
    lab::write(file, std::string(bytes.begin(), bytes.end()));
    return file.string();
}

// The scalar 0 … 0 n.
SecretBytes smallScalar(std::uint8_t n)
{
    Bytes bytes(32);
    bytes.back() = n;
    return SecretBytes(std::move(bytes));
}

std::unique_ptr<SoftwareIdentity> load(const std::filesystem::path& file)
{
    return SoftwareIdentity::loadOrCreate(file, "Studio", now).value();
}

mode_t modeOf(const std::filesystem::path& file)
{
    struct stat status = {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0);
    return status.st_mode & 07777;
}

} // namespace

TEST(Base32, writesThePublishedVectorsInLowerCase)
{
    const std::pair<const char*, const char*> vectors[]
        = {{"", ""}, {"f", "my"}, {"fo", "mzxq"}, {"foo", "mzxw6"}, {"foob", "mzxw6yq"},
            {"fooba", "mzxw6ytb"}, {"foobar", "mzxw6ytboi"}, {"\xFF", "74"}};
    for (const auto& [bytes, text] : vectors) EXPECT_EQ(Base32::encode(bytesOf(bytes)), text);
    EXPECT_EQ(Base32::encode(Bytes(32)).size(), 52u);
}

TEST(SigningKey, derivesThePublishedPointsAndKnowsTheBordersOfTheCurve)
{
    // The base point and its double (SEC 2, and NIST's point multiples for P-256).
    const std::pair<std::uint8_t, const char*> multiples[]
        = {{1,
               "046b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296"
               "4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5"},
            {2,
                "047cf27b188d034f7e8a52380304b51ac3c08969e277f21b35a60b48fc47669978"
                "07775510db8ed040293d9ac69f7430dbba7dade63ce982299e04b79d227873d1"}};
    for (const auto& [scalar, point] : multiples)
        EXPECT_EQ(hexOf(SigningKey::fromScalar(smallScalar(scalar))->publicKey()), point);

    const Bytes order{0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
        0xBC, 0xE6, 0xFA, 0xAD, 0xA7, 0x17, 0x9E, 0x84, 0xF3, 0xB9, 0xCA, 0xC2, 0xFC, 0x63, 0x25, 0x51};
    Bytes largest = order;
    --largest.back();
    EXPECT_TRUE(SigningKey::fromScalar(SecretBytes(largest)));
    for (const Bytes& scalar : {order, Bytes(32), Bytes(32, 0xFF), Bytes(), Bytes(31, 1), Bytes(33, 1)})
        EXPECT_THAT(SigningKey::fromScalar(SecretBytes(scalar)).error().description,
            testing::StartsWith("cannot load the private key: "));
}

TEST(SigningKey, generatesKeysThatTheirXAloneNames)
{
    const Bytes half{0x7F, 0xFF, 0xFF, 0xFF, 0x80, 0, 0, 0, 0x80}; // of p, and a little more
    for (int i = 0; i < 30; ++i) {
        const auto key = SigningKey::generate().value();
        ASSERT_EQ(key.publicKey().size(), 65u);
        const ByteView y = ByteView(key.publicKey()).last(32);
        EXPECT_TRUE(std::ranges::lexicographical_compare(y, half)) << hexOf(y);
        EXPECT_EQ(SigningKey::fromScalar(key.scalar())->publicKey(), key.publicKey());
    }
}

TEST(SigningKey, signsWhatOpenSslVerifiesInBothForms)
{
    const lab::TemporaryFolder folder;
    const auto key = SigningKey::generate().value();
    // SubjectPublicKeyInfo: a fixed head for P-256, then the point.
    Bytes info{0x30, 0x59, 0x30, 0x13, 0x06, 0x07, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01, 0x06, 0x08, 0x2A,
        0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07, 0x03, 0x42, 0x00};
    info.insert(info.end(), key.publicKey().begin(), key.publicKey().end());
    const auto keyFile = written(folder, "key", info);
    const Bytes data = bytesOf("what is signed");
    const auto dataFile = written(folder, "data", data);
    const auto verify = [&](ByteView signature) {
        return outputOf({"openssl", "dgst", "-sha256", "-keyform", "DER", "-verify", keyFile, "-signature",
            written(folder, "signature", signature), dataFile});
    };
    Bytes signature = key.sign(data).value();
    EXPECT_EQ(verify(signature), "Verified OK\n");
    signature.back() ^= 1;
    EXPECT_THAT(verify(signature), HasSubstr("Verification failure"));

    Bytes raw;
    const auto isShort = [&] { return raw.at(0) == 0 || raw.at(32) == 0; };
    do raw = key.signRaw(data).value();
    while (raw.size() == 64 && !isShort()); // one number in 256 needs padding
    ASSERT_EQ(raw.size(), 64u);
    Bytes der{0x30, 0x00};
    for (const auto number : {ByteView(raw).first(32), ByteView(raw).last(32)}) {
        Bytes digits(std::ranges::find_if(number, [](auto byte) { return byte != 0; }), number.end());
        if (digits.front() & 0x80) digits.insert(digits.begin(), 0);
        der.insert(der.end(), {0x02, std::uint8_t(digits.size())});
        der.insert(der.end(), digits.begin(), digits.end());
    }
    der[1] = std::uint8_t(der.size() - 2);
    EXPECT_EQ(verify(der), "Verified OK\n");
}

TEST(SoftwareIdentity, keepsItsKeyInAFileForItsOwnerAndReturnsAsTheSame)
{
    const lab::TemporaryFolder folder;
    const auto file = folder.path() / "a/b" / SoftwareIdentity::fileName;
    const auto first = load(file);
    EXPECT_EQ(modeOf(file), 0600u);
    const auto stored = SoftwareIdentity::Stored::parse(lab::contentOf(file)).value();
    EXPECT_EQ(SigningKey::fromScalar(stored.privateKey)->publicKey(), first->publicKey());

    const auto again = load(file);
    EXPECT_EQ(again->publicKey(), first->publicKey());
    EXPECT_EQ(again->fingerprint(), KeyFingerprint::of(first->publicKey()));
    EXPECT_NE(again->secIdentity().certificate, first->secIdentity().certificate) << "a new serial";
    EXPECT_EQ(ByteView(again->secIdentity().privateKey.view()).size(), 97u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1)
        << "no temporary file stays";
}

TEST(SoftwareIdentity, readsAFileThatAnotherWriterMade)
{
    const lab::TemporaryFolder folder;
    const auto file = folder.path() / SoftwareIdentity::fileName;
    const std::string scalar = base64EncodedString(smallScalar(1).view());
    lab::write(file, "{\n \"color\" : [1, {}],\n \"privateKey\" : \"" + scalar + "\" }\n");
    EXPECT_EQ(load(file)->publicKey(), SigningKey::fromScalar(smallScalar(1))->publicKey());
    // Writers may escape the slash.
    const auto stored = SoftwareIdentity::Stored::parse(R"({"privateKey":"\/\/8="})");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->privateKey, SecretBytes(Bytes{0xFF, 0xFF}));
}

TEST(SoftwareIdentity, replacesADamagedFileSilently)
{
    const lab::TemporaryFolder folder;
    const auto file = folder.path() / SoftwareIdentity::fileName;
    const std::string whole = SoftwareIdentity::Stored{smallScalar(7)}.json();
    for (const std::string& damaged :
        {std::string(), std::string("{}"), std::string("null"), std::string("[\"privateKey\"]"),
            std::string(R"({"privateKey":1})"), std::string(R"({"privateKey":null})"),
            std::string(R"({"privateKey":"AQ=="})"), std::string(R"({"privateKey":"not base64"})"),
            SoftwareIdentity::Stored{smallScalar(0)}.json(), whole.substr(0, whole.size() - 1), whole + "x",
            std::string(100'000, '['), whole + std::string(100'000, ' '), std::string("\xFF\xFE")}) {
        lab::write(file, damaged);
        ::chmod(file.c_str(), 0644);
        const auto identity = load(file);
        EXPECT_NE(identity->publicKey(), SigningKey::fromScalar(smallScalar(7))->publicKey());
        EXPECT_EQ(modeOf(file), 0600u);
        EXPECT_EQ(load(file)->publicKey(), identity->publicKey());
    }
}

TEST(SoftwareIdentity, failsWhereItsKeyCannotBeKept)
{
    const lab::TemporaryFolder folder;
    lab::write(folder.path() / "file", "");
    const auto file = folder.path() / "file" / "below" / SoftwareIdentity::fileName;
    const auto identity = SoftwareIdentity::loadOrCreate(file, "Studio", now);
    ASSERT_FALSE(identity);
    EXPECT_THAT(identity.error().description, HasSubstr("host-identity.json"));

    const auto folderInItsPlace = folder.path() / "taken";
    std::filesystem::create_directories(folderInItsPlace / "by a folder");
    EXPECT_FALSE(SoftwareIdentity::loadOrCreate(folderInItsPlace, "Studio", now));
}

TEST(KeyFingerprint, isWhatOthersComputeFromTheCertificate)
{
    const lab::TemporaryFolder folder;
    const auto identity = load(folder.path() / SoftwareIdentity::fileName);
    const auto certificate = written(folder, "certificate", identity->secIdentity().certificate);
    const auto point = written(folder, "point", identity->publicKey());
    EXPECT_EQ(
        outputOf({"openssl", "dgst", "-sha256", "-r", point}).substr(0, 64), hexOf(identity->fingerprint()));
    // The point is the end of the key that openssl takes from the certificate.
    const auto pem = (folder.path() / "pem").string();
    outputOf({"openssl", "x509", "-in", certificate, "-noout", "-pubkey", "-out", pem});
    const auto der = (folder.path() / "der").string();
    outputOf({"openssl", "pkey", "-pubin", "-in", pem, "-outform", "DER", "-out", der});
    const std::string info = lab::contentOf(der);
    ASSERT_EQ(info.size(), 91u);
    EXPECT_EQ(bytesOf(info.substr(26)), identity->publicKey());

    const std::string hostID = KeyFingerprint::hostID(identity->publicKey());
    EXPECT_EQ(hostID, Base32::encode(ByteView(identity->fingerprint()).first(16)));
    EXPECT_THAT(hostID, testing::MatchesRegex("[a-z2-7]{26}"));
}

TEST(PelorinTLSKeys, areRandomAndNamedByPrefixAndSixteenDigits)
{
    const auto identity = PelorinTLS::randomIdentity(PelorinTLS::pairingPrefix);
    EXPECT_THAT(identity, testing::MatchesRegex("pair-[0-9a-f]{16}"));
    EXPECT_NE(PelorinTLS::randomIdentity(PelorinTLS::pairingPrefix), identity);
    const auto key = PelorinTLS::randomKey("dev-0123456789abcdef");
    EXPECT_EQ(key.secret.view().size(), 32u);
    EXPECT_NE(PelorinTLS::randomKey("dev-0123456789abcdef"), key);
}
