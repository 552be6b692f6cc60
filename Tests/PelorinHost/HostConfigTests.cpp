#include "PelorinHost/HostConfig.h"
#include "PelorinNet/Files/AtomicFile.h"
#include "Tests/Lab/Programs.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace pelorin {
namespace {

std::string nested(int depth)
{
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(HostConfig, readsEachKeyStrictlyByItsType)
{
    HostConfig defaults;
    HostConfig changed;
    const auto with = [&](auto change) {
        changed = HostConfig();
        change(changed);
        return std::optional(changed);
    };
    const std::optional<HostConfig> malformed;
    const struct {
        std::string json;
        std::optional<HostConfig> expected;
    } rows[] = {
        {"{}", defaults},
        {R"({"port": 7500})", with([](auto& c) { c.port = 7500; })},
        {R"({"port": 7500.0})", with([](auto& c) { c.port = 7500; })},
        {R"({"port": 65535})", with([](auto& c) { c.port = 65535; })},
        {R"({"port": "7500"})", malformed},
        {R"({"port": 70000})", malformed},
        {R"({"port": -1})", malformed},
        {R"({"port": 7420.5})", malformed},
        {R"({"port": true})", malformed},
        {R"({"port": null})", malformed},
        {R"({"port": 18446744073709551616})", malformed},
        {R"({"maxFrameRate": 9223372036854775808})", malformed},
        {R"({"maxFrameRate": 1e300})", malformed},
        {R"({"maxFrameRate": -5})", with([](auto& c) { c.maxFrameRate = -5; })},
        {R"({"preferHEVC": 0})", malformed},
        {R"({"preferHEVC": "false"})", malformed},
        {R"({"preferHEVC": false})", with([](auto& c) { c.preferHEVC = false; })},
        {R"({"bitrateMbps": 8})", with([](auto& c) { c.bitrateMbps = 8; })},
        {R"({"bitrateMbps": false})", malformed},
        {R"({"bitrateMbps": 1e300})", with([](auto& c) { c.bitrateMbps = 1e300; })},
        {R"({"bitrateMbps": 1e400})", malformed},
        {R"({"bitrateMbps": NaN})", malformed},
        {R"({"allowedNodeNames": ["a", "手机"]})", with([](auto& c) { c.allowedNodeNames = {"a", "手机"}; })},
        {R"({"allowedNodeNames": "a"})", malformed},
        {R"({"allowedNodeNames": ["a", 1]})", malformed},
        {R"({"allowedNodeNames": [)" + nested(100) + "]}", malformed},
        {R"({"liveActivity": {}})", defaults},
        {R"({"liveActivity": []})", malformed},
        {R"({"liveActivity": {"pollSeconds": 5, "other": {}}})",
            with([](auto& c) { c.liveActivity.pollSeconds = 5; })},
        {R"({"liveActivity": {"sandbox": 1}})", malformed},
        {R"({"unknown": )" + nested(200'000) + R"(, "port": 1})", with([](auto& c) { c.port = 1; })},
        {std::string(500'000, '['), malformed},
        {std::string(500'000, '{'), malformed},
        {R"({"port": 1} trailing)", malformed},
        {R"({"rendezvousURL": "\ud800"})", malformed},
        {"{\"rendezvousURL\": \"\xff\"}", malformed},
        {"[]", malformed},
        {"7420", malformed},
        {"", malformed},
    };
    for (const auto& [json, expected] : rows)
        EXPECT_EQ(HostConfig::decode(json), expected) << json.substr(0, 80);
}

TEST(HostConfig, writesWhatItReadsWithSortedIndentedKeys)
{
    HostConfig config;
    config.allowedLoginNames = {"someone@example.com"};
    config.maxFrameRate = 30;
    config.liveActivity.apnsKeyPath = "key \"1\".p8";
    EXPECT_EQ(HostConfig::decode(config.encode()), config);

    std::istringstream lines(config.encode());
    std::vector<std::string> keys[2]; // of the object itself, of the nested one
    for (std::string line; std::getline(lines, line);) {
        const auto quote = line.find('"');
        if (quote == 2 || (quote == 4 && line.find(':') != std::string::npos))
            keys[quote / 2 - 1].push_back(line.substr(quote, line.find('"', quote + 1) - quote));
    }
    EXPECT_EQ(keys[0].size(), 13u);
    EXPECT_EQ(keys[1].size(), 8u);
    EXPECT_TRUE(std::ranges::is_sorted(keys[0]));
    EXPECT_TRUE(std::ranges::is_sorted(keys[1]));
}

TEST(HostConfig, replacesOnlyFilesThatAreMissingOrMalformed)
{
    lab::TemporaryFolder temporary;
    const auto directory = temporary.path() / "not" / "there yet";
    const auto file = directory / "host.json";
    const auto content = [&] { return readWholeFile(file, 1 << 20).value_or("unreadable"); };
    const std::string complete = HostConfig().encode();

    EXPECT_EQ(HostConfig::load(directory), HostConfig());
    EXPECT_EQ(content(), complete);
    struct stat status = {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    for (const std::string& malformed : {std::string(R"({"port": "7500"})"), std::string(3 << 20, ' ')}) {
        std::ofstream(file) << malformed;
        EXPECT_EQ(HostConfig::load(directory), HostConfig());
        EXPECT_EQ(content(), complete);
    }
    const auto kept = directory / "host.json.malformed";
    EXPECT_EQ(readWholeFile(kept, 1 << 20), R"({"port": "7500"})") << "and not the three megabytes";
    ASSERT_EQ(::stat(kept.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u) << "it may say a pairing code";
    std::ofstream(file) << R"({"port": 7500})";
    EXPECT_EQ(HostConfig::load(directory).port, 7500);
    EXPECT_EQ(content(), R"({"port": 7500})");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 2)
        << "no temporary file is left";
}

TEST(HostConfig, runsOnWithDefaultsWhereNothingCanBeReadOrWritten)
{
    lab::TemporaryFolder temporary;
    std::ofstream(temporary.path() / "file") << "x";
    EXPECT_EQ(HostConfig::load(temporary.path() / "file" / "below"), HostConfig());

    std::filesystem::create_directory(temporary.path() / "host.json");
    EXPECT_EQ(HostConfig::load(temporary.path()), HostConfig());

    const auto other = temporary.path() / "other";
    std::filesystem::create_directory(other);
    ASSERT_EQ(::mkfifo((other / "host.json").c_str(), 0600), 0);
    EXPECT_EQ(HostConfig::load(other), HostConfig());
}

} // namespace
} // namespace pelorin
