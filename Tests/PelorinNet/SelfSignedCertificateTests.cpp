#include "PelorinNet/Identity/SelfSignedCertificate.h"
#include "PelorinNet/Identity/SigningKey.h"
#include "Tests/Lab/Files.h"
#include "Tests/Lab/Process.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

using namespace pelorin;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

const std::chrono::system_clock::time_point now
    = std::chrono::sys_days(std::chrono::year(2025) / 3 / 1) + 12h + 34min + 56s;

class Certificates : public testing::Test {
protected:
    Bytes make(const std::string& commonName, const Bytes& random = Bytes(8, 0x11))
    {
        return SelfSignedCertificate::make(
            key.publicKey(), commonName, now, [&](ByteView data) { return key.sign(data); },
            [&](std::size_t count) {
                EXPECT_EQ(count, random.size());
                return random;
            })
            .value();
    }
    std::string keep(const Bytes& certificate)
    {
        const auto file = folder.path() / "certificate.der";
        lab::write(file, std::string(certificate.begin(), certificate.end()));
        return file.string();
    }
    std::string openssl(const Bytes& certificate, std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"openssl", "x509", "-inform", "DER", "-in", keep(certificate)});
        return lab::outputOf(arguments);
    }

    const SigningKey key = SigningKey::generate().value();
    const lab::TemporaryFolder folder;
};

TEST_F(Certificates, readAsTheyWereMeantByOpenssl)
{
    const std::string text = openssl(make("Studio 书房"), {"-noout", "-text", "-nameopt", "utf8,-esc_msb"});
    for (const auto* line : {"Version: 3 (0x2)", "Serial Number: 1229782938247303441 (0x1111111111111111)",
             "Signature Algorithm: ecdsa-with-SHA256", "Issuer: CN=Studio 书房", "Subject: CN=Studio 书房",
             "Not Before: Feb 28 12:34:56 2025 GMT", "Not After : Feb 24 12:34:56 2045 GMT",
             "Public Key Algorithm: id-ecPublicKey", "ASN1 OID: prime256v1"})
        EXPECT_THAT(text, HasSubstr(line));
    EXPECT_THAT(text, testing::Not(HasSubstr("extensions")));
}

TEST_F(Certificates, verifyAndAreWrittenAgainByteForByte)
{
    const Bytes certificate = make("Studio");
    const auto pem = (folder.path() / "certificate.pem").string();
    openssl(certificate, {"-out", pem});
    // The dates are checked at a fixed time, so that the test outlives them.
    EXPECT_THAT(
        lab::outputOf({"openssl", "verify", "-attime", "1740900000", "-check_ss_sig", "-CAfile", pem, pem}),
        HasSubstr(": OK"));

    const auto again = (folder.path() / "again.der").string();
    lab::outputOf(
        {"certtool", "-i", "--inder", "--infile", keep(certificate), "--outder", "--outfile", again});
    EXPECT_EQ(lab::contentOf(again), std::string(certificate.begin(), certificate.end()));
}

TEST_F(Certificates, carryNamesOfEveryLength)
{
    // Where the length of the name, of what holds it and of the whole change their form.
    for (const std::size_t size : {0, 1, 64, 105, 111, 116, 117, 118, 127, 128, 200, 255, 256, 300, 70'000}) {
        const std::string name(size, 'n');
        const Bytes certificate = make(name);
        const std::string subject = openssl(certificate, {"-noout", "-subject", "-nameopt", "utf8"});
        EXPECT_EQ(subject, size == 0 ? "subject=CN=\n" : "subject=CN=" + name + "\n") << size;
        const auto again = (folder.path() / "again.der").string();
        openssl(certificate, {"-outform", "DER", "-out", again});
        ASSERT_EQ(lab::contentOf(again), std::string(certificate.begin(), certificate.end())) << size;
    }
}

TEST_F(Certificates, haveAPositiveSerialInItsShortestForm)
{
    const struct {
        Bytes random;
        const char* serial;
        Bytes element;
    } serials[] = {
        {Bytes(8, 0xFF), "7FFFFFFFFFFFFFFF", {2, 8, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
        {{0, 0, 1, 2, 3, 4, 5, 6}, "010203040506", {2, 6, 1, 2, 3, 4, 5, 6}},
        {{0, 0x80, 1, 2, 3, 4, 5, 6}, "80010203040506", {2, 8, 0, 0x80, 1, 2, 3, 4, 5, 6}},
        {{0x80, 0, 0, 0, 0, 0, 0, 0x7F}, "7F", {2, 1, 0x7F}},
        {Bytes(8), "00", {2, 1, 0}},
    };
    for (const auto& [random, serial, element] : serials) {
        const Bytes certificate = make("Studio", random);
        EXPECT_EQ(openssl(certificate, {"-noout", "-serial"}), fmt::format("serial={}\n", serial));
        Bytes expected{0xA0, 3, 2, 1, 2}; // the version, which stands before it
        expected.insert(expected.end(), element.begin(), element.end());
        EXPECT_FALSE(std::ranges::search(certificate, expected).empty()) << serial;
    }
}

TEST_F(Certificates, failWithWhatSigningFailsWith)
{
    const auto certificate = SelfSignedCertificate::make(key.publicKey(), "Studio", now,
        [](ByteView) -> Result<Bytes, NetError> { return std::unexpected(NetError{"no key here"}); });
    ASSERT_FALSE(certificate);
    EXPECT_EQ(certificate.error().description, "no key here");
}

} // namespace
