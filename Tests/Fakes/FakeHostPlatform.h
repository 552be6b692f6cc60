#pragma once

#include "PelorinHost/Platform/HostPlatform.h"
#include "Tests/Fakes/FakeCompression.h"
#include "Tests/Fakes/FakeDisplayBounds.h"
#include "Tests/Fakes/FakeDisplayCapture.h"
#include "Tests/Fakes/FakeDisplays.h"
#include "Tests/Fakes/FakePasteboard.h"
#include "Tests/Fakes/FakePermissions.h"
#include "Tests/Fakes/FakePower.h"
#include "Tests/Fakes/FakeScreenLock.h"
#include "Tests/Fakes/FakeSystem.h"
#include "Tests/Fakes/RecordingEventPosting.h"

namespace pelorin::fakes {

// All ports at once. What sessions did stays readable after their end.
class FakeHostPlatform final : public HostPlatform {
public:
    FakeDisplayCapture capture;
    FakeDisplayBounds bounds;
    FakeDisplays arrangement;
    FakeCompression encoders;
    FakePower powerPort;
    FakePermissions permissionsPort;
    FakeSystem systemPort{"fake"};
    RecordingEventPosting events;
    FakePasteboard clipboard;
    FakeScreenLock screenLock;
    std::optional<Point> cursorPosition = Point{100, 50};
    std::uint64_t cursorFingerprint = 1;
    int cursorQuestions = 0;

    FakeHostPlatform() { bounds.displays = {{7, {0, 0, 1920, 1080}}}; }

    DisplayCapture& displayCapture() override { return capture; }
    DisplayBounds& displayBounds() override { return bounds; }
    Displays& displays() override { return arrangement; }
    Compression& compression() override { return encoders; }
    Power& power() override { return powerPort; }
    Permissions& permissions() override { return permissionsPort; }
    System& system() override { return systemPort; }
    void letGoAfterEarlierHost() override {}
    std::unique_ptr<EventPosting> makeEventPosting(QueueRef) override
    {
        return std::make_unique<Posting>(events);
    }
    std::unique_ptr<Pasteboard> makePasteboard(QueueRef) override
    {
        return std::make_unique<Clipboard>(clipboard);
    }
    std::unique_ptr<CursorSource> makeCursorSource() override { return std::make_unique<Cursor>(*this); }
    std::unique_ptr<ScreenLock> makeScreenLock(QueueRef) override
    {
        return std::make_unique<Lock>(screenLock);
    }

private:
    struct Posting final : EventPosting {
        explicit Posting(EventPosting& newRecord) : record(newRecord) {}
        void postPointer(PointerEventType type, Point target, int dx, int dy) override
        {
            record.postPointer(type, target, dx, dy);
        }
        void postButton(MouseButton button, bool isDown, Point at, int clicks) override
        {
            record.postButton(button, isDown, at, clicks);
        }
        void postScroll(int x, int y, ScrollPhase phase, MomentumPhase momentum) override
        {
            record.postScroll(x, y, phase, momentum);
        }
        void postKey(std::uint16_t code, bool isDown, KeyModifiers flags, bool isModifier) override
        {
            record.postKey(code, isDown, flags, isModifier);
        }
        void postUnicode(const std::u16string& text) override { record.postUnicode(text); }
        std::optional<Point> cursorLocation() override { return record.cursorLocation(); }
        EventPosting& record;
    };
    struct Clipboard final : Pasteboard {
        explicit Clipboard(Pasteboard& newRecord) : record(newRecord) {}
        bool setText(const std::string& text) override { return record.setText(text); }
        int changeCount() override { return record.changeCount(); }
        void readText(std::size_t mostBytes, std::function<bool(const Types&)> wants,
            std::function<void(std::optional<std::string>)> done) override
        {
            record.readText(mostBytes, std::move(wants), std::move(done));
        }
        Pasteboard& record;
    };
    struct Lock final : ScreenLock {
        explicit Lock(ScreenLock& newRecord) : record(newRecord) {}
        void lock(std::function<void(LockedBy)> done) override { record.lock(std::move(done)); }
        ScreenLock& record;
    };
    struct Cursor final : CursorSource {
        explicit Cursor(FakeHostPlatform& newPlatform) : platform(newPlatform) {}
        std::optional<Point> position() override
        {
            ++platform.cursorQuestions;
            return platform.cursorPosition;
        }
        std::optional<std::uint64_t> shapeFingerprint() override { return platform.cursorFingerprint; }
        std::optional<Shape> shape() override { return Shape{16, 24, 1, 2, Bytes{1, 2, 3}}; }
        FakeHostPlatform& platform;
    };
};

} // namespace pelorin::fakes
