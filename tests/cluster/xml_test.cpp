// The configuration store: enumeration, capacities, bad input, precedence, reload, lifecycle.
#include "cluster_test_util.h"
#include "xml_helpers.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

using namespace clustertest;

namespace {

class XmlStore : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(dir.path().empty());
        setenv("QMT_CONF_DIR", dir.path().c_str(), 1);
    }
    void TearDown() override
    {
        xmllib_unload_config();
        for (const char *t : {"a", "b", "sdw"})
            xmllib_unload_policy(t);
        xmllib_term();
        unsetenv("QMT_CONF_DIR");
    }
    std::string conf() const { return dir.path() + "/clp.conf"; }
    std::string policy(const std::string &type) const { return dir.path() + "/policy/" + type + ".xml"; }
    void write_conf(const std::string &body) { write_file(conf(), "<root>" + body + "</root>\n"); }
    void load_conf(const std::string &body)
    {
        write_conf(body);
        ASSERT_EQ(xmllib_init("sdw"), 0);
        ASSERT_EQ(xmllib_load_config(1), 0);
    }
    // The return code of `call` and what it wrote to stderr.
    static std::pair<int, std::string> with_stderr(const std::function<int()> &call)
    {
        ::testing::internal::CaptureStderr();
        int rc = call();
        return {rc, ::testing::internal::GetCapturedStderr()};
    }

    TempDir dir;
};

// ---- enumeration ----

TEST_F(XmlStore, EnumerationListsNamedChildrenInDocumentOrderInWholeSlots)
{
    const struct {
        const char *what;
        std::string doc;
        const char *key;
        int size_rc, size;
        std::vector<std::string> names;
    } cases[] = {
        {"named ones, in order", "<sdw name='b'/><other name='x'/><sdw/><sdw name='a'/><sdw name=''/>",
         "/root/monitor/sdw", 0, 512, {"b", "a"}},
        {"a long name cut to its slot", "<sdw name='" + std::string(300, 'n') + "'/>", "/root/monitor/sdw", 0, 256,
         {std::string(255, 'n')}},
        {"no named entry", "<sdw/>", "/root/monitor/sdw", XMLLIB_ENUM_EMPTY, 0, {}},
        {"no parent", "<sdw name='a'/>", "/root/networkpartition/disknp", XMLLIB_ENUM_NO_PARENT, 0, {}},
    };
    ASSERT_EQ(xmllib_init("sdw"), 0);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        xmllib_unload_config();
        write_conf("<monitor>" + c.doc + "</monitor>");
        ASSERT_EQ(xmllib_load_config(1), 0);
        Names n = enum_names(c.key);
        EXPECT_EQ(n.size_rc, c.size_rc);
        EXPECT_EQ(n.size, c.size);
        EXPECT_EQ(n.fetch_rc, 0);
        EXPECT_EQ(n.names, c.names);
        EXPECT_TRUE(n.whole_slots);
    }
}

TEST_F(XmlStore, EnumerationIntoTooSmallBufferWritesNothing)
{
    load_conf("<monitor><sdw name='r1'/><sdw name='r2'/></monitor>");
    std::vector<char> buf(600, 'Z');
    int size = 511;
    EXPECT_EQ(xmllib_enum_value("/root/monitor/sdw", buf.data(), &size), XMLLIB_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, 512);
    EXPECT_EQ(buf, std::vector<char>(600, 'Z'));
}

// ---- capacities ----

