// libqmtlog exports the eight functions by name and nothing of its inside; qmtlog.def gives the
// same eight their ordinals for the Windows import library.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

namespace {

const std::map<std::string, int> kExports{
    {"QmtLogOpen", 1},         {"QmtLogClose", 2},          {"QmtLogWrite", 3},
    {"QmtLogSetSettings", 5},  {"QmtLoadStringTable", 6},   {"QmtUnloadStringTable", 7},
    {"QmtGetStatusText", 9},   {"QmtLogGetSettings", 12},
};

TEST(Exports, DefFileGivesEveryFunctionItsOrdinalWithoutName) {
    std::ifstream in(QMTLOG_DEF_FILE);
    ASSERT_TRUE(in.is_open());
    std::string line;
    ASSERT_TRUE(std::getline(in, line));
    EXPECT_EQ(line, "LIBRARY qmtlog.dll");
    ASSERT_TRUE(std::getline(in, line));
    EXPECT_EQ(line, "EXPORTS");
    std::map<std::string, int> found;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string name, ordinal, noname;
        words >> name >> ordinal >> noname;
        ASSERT_EQ(ordinal.substr(0, 1), "@") << line;
        EXPECT_EQ(noname, "NONAME") << line;
        found[name] = std::stoi(ordinal.substr(1));
    }
    EXPECT_EQ(found, kExports);
}

TEST(Exports, SharedLibraryExportsTheFunctionsByNameOnly) {
    void *lib = dlopen(QMTLOG_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    for (const auto &[name, ordinal] : kExports) EXPECT_NE(dlsym(lib, name.c_str()), nullptr) << name;
    // The status table and the line helpers stay inside.
    EXPECT_EQ(dlsym(lib, "_ZN6qmtlog11status_textEi"), nullptr);
    EXPECT_EQ(dlsym(lib, "_ZN6qmtlog9base_nameEPKc"), nullptr);
    dlclose(lib);
}

}  // namespace
