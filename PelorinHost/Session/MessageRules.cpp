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
    MessageRule running;
};

// clang-format off
constexpr Row rules[] = {
    {hello,                handle, fault},
    {pairRequest,          handle, handle},
    {ping,                 ignore, handle},
    {bye,                  ignore, handle},
    {requestKeyframe,      ignore, handle},
    {setViewport,          ignore, handle},
    {setDisplay,           ignore, handle},
    {mouseMove,            ignore, handle},
    {mouseButton,          ignore, handle},
    {scroll,               ignore, handle},
    {key,                  ignore, handle},
    {text,                 ignore, handle},
    {clientReport,         ignore, handle},
    {setOptions,           ignore, handle},
    {pasteText,            ignore, handle},
    {liveActivityRegister, ignore, handle},
    // What only the host sends.
    {helloAck,             ignore, ignore},
    {pong,                 ignore, ignore},
    {MessageType::error,   ignore, ignore},
    {videoFormat,          ignore, ignore},
    {videoFrame,           ignore, ignore},
    {displayInfo,          ignore, ignore},
    {cursorPosition,       ignore, ignore},
    {cursorImage,          ignore, ignore},
    {pathInfo,             ignore, ignore},
    {displayList,          ignore, ignore},
    {clipboard,            ignore, ignore},
    {pairResult,           ignore, ignore},
    {liveActivityInfo,     ignore, ignore},
};
// clang-format on

} // namespace

MessageRule ruleFor(MessageType type, SessionState state)
{
    const auto row = std::ranges::find(rules, type, &Row::type);
    if (row == std::end(rules)) return ignore;
    return state == SessionState::running ? row->running : row->beforeHello;
}

} // namespace pelorin