TEST_F(XmlStore, ValuesFitExactlyOrFailWithTheSizeNeededAndNothingWritten)
{
    load_conf("<o>sd1</o><e></e><n>7</n>");
    const struct {
        const char *key;
        int kind, capacity, rc, size;
        std::string bytes;  // the whole 8-byte buffer afterwards, which starts as XXXXXXXX
    } cases[] = {
        {"/root/o", XMLLIB_KIND_TEXT, 3, XMLLIB_E_INSUFFICIENT_BUFFER, 4, "XXXXXXXX"},
        {"/root/o", XMLLIB_KIND_TEXT, 4, 0, 4, std::string("sd1\0XXXX", 8)},
        {"/root/e", XMLLIB_KIND_TEXT, 1, 0, 1, std::string("\0XXXXXXX", 8)},
        {"/root/n", XMLLIB_KIND_INT, 3, XMLLIB_E_INSUFFICIENT_BUFFER, 4, "XXXXXXXX"},
        {"/root/n", XMLLIB_KIND_INT, 4, 0, 4, std::string("\7\0\0\0XXXX", 8)},  // little-endian
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.key << " into " << c.capacity);
        char buf[8];
        std::memset(buf, 'X', sizeof buf);
        int size = c.capacity;
        EXPECT_EQ(xmllib_get_value(c.key, c.kind, buf, &size), c.rc);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(std::string(buf, sizeof buf), c.bytes);
    }
}

// ---- integers ----

TEST_F(XmlStore, IntegersAreWholeSigned32BitNumbers)
{
    load_conf("<a>2147483647</a><b>-2147483648</b><c>+7</c><d>\n  42\n</d><e>0</e>"
              "<x1>12a</x1><x2></x2><x3>1.5</x3><x4>0x10</x4><x5>-</x5><x6>4 2</x6>"
              "<o1>2147483648</o1><o2>-2147483649</o2><o3>99999999999999999999999</o3>");
    EXPECT_EQ(get_int("/root/a").value, 2147483647);
    EXPECT_EQ(get_int("/root/b").value, INT32_MIN);
    EXPECT_EQ(get_int("/root/c").value, 7);
    EXPECT_EQ(get_int("/root/d").value, 42);
    EXPECT_EQ(get_int("/root/e").value, 0);
    for (const char *k : {"/root/x1", "/root/x2", "/root/x3", "/root/x4", "/root/x5", "/root/x6"})
        EXPECT_EQ(get_int(k).rc, XMLLIB_E_BAD_DATA) << k;
    for (const char *k : {"/root/o1", "/root/o2", "/root/o3"})
        EXPECT_EQ(get_int(k).rc, XMLLIB_E_OVERFLOW) << k;
}

// ---- key paths ----

