// irframed(1) and `irframed --help` name the same options, and the page names every fault kind
// that --help offers: a new option cannot reach one and not the other.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

std::string HelpText() {
    std::string text;
    FILE* pipe = popen(IRFRAMED_PATH " --help", "r");
    if (pipe == nullptr) return text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, n);
    pclose(pipe);
    return text;
}

std::string ManPage() {
    const std::filesystem::path page =
        std::filesystem::path(IRFRAME_SOURCE_DIR) / "packaging/man/irframed.1.scd";
    std::ifstream in(page);
    return {std::istreambuf_iterator<char>(in), {}};
}

// The first group of each match of `name` in the lines that start with `start`.
std::set<std::string> Names(const std::string& text, const std::string& start,
                            const std::regex& name) {
    std::set<std::string> names;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(start, 0) != 0) continue;
        for (std::sregex_iterator it(line.begin(), line.end(), name), end; it != end; ++it) {
            names.insert((*it)[1].str());
        }
    }
    return names;
}

TEST(DriverManPage, NamesTheOptionsOfHelp) {
    const std::string help = HelpText();
    ASSERT_NE(help.find("Options:"), std::string::npos) << help;
    // The option column of --help ("  -n,--dry-run   Print ..."), the page's option headings
    // ("*-n*, *--dry-run*").
    const std::set<std::string> fromHelp = Names(help, "  -", std::regex(R"((?:^  |,)(-[^ ,]+))"));
    EXPECT_GT(fromHelp.size(), 20u);
    EXPECT_EQ(Names(ManPage(), "*-", std::regex(R"(\*(--?[A-Za-z][A-Za-z-]*)\*)")), fromHelp);
}

TEST(DriverManPage, NamesEveryFaultKind) {
    const std::string help = HelpText();
    const std::string page = ManPage();
    const std::regex kind(R"(\b([a-z]+):[C1](@K)?\b)");
    const size_t fault = help.find("--fault");
    ASSERT_NE(fault, std::string::npos);
    const std::string line = help.substr(fault, help.find('\n', fault) - fault);
    int kinds = 0;
    for (std::sregex_iterator it(line.begin(), line.end(), kind), end; it != end; ++it, ++kinds) {
        const std::string name = (*it)[1].str();
        EXPECT_TRUE(page.find("*" + name + ":") != std::string::npos) << name;
    }
    EXPECT_EQ(kinds, 6);
}

}  // namespace
