// Hostile state files, reports and lines of transcripts. What is understood is short, clean and stays the
// same on its way through the control socket.

#include "PelorinCore/Result.h"
#include "PelorinCore/Utf8.h"
#include "PelorinHost/Agents/ClaudeRecords.h"

#include <algorithm>

namespace pelorin {
namespace {

bool isLabel(const std::string& text)
{
    return text.size() <= 120 && isUtf8(text) && text.find('\n') == text.npos;
}

void check(std::string_view text)
{
    if (const auto session = ClaudeSession::parse(text)) {
        require(session->pid > 0, "a session has a process");
        require(isSessionID(session->sessionID), "and an identifier that can be part of a path");
        require(isLabel(session->name) && isLabel(session->waitingFor), "and texts for one line");
    }
    if (const auto title = ClaudeTitle::parse(text)) require(isLabel(title->text), "a title is one line");
    const auto report = ClaudeReport::parse(text);
    if (!report) return;
    const std::string encoded = report->encode();
    require(encoded.size() <= 2000, "a report fits the control socket");
    const auto again = ClaudeReport::parse(encoded);
    require(again.has_value() && again->sessionID == report->sessionID && again->event == report->event
            && again->tool == report->tool && again->isAboutPermission == report->isAboutPermission,
        "and says there what it said here");
}

} // namespace
} // namespace pelorin

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    pelorin::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
