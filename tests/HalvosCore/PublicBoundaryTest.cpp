// The public boundary as code outside the project sees it: the header as C, and the exported
// symbols of the shared library against the documented list.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <string>

extern "C" int publicHeaderWalkInC(void);

namespace {

TEST(PublicBoundaryTest, TheHeaderServesAPlainCProgram) {
    EXPECT_EQ(0, publicHeaderWalkInC());
}

std::set<std::string> documentedSymbols() {
    std::set<std::string> names;
    std::ifstream list(std::string(HV_SOURCE_DIR) + "/docs/symbols.txt");
    std::string line;
    while (std::getline(list, line))
        if (!line.empty() && line[0] != '#') names.insert(line);
    return names;
}

// Every defined dynamic symbol except the linker's and the sanitizers' own (leading underscore).
std::set<std::string> exportedSymbols(const std::string &library) {
    std::set<std::string> names;
    FILE *pipe = popen(("nm -D --defined-only --format=posix '" + library + "'").c_str(), "r");
    char name[1024];
    while (pipe && fscanf(pipe, "%1023s %*[^\n]", name) == 1) // "name type value size" lines
        if (name[0] != '_') names.insert(name);
    if (pipe) pclose(pipe);
    return names;
}

TEST(PublicBoundaryTest, ExportedSymbolsMatchTheDocumentedList) {
    std::set<std::string> documented = documentedSymbols();
    ASSERT_FALSE(documented.empty()) << "docs/symbols.txt is missing";
    std::set<std::string> exported =
        exportedSymbols(std::string(HV_BINARY_DIR) + "/HalvosCore/libHalvosCore.so");
    ASSERT_FALSE(exported.empty()) << "libHalvosCore.so not found or not readable";
    for (const std::string &name : exported)
        EXPECT_TRUE(documented.count(name)) << name << " is exported but not listed in docs/symbols.txt";
    for (const std::string &name : documented)
        EXPECT_TRUE(exported.count(name)) << name << " is listed but not exported";
}

} // namespace
