#include "PelorinCore/Wire/Message.h"

namespace pelorin {

MessageType typeOf(const Message& message)
{
    return std::visit([](const auto& alternative) { return alternative.type; }, message);
}

std::string_view nameOf(MessageType type)
{
    switch (type) {
    case MessageType::hello:
        return "hello";
    case MessageType::helloAck:
        return "helloAck";
    case MessageType::ping:
        return "ping";
    case MessageType::pong:
        return "pong";
    case MessageType::error:
        return "error";
    case MessageType::bye:
        return "bye";
    case MessageType::videoFormat:
        return "videoFormat";
    case MessageType::videoFrame:
        return "videoFrame";
    case MessageType::requestKeyframe:
        return "requestKeyframe";
    case MessageType::setViewport:
        return "setViewport";
    case MessageType::displayInfo:
        return "displayInfo";
    case MessageType::setDisplay:
        return "setDisplay";
    case MessageType::cursorPosition:
        return "cursorPosition";
    case MessageType::cursorImage:
        return "cursorImage";
    case MessageType::pathInfo:
        return "pathInfo";
    case MessageType::displayList:
        return "displayList";
    case MessageType::mouseMove:
        return "mouseMove";
    case MessageType::mouseButton:
        return "mouseButton";
    case MessageType::scroll:
        return "scroll";
    case MessageType::key:
        return "key";
    case MessageType::text:
        return "text";
    case MessageType::clientReport:
        return "clientReport";
    case MessageType::setOptions:
        return "setOptions";
    case MessageType::pasteText:
        return "pasteText";
    case MessageType::clipboard:
        return "clipboard";
    case MessageType::pairRequest:
        return "pairRequest";
    case MessageType::pairResult:
        return "pairResult";
    case MessageType::liveActivityRegister:
        return "liveActivityRegister";
    case MessageType::liveActivityInfo:
        return "liveActivityInfo";
    }
    return "unknown";
}

} // namespace pelorin
