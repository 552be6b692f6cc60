#pragma once

#include "PelorinPhone/Pairing/PairedHost.h"

#include "PelorinCore/Result.h"

#include <filesystem>
#include <vector>

namespace pelorin {

// The hosts that this phone is paired with, in paired-hosts.json of a directory that only its owner may
// enter. Every call reads the file anew; changes hold a lock on the directory, since several programs may run
// at once. Errors are texts for people. A damaged file is left alone: its keys can't be had again.
class PairedHosts {
public:
    static constexpr const char* fileName = "paired-hosts.json";

    explicit PairedHosts(std::filesystem::path newDirectory) : directory(std::move(newDirectory)) {}

    Result<std::vector<PairedHost>, std::string> list() const;
    // text: a host's name in any case, or its address, DNS name or host id. Nobody and several are errors.
    Result<PairedHost, std::string> find(const std::string& text) const;
    Result<void, std::string> add(const PairedHost& host) const; // instead of an older pairing with it
    Result<PairedHost, std::string> forget(const std::string& text) const; // which it was

private:
    std::filesystem::path file() const { return directory / fileName; }
    Result<void, std::string> write(const std::vector<PairedHost>& hosts) const;

    std::filesystem::path directory;
};

} // namespace pelorin
