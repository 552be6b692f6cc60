// Hostile texts for a deck. One that is read must be written so that it is read again as the same value.

#include "PelorinCore/AgentDeck/AgentDeckState.h"
#include "PelorinCore/Result.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace pelorin;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const auto dates : {DateCoding::secondsSince2001, DateCoding::secondsSince1970}) {
        const auto state = AgentDeckState::decode(text, dates);
        if (!state) continue;
        const auto again = AgentDeckState::decode(state->encode(dates), dates);
        // Dates of the far ends are coarser than a microsecond as a double, and long ones grow when indented.
        require(!again || again->tasks.size() == state->tasks.size(), "a deck survives its text");
        require(again || state->encode(dates).size() > AgentDeckState::maxSize, "and can be read");
    }
    return 0;
}
