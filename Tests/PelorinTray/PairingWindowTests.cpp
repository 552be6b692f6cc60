#include "PelorinTray/PairingWindow.h"

#include <deque>
#include <gtest/gtest.h>
#include <QApplication>
#include <QClipboard>

namespace pelorin {
namespace {

using Stage = PairingWindow::Stage;

const QByteArray offer = R"({"link": "pelorin://pair?name=Studio", "expiresInSeconds": 300})";
const QByteArray noDevices = R"({"devices": []})";

QByteArray statusWith(const QByteArray& pending)
{
    return R"({"pairing": {"pending": )" + pending + "}}";
}

// The window, and the questions it waits for, answered by hand.
struct Pairing {
    struct Question {
        QByteArray request;
        ControlClient::Answer answer;
    };
    std::deque<Question> questions;
    PairingWindow window{
        Texts(Texts::Language::chinese), [this](const QByteArray& request, ControlClient::Answer answer) {
            questions.push_back({request, std::move(answer)});
        }};

    void answer(const QByteArray& command, const QByteArray& text)
    {
        ASSERT_FALSE(questions.empty());
        const Question question = std::move(questions.front());
        questions.pop_front();
        EXPECT_EQ(question.request, "{\"command\":\"" + command + "\"}");
        question.answer(text);
    }
    void begin(const QByteArray& reply = offer)
    {
        window.begin();
        answer("devices", R"({"devices": [{"id": "old", "name": "old"}]})");
        answer("pair", reply);
    }
    void look(const QByteArray& pending, const QByteArray& devices = noDevices)
    {
        window.look();
        answer("status", statusWith(pending));
        answer("devices", devices);
    }
    QString visibleTexts() const
    {
        QString text;
        for (const auto* label : window.findChildren<QLabel*>())
            if (label->isVisible()) text += label->text() + "\n";
        for (const auto* button : window.findChildren<QPushButton*>())
            if (button->isVisible()) text += button->text() + "\n";
        return text;
    }
};

TEST(PairingWindow, endsAsTheOfferDoes)
{
    const struct {
        const char* description;
        QByteArray pending, devices;
        Stage stage;
        const char* shown;
    } cases[] = {
        {"time passes", R"({"expiresInSeconds": 61})", noDevices, Stage::offered,
            "用 iPhone 相机或 Pelorin 扫码配对，1 分 01 秒内有效，只能用一次"},
        {"a phone came", "null", R"({"devices": [{"id": "old"}, {"id": "new", "name": "手机\n%1"}]})",
            Stage::paired, "「手机 %1」已配对"},
        {"with the standing code, the offer still open", R"({"expiresInSeconds": 9})",
            R"({"devices": [{"id": "new", "name": "x"}]})", Stage::paired, "「x」已配对"},
        {"nobody came", "null", noDevices, Stage::expired,
            "配对码已过期或已经用过。请点「重新生成」再扫一次"},
        {"begun anew elsewhere", R"({"expiresInSeconds": 299})", noDevices, Stage::expired, "重新生成"},
        {"the host is gone", "{}", "", Stage::expired, "重新生成"},
    };
    for (const auto& [description, pending, devices, stage, shown] : cases) {
        SCOPED_TRACE(description);
        Pairing pairing;
        pairing.begin();
        EXPECT_EQ(pairing.window.stage(), Stage::offered);
        pairing.look(R"({"expiresInSeconds": 120})");
        pairing.look(pending, devices);
        EXPECT_EQ(pairing.window.stage(), stage);
        EXPECT_TRUE(pairing.visibleTexts().contains(shown)) << pairing.visibleTexts().toStdString();
        const auto* link = pairing.window.findChild<QLineEdit*>();
        EXPECT_EQ(link->text().isEmpty(), stage != Stage::offered);
        EXPECT_TRUE(pairing.window.isVisible());
    }
}

TEST(PairingWindow, ignoresAnswersAboutAnEarlierOffer)
{
    Pairing pairing;
    pairing.begin();
    pairing.window.look();
    pairing.window.begin();
    pairing.answer("status", statusWith("null"));
    pairing.answer("devices", noDevices); // of the new offer, asked for first
    pairing.answer("devices", R"({"devices": [{"id": "new"}]})"); // of the old look
    EXPECT_EQ(pairing.window.stage(), Stage::asking);
    pairing.answer("pair", offer);
    EXPECT_EQ(pairing.window.stage(), Stage::offered);
    pairing.window.look();
    pairing.window.hide();
    pairing.answer("status", statusWith("null"));
    pairing.answer("devices", noDevices);
    EXPECT_FALSE(pairing.window.isVisible()) << "it was closed";
}

TEST(PairingWindow, tellsOfRefusalsAndReviewAndNamesItsParts)
{
    Pairing pairing;
    pairing.begin(R"({"error": "没法配对\nCannot pair"})");
    EXPECT_EQ(pairing.window.stage(), Stage::refused);
    EXPECT_TRUE(pairing.visibleTexts().contains("没法配对\n"));
    EXPECT_FALSE(pairing.visibleTexts().contains("Cannot"));
    pairing.begin(
        R"({"link": "pelorin://pair?a", "expiresInSeconds": 300, "reviewText": "x", "reviewLink": "pelorin://r"})");
    EXPECT_TRUE(pairing.visibleTexts().contains("审核模式：配对链接长期有效，只用于演示 Mac\n"));
    for (auto* button : pairing.window.findChildren<QPushButton*>()) {
        EXPECT_FALSE(button->text().isEmpty());
        if (button->isVisible() && button->text() == "复制审核用配对链接") button->click();
    }
    EXPECT_EQ(QApplication::clipboard()->text(), "pelorin://r");
    EXPECT_TRUE(pairing.visibleTexts().contains("已复制审核用配对链接"));
    EXPECT_FALSE(pairing.window.findChild<QLineEdit*>()->accessibleName().isEmpty());
    bool hasCode = false;
    for (const auto* label : pairing.window.findChildren<QLabel*>())
        hasCode |= !label->pixmap(Qt::ReturnByValue).isNull() && label->accessibleName() == "配对二维码";
    EXPECT_TRUE(hasCode);
    EXPECT_TRUE(qrImage(QString(4000, 'x'), 2).isNull()) << "more than a code can hold";
}

} // namespace
} // namespace pelorin
