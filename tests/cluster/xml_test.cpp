// The configuration store: enumeration, capacities, bad input, precedence, reload, lifecycle.
#include "cluster_test_util.h"
#include "xml_helpers.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>

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

    TempDir dir;
};

// ---- enumeration ----

TEST_F(XmlStore, EnumerationListsNamedChildrenInDocumentOrder)
{
    load_conf("<monitor><sdw name='b'/><other name='x'/><sdw/><sdw name='a'/><sdw name=''/></monitor>");
    Names n = enum_names("/root/monitor/sdw");
    EXPECT_EQ(n.size_rc, 0);
    EXPECT_EQ(n.size, 512);
    EXPECT_EQ(n.fetch_rc, 0);
    EXPECT_EQ(n.names, (std::vector<std::string>{"b", "a"}));
}

TEST_F(XmlStore, EnumerationFillsWholeSlots)
{
    load_conf("<monitor><sdw name='r1'/><sdw name='r2'/></monitor>");
    std::vector<char> buf(512, 'Z');
    int size = 512;
    ASSERT_EQ(xmllib_enum_value("/root/monitor/sdw", buf.data(), &size), 0);
    EXPECT_EQ(size, 512);
    EXPECT_STREQ(buf.data(), "r1");
    EXPECT_STREQ(buf.data() + 256, "r2");
    for (int i = 2; i < 256; ++i)
        ASSERT_EQ(buf[static_cast<size_t>(i)], '\0') << i;
}

TEST_F(XmlStore, EnumerationIntoTooSmallBufferWritesNothing)
{
    load_conf("<monitor><sdw name='r1'/><sdw name='r2'/></monitor>");
    std::vector<char> buf(600, 'Z');
    int size = 511;
    EXPECT_EQ(xmllib_enum_value("/root/monitor/sdw", buf.data(), &size), XMLLIB_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, 512);
    for (char c : buf)
        ASSERT_EQ(c, 'Z');
}

TEST_F(XmlStore, EnumerationWithoutEntriesOrParentIsAnEmptySuccess)
{
    load_conf("<monitor><sdw/></monitor>");
    Names empty = enum_names("/root/monitor/sdw");
    EXPECT_EQ(empty.size_rc, XMLLIB_ENUM_EMPTY);
    EXPECT_EQ(empty.size, 0);
    EXPECT_EQ(empty.fetch_rc, 0);
    EXPECT_TRUE(empty.names.empty());
    Names none = enum_names("/root/networkpartition/disknp");
    EXPECT_EQ(none.size_rc, XMLLIB_ENUM_NO_PARENT);
    EXPECT_EQ(none.size, 0);
}

TEST_F(XmlStore, DuplicateNamesAreBothListedAndTheFirstAnswers)
{
    load_conf("<monitor><sdw name='d'><t>1</t></sdw><sdw name='d'><t>2</t></sdw></monitor>");
    EXPECT_EQ(enum_names("/root/monitor/sdw").names, (std::vector<std::string>{"d", "d"}));
    EXPECT_EQ(get_int("/root/monitor/sdw@d/t").value, 1);
}

TEST_F(XmlStore, LongNamesAreCutToTheirSlot)
{
    std::string longname(300, 'n');
    load_conf("<monitor><sdw name='" + longname + "'/></monitor>");
    Names n = enum_names("/root/monitor/sdw");
    ASSERT_EQ(n.names.size(), 1u);
    EXPECT_EQ(n.names[0], std::string(255, 'n'));
}

