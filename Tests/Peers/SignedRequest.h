#pragma once

#include "PelorinCore/Pairing/Base64URL.h"
#include "PelorinNet/Identity/DeviceIdentity.h"
#include "PelorinNet/Identity/HmacSHA256.h"
#include "PelorinNet/Path/PathSetup.h"

#include <nlohmann/json.hpp>

namespace pelorin {

// A phone's requests to a host, put together here from the protocol's description and not by the code that
// reads them.
struct SignedRequest {
    const DeviceIdentity& phone;
    std::string hostID;
    std::int64_t timestamp = 0;
    std::string nonce = "bm9uY2UtbnVtYmVyLW9uZQ";
    PathDescription local{"aufrag12", "apasswordofchars24letter", {}};

    static std::string base64(const std::string& text)
    {
        return base64EncodedString(Bytes(text.begin(), text.end()));
    }
    nlohmann::json json() const
    {
        nlohmann::json candidates = nlohmann::json::array();
        std::string signedOnes;
        for (const Candidate& each : local.candidates) {
            candidates.push_back(each.json());
            signedOnes += (signedOnes.empty() ? "" : ",") + each.type + " " + each.address.text();
        }
        const std::string text = "pelorin-connect-v1|" + hostID + "|" + std::to_string(timestamp) + "|"
            + nonce + "|" + local.ufrag + "|" + local.password + "|" + signedOnes;
        const Bytes bytes(text.begin(), text.end());
        return {{"clientKeyHash", base64EncodedString(phone.fingerprint())}, {"timestamp", timestamp},
            {"nonce", nonce}, {"ufrag", local.ufrag}, {"password", local.password},
            {"signature", base64EncodedString(phone.sign(bytes).value())},
            {"candidates", std::move(candidates)}};
    }
    nlohmann::json pairing(ByteView code, const std::string& deviceName) const
    {
        const std::string proven = "pelorin-pair-v1|" + hostID + "|" + std::to_string(timestamp) + "|" + nonce
            + "|" + local.ufrag + "|" + base64EncodedString(phone.fingerprint());
        nlohmann::json request = json();
        request.erase("clientKeyHash");
        request["purpose"] = "pair";
        request["deviceName"] = deviceName;
        request["clientKey"] = base64EncodedString(phone.publicKey());
        request["proof"] = base64EncodedString(hmacSHA256(code, Bytes(proven.begin(), proven.end())));
        return request;
    }
};

} // namespace pelorin
