#include "PelorinHost/Session/MessageRules.h"

#include <algorithm>
#include <iterator>

namespace pelorin {
namespace {

using enum MessageRule;
using enum MessageType;

struct Row {
    MessageType type;
    MessageRule beforeHello;
    MessageRule pairing;
    MessageRule running;

    MessageRule in(SessionState state) const
    {
        if (state == SessionState::beforeHello) return beforeHello;
        return state == SessionState::pairing ? pairing : running;
    }
};

// clang-format off
constexpr Row rules[] = {
    {hello,                handle, refuse, fault},
    {pairRequest,          handle, handle, handle},
    {ping,                 ignore, ignore, handle},
    {bye,                  ignore, ignore, handle},
    {requestKeyframe,      ignore, ignore, handle},
    {setViewport,          ignore, ignore, handle},
    {setDisplay,           ignore, ignore, handle},
    {mouseMove,            ignore, ignore, handle},
    {mouseButton,          ignore, ignore, handle},
    {scroll,               ignore, ignore, handle},
    {key,                  ignore, ignore, handle},
    {text,                 ignore, ignore, handle},
    {clientReport,         ignore, ignore, handle},
    {setOptions,           ignore, ignore, handle},
    {pasteText,            ignore, ignore, handle},
    {liveActivityRegister, ignore, ignore, handle},
    // What only the host sends.
    {helloAck,             ignore, ignore, ignore},
    {pong,                 ignore, ignore, ignore},
    {MessageType::error,   ignore, ignore, ignore},
    {videoFormat,          ignore, ignore, ignore},
    {videoFrame,           ignore, ignore, ignore},
    {displayInfo,          ignore, ignore, ignore},
    {cursorPosition,       ignore, ignore, ignore},
    {cursorImage,          ignore, ignore, ignore},
    {pathInfo,             ignore, ignore, ignore},
    {displayList,          ignore, ignore, ignore},
    {clipboard,            ignore, ignore, ignore},
    {pairResult,           ignore, ignore, ignore},
    {liveActivityInfo,     ignore, ignore, ignore},
};
// clang-format on

} // namespace

MessageRule ruleFor(MessageType type, SessionState state)
{
    const auto row = std::ranges::find(rules, type, &Row::type);
    if (row == std::end(rules)) return ignore;
    return row->in(state);
}

} // namespace pelorin