TEST_F(XmlStore, EnumerationKeyMustNameAKind)
{
    load_conf("<monitor/>");
    int size = 0;
    EXPECT_EQ(xmllib_enum_value("/root/monitor/sdw@x", nullptr, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_enum_value("/root", nullptr, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_enum_value("/root/monitor/", nullptr, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_enum_value(nullptr, nullptr, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_enum_value("/root/monitor/sdw", nullptr, nullptr), XMLLIB_E_INVALID_PARAMETER);
}

// ---- capacities ----

TEST_F(XmlStore, TextFitsExactlyOrFailsWithoutWriting)
{
    load_conf("<o>sd1</o><e></e><guid>6f1c2d3e-0000-4000-8000-000000000001</guid>");
    char buf[8];
    std::memset(buf, 'X', sizeof buf);
    int size = 4;
    ASSERT_EQ(xmllib_get_value("/root/o", XMLLIB_KIND_TEXT, buf, &size), 0);
    EXPECT_STREQ(buf, "sd1");
    EXPECT_EQ(size, 4);
    EXPECT_EQ(buf[4], 'X');

    std::memset(buf, 'X', sizeof buf);
    size = 3;
    EXPECT_EQ(xmllib_get_value("/root/o", XMLLIB_KIND_TEXT, buf, &size), XMLLIB_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, 4);
    for (char c : buf)
        ASSERT_EQ(c, 'X');

    size = 1;
    ASSERT_EQ(xmllib_get_value("/root/e", XMLLIB_KIND_TEXT, buf, &size), 0);
    EXPECT_EQ(buf[0], '\0');
    Text g = get_text("/root/guid", 63);
    EXPECT_EQ(g.rc, 0);
    EXPECT_EQ(g.value, "6f1c2d3e-0000-4000-8000-000000000001");
    EXPECT_EQ(get_text("/root/guid", 36).rc, XMLLIB_E_INSUFFICIENT_BUFFER);
}

TEST_F(XmlStore, IntegerNeedsFourBytes)
{
    load_conf("<n>7</n>");
    int32_t v = -1;
    int size = 3;
    EXPECT_EQ(xmllib_get_value("/root/n", XMLLIB_KIND_INT, &v, &size), XMLLIB_E_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, 4);
    EXPECT_EQ(v, -1);
    size = 4;
    EXPECT_EQ(xmllib_get_value("/root/n", XMLLIB_KIND_INT, &v, &size), 0);
    EXPECT_EQ(v, 7);
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
    EXPECT_EQ(get_int("/root/e").rc, 0);
    for (const char *k : {"/root/x1", "/root/x2", "/root/x3", "/root/x4", "/root/x5", "/root/x6"})
        EXPECT_EQ(get_int(k).rc, XMLLIB_E_BAD_DATA) << k;
    for (const char *k : {"/root/o1", "/root/o2", "/root/o3"})
        EXPECT_EQ(get_int(k).rc, XMLLIB_E_OVERFLOW) << k;
}

// ---- key paths ----

TEST_F(XmlStore, MalformedKeysAreRefused)
{
    load_conf("<monitor><sdw name='r'><t>1</t></sdw></monitor>");
    for (const char *k : {"", "/", "root/monitor", "/monitor/sdw@r/t", "/rooty/monitor", "/root//monitor",
                          "/root/monitor/", "/root/monitor/sdw@/t", "/root/monitor/@r/t", "/root@x/monitor",
                          "//root/monitor"}) {
        EXPECT_EQ(get_int(k).rc, XMLLIB_E_INVALID_PARAMETER) << k;
    }
    EXPECT_EQ(get_int("/root/monitor/sdw@r/t").value, 1);
    EXPECT_EQ(get_int("/root/monitor/sdw@q/t").rc, XMLLIB_E_NOT_FOUND);
    EXPECT_EQ(get_int("/root/monitor/nothing").rc, XMLLIB_E_NOT_FOUND);
    int v = 0, size = 4;
    EXPECT_EQ(xmllib_get_value("/root/monitor/sdw@r/t", 2, &v, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_get_value(nullptr, XMLLIB_KIND_INT, &v, &size), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_get_value("/root/monitor/sdw@r/t", XMLLIB_KIND_INT, &v, nullptr),
              XMLLIB_E_INVALID_PARAMETER);
}

TEST_F(XmlStore, KeysUpTo1023CharactersAreAccepted)
{
    const std::string head = "/root/monitor/sdw@";
    const std::string tail = "/t";
    std::string name(1023 - head.size() - tail.size(), 'k');
    load_conf("<monitor><sdw name='" + name + "'><t>5</t></sdw></monitor>");
    std::string key = head + name + tail;
    ASSERT_EQ(key.size(), 1023u);
    EXPECT_EQ(get_int(key).rc, 0);
    EXPECT_EQ(get_int(key).value, 5);
    std::string longer = head + name + "k" + tail;
    EXPECT_EQ(get_int(longer).rc, XMLLIB_E_INVALID_PARAMETER);
}

TEST_F(XmlStore, NamesWithQuotesBracketsAndAtSignsAreMatchedLiterally)
{
    load_conf("<monitor>"
              "<sdw name=\"a'b\"><t>1</t></sdw>"
              "<sdw name='a&quot;b'><t>2</t></sdw>"
              "<sdw name='a]b'><t>3</t></sdw>"
              "<sdw name='a/b'><t>4</t></sdw>"
              "<sdw name='x@y'><t>5</t></sdw>"
              "<sdw name=\"') or ('1'='1\"><t>6</t></sdw>"
              "</monitor>");
    EXPECT_EQ(get_int("/root/monitor/sdw@a'b/t").value, 1);
    EXPECT_EQ(get_int("/root/monitor/sdw@a\"b/t").value, 2);
    EXPECT_EQ(get_int("/root/monitor/sdw@a]b/t").value, 3);
    // A '/' always separates segments: that name is listed but cannot be addressed.
    EXPECT_EQ(get_int("/root/monitor/sdw@a/b/t").rc, XMLLIB_E_NOT_FOUND);
    EXPECT_EQ(get_int("/root/monitor/sdw@x@y/t").value, 5);
    EXPECT_EQ(get_int("/root/monitor/sdw@') or ('1'='1/t").value, 6);
    EXPECT_EQ(get_int("/root/monitor/sdw@a/t").rc, XMLLIB_E_NOT_FOUND);
    EXPECT_EQ(enum_names("/root/monitor/sdw").names,
              (std::vector<std::string>{"a'b", "a\"b", "a]b", "a/b", "x@y", "') or ('1'='1"}));
}

// ---- files ----

TEST_F(XmlStore, MalformedDocumentNamesFileAndLine)
{
    write_file(conf(), "<root>\n  <a>1</a>\n  <b>2</c>\n</root>\n");
    ASSERT_EQ(xmllib_init("sdw"), 0);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(xmllib_load_config(1), XMLLIB_E_BAD_DATA);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.rfind("qmtxml: " + conf() + ":3:", 0), 0u) << err;
    EXPECT_NE(err.find("Start-end tags mismatch"), std::string::npos) << err;
    // Nothing was loaded: unloading finds nothing.
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_E_NOT_READY);
}

TEST_F(XmlStore, MissingFileIsNamed)
{
    ASSERT_EQ(xmllib_init("sdw"), 0);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(xmllib_load_policy("nosuch"), XMLLIB_E_FILE_NOT_FOUND);
    EXPECT_EQ(xmllib_load_config(1), XMLLIB_E_FILE_NOT_FOUND);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "qmtxml: cannot open " + policy("nosuch") + ": No such file or directory\n" +
                       "qmtxml: cannot open " + conf() + ": No such file or directory\n");
    EXPECT_EQ(xmllib_unload_policy("nosuch"), XMLLIB_E_NOT_READY);
}

TEST_F(XmlStore, OnlyRegularFilesOfBoundedSizeAreRead)
{
    // Each load runs in a child with an alarm: a FIFO that blocks the open, or a device that never
    // ends, would otherwise hang or exhaust this test.
    struct Case {
        const char *what;
        std::function<bool(const std::string &)> make;
    } cases[] = {
        {"a symbolic link to /dev/zero", [](const std::string &p) { return symlink("/dev/zero", p.c_str()) == 0; }},
        {"a FIFO", [](const std::string &p) { return mkfifo(p.c_str(), 0600) == 0; }},
        {"a folder", [](const std::string &p) { return mkdir(p.c_str(), 0700) == 0; }},
        {"a file over 16 MiB", [](const std::string &p) {
             write_file(p, "<root/>");
             return truncate(p.c_str(), (16 << 20) + 1) == 0;
         }},
    };
    for (auto &c : cases) {
        std::filesystem::remove_all(conf());
        ASSERT_TRUE(c.make(conf())) << c.what;
        pid_t pid = fork();
        if (pid == 0) {
            alarm(10);
            ::testing::internal::CaptureStderr();
            int rc = xmllib_init("sdw") == 0 ? xmllib_load_config(1) : -1;
            std::string err = ::testing::internal::GetCapturedStderr();
            bool named = err.rfind("qmtxml: cannot read " + conf() + ": ", 0) == 0;
            _exit(rc == XMLLIB_E_FILE_NOT_FOUND && named ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << c.what;
    }
}

TEST_F(XmlStore, PolicyTypesAreFileNamesOnly)
{
    ASSERT_EQ(xmllib_init("sdw"), 0);
    for (const char *t : {"", "../clp", "a/b", ".hidden"})
        EXPECT_EQ(xmllib_load_policy(t), XMLLIB_E_INVALID_PARAMETER) << t;
    EXPECT_EQ(xmllib_load_policy(nullptr), XMLLIB_E_INVALID_PARAMETER);
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

static void set_mtime(const std::string &path, time_t sec, long nsec)
{
    struct timespec t[2] = {{sec, nsec}, {sec, nsec}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), t, 0), 0);
}

TEST_F(XmlStore, ReloadSkipsAnUnchangedFileAndReadsAChangedOne)
{
    load_conf("<v>1</v>");
    set_mtime(conf(), 1700000000, 0);
    ASSERT_EQ(xmllib_reload_config(1), 0);  // the mtime changed: read again, same value
    EXPECT_EQ(get_int("/root/v").value, 1);
    // Same size, same modification time, same file: not read, so the old value stays.
    write_conf("<v>2</v>");
    set_mtime(conf(), 1700000000, 0);
    EXPECT_EQ(xmllib_reload_config(1), 0);
    EXPECT_EQ(get_int("/root/v").value, 1);
    // The modification time moves: read.
    set_mtime(conf(), 1700000001, 0);
    EXPECT_EQ(xmllib_reload_config(1), 0);
    EXPECT_EQ(get_int("/root/v").value, 2);
    // The size changes, the time does not: read.
    write_conf("<v>33</v>");
    set_mtime(conf(), 1700000001, 0);
    EXPECT_EQ(xmllib_reload_config(1), 0);
    EXPECT_EQ(get_int("/root/v").value, 33);
}

TEST_F(XmlStore, FailedReloadKeepsTheLastGoodDocument)
{
    load_conf("<v>1</v>");
    write_file(conf(), "<root>\n<v>2</v>\n<oops>\n</root>\n");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(xmllib_reload_config(1), XMLLIB_E_BAD_DATA);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(conf() + ":4:"), std::string::npos) << err;
    EXPECT_NE(err.find("qmtxml: keeping the last good configuration from " + conf() + "\n"),
              std::string::npos)
        << err;
    EXPECT_EQ(get_int("/root/v").value, 1);

    std::filesystem::remove(conf());
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(xmllib_reload_config(1), XMLLIB_E_FILE_NOT_FOUND);
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(get_int("/root/v").value, 1);

    write_conf("<v>3</v>");
    EXPECT_EQ(xmllib_reload_config(1), 0);
    EXPECT_EQ(get_int("/root/v").value, 3);
}

TEST_F(XmlStore, ReloadNeedsALoadedConfiguration)
{
    write_conf("<v>1</v>");
    EXPECT_EQ(xmllib_reload_config(1), XMLLIB_E_NOT_READY);
    ASSERT_EQ(xmllib_init("sdw"), 0);
    EXPECT_EQ(xmllib_reload_config(1), XMLLIB_E_NOT_READY);
    ASSERT_EQ(xmllib_load_config(1), 0);
    EXPECT_EQ(xmllib_reload_config(0), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_load_config(0), XMLLIB_E_INVALID_PARAMETER);
    EXPECT_EQ(xmllib_reload_config(1), 0);
}

// ---- lifecycle ----

TEST_F(XmlStore, ReleasingWhatWasNeverLoadedFailsAndChangesNothing)
{
    EXPECT_EQ(xmllib_term(), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_unload_policy("sdw"), XMLLIB_E_NOT_READY);

    write_file(policy("sdw"), "<root><p>1</p></root>");
    ASSERT_EQ(xmllib_init("sdw"), 0);
    ASSERT_EQ(xmllib_load_policy("sdw"), 0);
    EXPECT_EQ(xmllib_unload_config(), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_unload_policy("rm"), XMLLIB_E_NOT_READY);
    EXPECT_EQ(get_int("/root/p").value, 1);
    EXPECT_EQ(xmllib_unload_policy("sdw"), 0);
    EXPECT_EQ(xmllib_unload_policy("sdw"), XMLLIB_E_NOT_READY);
    EXPECT_EQ(get_int("/root/p").rc, XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_term(), 0);
    EXPECT_EQ(xmllib_term(), XMLLIB_E_NOT_READY);
}

TEST_F(XmlStore, LoadsNeedInitAndHappenOnce)
{
    write_file(policy("sdw"), "<root><p>1</p></root>");
    write_conf("<c>1</c>");
    EXPECT_EQ(xmllib_load_policy("sdw"), XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_load_config(1), XMLLIB_E_NOT_READY);
    EXPECT_EQ(get_int("/root/p").rc, XMLLIB_E_NOT_READY);
    ASSERT_EQ(xmllib_init("sdw"), 0);
    EXPECT_EQ(xmllib_init("sdw"), XMLLIB_E_ALREADY_INITIALIZED);
    EXPECT_EQ(xmllib_init(nullptr), XMLLIB_E_INVALID_PARAMETER);
    ASSERT_EQ(xmllib_load_policy("sdw"), 0);
    EXPECT_EQ(xmllib_load_policy("sdw"), XMLLIB_E_ALREADY_EXISTS);
    ASSERT_EQ(xmllib_load_config(1), 0);
    EXPECT_EQ(xmllib_load_config(1), XMLLIB_E_ALREADY_EXISTS);
    // Term releases everything; a new cycle starts clean.
    ASSERT_EQ(xmllib_term(), 0);
    EXPECT_EQ(get_int("/root/c").rc, XMLLIB_E_NOT_READY);
    EXPECT_EQ(xmllib_unload_policy("sdw"), XMLLIB_E_NOT_READY);
    ASSERT_EQ(xmllib_init("sdw"), 0);
    ASSERT_EQ(xmllib_load_config(1), 0);
    EXPECT_EQ(get_int("/root/c").value, 1);
    EXPECT_EQ(get_int("/root/p").rc, XMLLIB_E_NOT_FOUND);
}

}  // namespace
