// Hostile rollouts, line by line. Whatever was written, what the thread says of itself is short and clean.

#include "PelorinCore/Result.h"
#include "PelorinCore/Utf8.h"
#include "PelorinHost/Agents/CodexRecords.h"

#include <algorithm>
#include <cmath>

namespace pelorin {
namespace {

void checkLabel(const std::string& text)
{
    require(text.size() <= 120 && isUtf8(text) && text.find('\n') == text.npos, "a text for one line");
}

void check(std::string_view text)
{
    CodexThread thread;
    while (!text.empty()) {
        const auto end = std::min(text.find('\n'), text.size());
        const auto record = CodexRecord::parse(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (!record) continue;
        thread.apply(*record);
        checkLabel(record->type);
        const auto usage = record->usage.value_or(AgentUsage{});
        for (const auto& window : {usage.session, usage.weekly})
            require(!window || (std::isfinite(window->percent) && window->percent >= 0), "a share");
    }
    checkLabel(thread.prompt);
    checkLabel(thread.tool);
}

} // namespace
} // namespace pelorin

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    pelorin::check({reinterpret_cast<const char*>(data), size});
    return 0;
}
