#include "PelorinCore/Label.h"

#include <gtest/gtest.h>

namespace pelorin {
namespace {

TEST(Label, isOneBoundedLineThatNoTerminalListensTo)
{
    const std::string euros = [] {
        std::string text;
        while (text.size() < 150) text += "€";
        return text;
    }();
    const struct {
        std::string text;
        std::string label;
    } rows[] = {
        {"", ""},
        {"王小明的 iPhone 🙂", "王小明的 iPhone 🙂"},
        {"a\r\nb\tc\x1B[2Jd\x7F", "a  b c [2Jd "},
        {std::string("a\0b", 3), "a b"},
        {"C1 \xC2\x9B here", "C1   here"},
        {"turned \u202E around\u2066", "turned   around "},
        {"\xFFno \xE2\x82UTF-8\xF0", "\uFFFDno \uFFFD\uFFFDUTF-8\uFFFD"},
        {std::string(500, 'x'), std::string(120, 'x')},
        {euros, euros.substr(0, 120)},
        {"x" + euros, "x" + euros.substr(0, 117)},
    };
    for (const auto& [text, label] : rows) EXPECT_EQ(asLabel(text), label);
}

} // namespace
} // namespace pelorin
