// Messages of the program: always one line, never a control sequence.
#include "program/terminal/console.h"

#include <gtest/gtest.h>

#include <string>

namespace Tavrin::SplatProgram {
namespace {

TEST(Console, ControlCharactersAreShown) {
    EXPECT_EQ(printable("Straße 1"), "Straße 1");
    EXPECT_EQ(printable("a\nb\r\t\x1b[2J\x7f"), "a\\x0ab\\x0d\\x09\\x1b[2J\\x7f");
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a\\x00b");
}

TEST(Console, MessagesAreOneLineOnStandardError) {
    testing::internal::CaptureStderr();
    reportError("in\nput: no such file");
    reportWarning("bounds");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "plyconvert: error: in\\x0aput: no such file\n"
                                                      "plyconvert: warning: bounds\n");
}

} // namespace
} // namespace Tavrin::SplatProgram
