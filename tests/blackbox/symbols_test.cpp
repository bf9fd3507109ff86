// The shared object's face to the linker.

#include "tests/blackbox/blackbox.h"

#include <sstream>

namespace blackbox {
namespace {

using Symbols = BlackBox;

TEST_F(Symbols, PlyConvertIsTheOnlyOneThatIsExported) {
#if defined(_WIN32)
    GTEST_SKIP() << "nm -D reads ELF files; the test Dll.ExportsOneNameAndNeedsTheSystemAlone looks at the DLL";
#else
    const support::ProcessResult nm =
        support::runProcess({{"nm", "-D", "--defined-only", PLYCONVERT_LIBRARY}, {}, scratch.folder()});
    ASSERT_TRUE(nm.exited);
    ASSERT_EQ(nm.status, 0) << nm.errors;
    std::istringstream lines(nm.output);
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        names.insert(line.substr(line.rfind(' ') + 1));
    }
    EXPECT_THAT(names, testing::ElementsAre("plyConvert"));
#endif
}

} // namespace
} // namespace blackbox