TEST_F(XmlStore, MalformedKeysAndKeysOver1023CharactersAreRefused)
{
    const std::string head = "/root/monitor/sdw@", name(1023 - head.size() - 2, 'k'), over = head + name + "k/t";
    load_conf("<monitor><sdw name='r'><t>1</t></sdw><sdw name='" + name + "'><t>5</t></sdw></monitor>");
    ASSERT_EQ((head + name + "/t").size(), 1023u);
    EXPECT_EQ(get_int(head + name + "/t").value, 5);
    for (const char *k : {"", "/", "root/monitor", "/monitor/sdw@r/t", "/rooty/monitor", "/root//monitor",
                          "/root/monitor/", "/root/monitor/sdw@/t", "/root/monitor/@r/t", "/root@x/monitor",
                          "//root/monitor", over.c_str()})
        EXPECT_EQ(get_int(k).rc, XMLLIB_E_INVALID_PARAMETER) << k;
    EXPECT_EQ(get_int("/root/monitor/sdw@r/t").value, 1);
    EXPECT_EQ(get_int("/root/monitor/sdw@q/t").rc, XMLLIB_E_NOT_FOUND);
    EXPECT_EQ(get_int("/root/monitor/nothing").rc, XMLLIB_E_NOT_FOUND);
    int v = 0, size = 4;
    EXPECT_EQ(xmllib_get_value("/root/monitor/sdw@r/t", 2, &v, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_get_value(nullptr, XMLLIB_KIND_INT, &v, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_get_value("/root/monitor/sdw@r/t", XMLLIB_KIND_INT, &v, nullptr),
              XMLLIB_E_INVALID_PARAMETER);
    // An enumeration names a kind of element below a parent, never one element.
    for (const char *k : {"/root/monitor/sdw@x", "/root", "/root/monitor/", "//root/monitor"})
        EXPECT_EQ(xmllib_enum_value(k, nullptr, &size), XMLLIB_E_INVALID_PARAMETER) << k;
    EXPECT_EQ(xmllib_enum_value(nullptr, nullptr, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_enum_value("/root/monitor/sdw", nullptr, nullptr), XMLLIB_E_INVALID_PARAMETER);
}

TEST_F(XmlStore, NamesAreMatchedLiterallyAndTheFirstOfTwinsAnswers)
{
    load_conf("<monitor>"
              "<sdw name=\"a'b\"><t>1</t></sdw>"
              "<sdw name='a&quot;b'><t>2</t></sdw>"
              "<sdw name='a]b'><t>3</t></sdw>"
              "<sdw name='a/b'><t>4</t></sdw>"
              "<sdw name='x@y'><t>5</t></sdw>"
              "<sdw name=\"') or ('1'='1\"><t>6</t></sdw>"
              "<sdw name='d'><t>7</t></sdw><sdw name='d'><t>8</t></sdw>"
              "</monitor>");
    EXPECT_EQ(get_int("/root/monitor/sdw@a'b/t").value, 1);
    EXPECT_EQ(get_int("/root/monitor/sdw@a\"b/t").value, 2);
    EXPECT_EQ(get_int("/root/monitor/sdw@a]b/t").value, 3);
    // A '/' always separates segments: that name is listed but cannot be addressed.
    EXPECT_EQ(get_int("/root/monitor/sdw@a/b/t").rc, XMLLIB_E_NOT_FOUND);
    EXPECT_EQ(get_int("/root/monitor/sdw@x@y/t").value, 5);
    EXPECT_EQ(get_int("/root/monitor/sdw@') or ('1'='1/t").value, 6);
    EXPECT_EQ(get_int("/root/monitor/sdw@a/t").rc, XMLLIB_E_NOT_FOUND);
    EXPECT_EQ(get_int("/root/monitor/sdw@d/t").value, 7);
    EXPECT_EQ(enum_names("/root/monitor/sdw").names,
              (std::vector<std::string>{"a'b", "a\"b", "a]b", "a/b", "x@y", "') or ('1'='1", "d", "d"}));
}

// ---- files ----

TEST_F(XmlStore, OnlyWellFormedRegularFilesOfBoundedSizeAreLoaded)
{
    // Each load runs in a child with an alarm: a FIFO that blocks the open, or a device that never
    // ends, would otherwise hang or exhaust this test.
    const std::string cannot_read = "qmtxml: cannot read " + conf() + ": ";
    const struct {
        const char *what;
        std::function<bool(const std::string &)> make;
        int rc;
        std::string err;
    } cases[] = {
        {"no file", [](const std::string &) { return true; }, XMLLIB_E_FILE_NOT_FOUND,
         "qmtxml: cannot open " + conf() + ": No such file or directory\n"},
        {"a malformed document",
         [](const std::string &p) { return write_file(p, "<root>\n  <a>1</a>\n  <b>2</c>\n</root>\n"), true; },
         XMLLIB_E_BAD_DATA, "qmtxml: " + conf() + ":3:9: Start-end tags mismatch\n"},
        {"a symbolic link to /dev/zero", [](const std::string &p) { return symlink("/dev/zero", p.c_str()) == 0; },
         XMLLIB_E_FILE_NOT_FOUND, cannot_read + "not a regular file\n"},
        {"a FIFO", [](const std::string &p) { return mkfifo(p.c_str(), 0600) == 0; }, XMLLIB_E_FILE_NOT_FOUND,
         cannot_read + "not a regular file\n"},
        {"a folder", [](const std::string &p) { return mkdir(p.c_str(), 0700) == 0; }, XMLLIB_E_FILE_NOT_FOUND,
         cannot_read + "not a regular file\n"},
        {"a file over 16 MiB",
         [](const std::string &p) { return write_file(p, "<root/>"), truncate(p.c_str(), (16 << 20) + 1) == 0; },
         XMLLIB_E_FILE_NOT_FOUND, cannot_read + "larger than 16 MiB\n"},
    };
    const std::string result = dir.path() + "/result";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(conf());
        ASSERT_TRUE(c.make(conf()));
        EXPECT_EQ(in_child([&] {
            auto [rc, err] = with_stderr([] { return xmllib_init("sdw") == 0 ? xmllib_load_config(1) : -1; });
            // Nothing was loaded: unloading finds nothing.
            write_file(result, std::to_string(rc) + " " + std::to_string(xmllib_unload_config()) + " " + err);
            return 0;
        }, 10), 0);
        std::stringstream got;
        got << std::ifstream(result).rdbuf();
        EXPECT_EQ(got.str(), std::to_string(c.rc) + " " + std::to_string(XMLLIB_E_NOT_READY) + " " + c.err);
    }
}

TEST_F(XmlStore, PolicyTypesAreFileNamesOnly)
{
    ASSERT_EQ(xmllib_init("sdw"), 0);
    for (const char *t : {"", "../clp", "a/b", ".hidden"})
        EXPECT_EQ(xmllib_load_policy(t), XMLLIB_E_INVALID_PARAMETER) << t;
    EXPECT_EQ(xmllib_load_policy(nullptr), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(with_stderr([] { return xmllib_load_policy("nosuch"); }),
              std::make_pair(XMLLIB_E_FILE_NOT_FOUND,
                             "qmtxml: cannot open " + policy("nosuch") + ": No such file or directory\n"));
    EXPECT_EQ(xmllib_unload_policy("nosuch"), XMLLIB_E_NOT_READY);
}

// ---- precedence ----

TEST_F(XmlStore, ConfigurationAnswersBeforePoliciesInLoadOrder)
{
    write_file(policy("a"), "<root><k>a</k><pa>only-a</pa><both>a</both></root>");
    write_file(policy("b"), "<root><k>b</k><pb>only-b</pb><both>b</both></root>");
    write_conf("<k>conf</k>");
    ASSERT_EQ(xmllib_init("sdw"), 0);
    ASSERT_EQ(xmllib_load_policy("a"), 0);
    ASSERT_EQ(xmllib_load_policy("b"), 0);
    ASSERT_EQ(xmllib_load_config(1), 0);
    EXPECT_EQ(get_text("/root/k").value, "conf");
    EXPECT_EQ(get_text("/root/both").value, "a");
    EXPECT_EQ(get_text("/root/pa").value, "only-a");
    EXPECT_EQ(get_text("/root/pb").value, "only-b");
    ASSERT_EQ(xmllib_unload_config(), 0);
    EXPECT_EQ(get_text("/root/k").value, "a");
    ASSERT_EQ(xmllib_unload_policy("a"), 0);
    EXPECT_EQ(get_text("/root/k").value, "b");
    EXPECT_EQ(get_text("/root/pa").rc, XMLLIB_E_NOT_FOUND);
}

// ---- reload ----

TEST_F(XmlStore, ReloadReadsOnlyAChangedFileAndKeepsTheLastGoodDocument)
{
    load_conf("<v>1</v>");
    const char *keep = "";      // leave the file as it is
    const char *remove = nullptr;
    const struct {
        const char *what;
        const char *file;
        time_t mtime;  // 0: as written
        int rc, v;
        std::string err;
    } steps[] = {
        {"the time moves: read again", keep, 1700000000, 0, 1, ""},
        {"same size, same time: not read", "<root><v>2</v></root>\n", 1700000000, 0, 1, ""},
        {"the time moves", keep, 1700000001, 0, 2, ""},
        {"the size changes, the time does not", "<root><v>33</v></root>\n", 1700000001, 0, 33, ""},
        {"malformed", "<root>\n<v>2</v>\n<oops>\n</root>\n", 0, XMLLIB_E_BAD_DATA, 33,
         "qmtxml: " + conf() + ":4:3: Start-end tags mismatch\n"
         "qmtxml: keeping the last good configuration from " + conf() + "\n"},
        {"gone", remove, 0, XMLLIB_E_FILE_NOT_FOUND, 33,
         "qmtxml: cannot stat " + conf() + ": No such file or directory (keeping the loaded configuration)\n"},
        {"back", "<root><v>3</v></root>\n", 0, 0, 3, ""},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.what);
        if (!s.file)
            std::filesystem::remove(conf());
        else if (*s.file)
            write_file(conf(), s.file);
        if (s.mtime) {
            struct timespec t[2] = {{s.mtime, 0}, {s.mtime, 0}};
            ASSERT_EQ(utimensat(AT_FDCWD, conf().c_str(), t, 0), 0);
        }
        EXPECT_EQ(with_stderr([] { return xmllib_reload_config(1); }), std::make_pair(s.rc, s.err));
        EXPECT_EQ(get_int("/root/v").value, s.v);
    }
}

// ---- lifecycle ----

TEST_F(XmlStore, EachStepNeedsTheOneBeforeAndHappensOnce)
{
    write_file(policy("sdw"), "<root><p>1</p></root>");
    write_conf("<c>1</c>");
    EXPECT_EQ(xmllib_term(), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_load_policy("sdw"), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_load_config(1), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_reload_config(1), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_unload_policy("sdw"), XMLLIB_E_NOT_READY);
    EXPECT_EQ(get_int("/root/p").rc, XMLLIB_E_NOT_READY);
    ASSERT_EQ(xmllib_init("sdw"), 0);
    EXPECT_EQ(xmllib_init("sdw"), XMLLIB_E_ALREADY_INITIALIZED);
    EXPECT_EQ(xmllib_init(nullptr), XMLLIB_E_INVALID_PARAMETER);
    ASSERT_EQ(xmllib_load_policy("sdw"), 0);
    EXPECT_EQ(xmllib_load_policy("sdw"), XMLLIB_E_ALREADY_EXISTS);
    // Releasing what is not loaded fails and changes nothing.
    EXPECT_EQ(xmllib_reload_config(1), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_unload_policy("rm"), XMLLIB_E_NOT_READY);
    EXPECT_EQ(get_int("/root/p").value, 1);
    EXPECT_EQ(xmllib_unload_policy("sdw"), 0);
    EXPECT_EQ(xmllib_unload_policy("sdw"), XMLLIB_E_NOT_READY);
    EXPECT_EQ(get_int("/root/p").rc, XMLLIB_E_NOT_READY);  // nothing loaded
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_E_INVALID_PARAMETER);
    ASSERT_EQ(xmllib_load_config(1), 0);
    EXPECT_EQ(xmllib_load_config(1), XMLLIB_E_ALREADY_EXISTS);
    EXPECT_EQ(xmllib_reload_config(0), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_reload_config(1), 0);
    ASSERT_EQ(xmllib_load_policy("sdw"), 0);
    // Term releases everything; a new cycle starts clean.
    ASSERT_EQ(xmllib_term(), 0);
    EXPECT_EQ(xmllib_term(), XMLLIB_E_NOT_READY);
    EXPECT_EQ(get_int("/root/c").rc, XMLLIB_E_NOT_READY);
    ASSERT_EQ(xmllib_init("sdw"), 0);
    ASSERT_EQ(xmllib_load_config(1), 0);
    EXPECT_EQ(get_int("/root/c").value, 1);
    EXPECT_EQ(get_int("/root/p").rc, XMLLIB_E_NOT_FOUND);
}

}  // namespace
