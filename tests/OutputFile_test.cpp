// COutputFile: what a name stands for decides whether it is replaced, followed or refused; a
// failed write never replaces anything. QuotedText: outside text in a message stays one short,
// harmless line.
#include "OutputFile.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <iterator>

#include "QuotedText.h"

namespace {

using testing::HasSubstr;

class OutputFileTest : public testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/output_file_test.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
    }
    void TearDown() override { std::system(("rm -rf " + m_dir).c_str()); }

    std::string Path(const std::string& name) const { return m_dir + "/" + name; }
    static std::string Read(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    // Every entry of the directory, sorted: no temporary may be left behind.
    std::string Entries() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir)) {
            names.insert(entry.path().filename().string());
        }
        std::string list;
        for (const std::string& name : names) list += (list.empty() ? "" : " ") + name;
        return list;
    }
    static bool WriteAndCommit(const std::string& path, COutputFile::TExisting existing,
                               std::string* error) {
        COutputFile out;
        if (!out.Open(path, existing, error)) return false;
        out.Stream() << "new text";
        return out.Commit(error);
    }

    std::string m_dir;
};

// Verify each kind of name: regular files and links (to a file or to nothing yet) get the
// new text with the mode kept; a directory, a FIFO, a socket and a device are refused with
// what they are, and left as they were; a backup never replaces what exists.
TEST_F(OutputFileTest, EachKindOfNameIsReplacedFollowedOrRefused) {
    std::ofstream(Path("old")) << "old text";
    chmod(Path("old").c_str(), 0640);
    std::ofstream(Path("target")) << "old text";
    ASSERT_EQ(symlink("target", Path("link").c_str()), 0);
    ASSERT_EQ(symlink("mine", Path("dangling").c_str()), 0);
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0700), 0);
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", Path("socket").c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    using E = COutputFile::TExisting;
    const struct {
        std::string path;
        E existing;
        const char* refusal;      // empty: written
        std::string written;      // where the new text lands
    } cases[] = {
        {Path("old"), E::Replace, "", Path("old")},
        {Path("new"), E::Replace, "", Path("new")},
        {Path("link"), E::Replace, "", Path("target")},
        {Path("dangling"), E::Replace, "", Path("mine")},
        {Path("dir"), E::Replace, "it is a directory", ""},
        {Path("fifo"), E::Replace, "it is a FIFO", ""},
        {Path("socket"), E::Replace, "it is a socket", ""},
        {"/dev/null", E::Replace, "it is a device", ""},
        {Path("dir/none/x"), E::Replace, "No such file or directory", ""},
        {Path("old"), E::Refuse, "it exists already", ""},
        {Path("link"), E::Refuse, "it exists already", ""},
        {Path("backup"), E::Refuse, "", Path("backup")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        std::string error;
        const bool ok = WriteAndCommit(c.path, c.existing, &error);
        if (c.refusal[0] == 0) {
            EXPECT_TRUE(ok) << error;
            EXPECT_EQ(Read(c.written), "new text");
        } else {
            EXPECT_FALSE(ok);
            EXPECT_THAT(error, HasSubstr("cannot write '" + c.path + "': " + c.refusal));
        }
    }
    auto mode = [](const std::string& path) {
        struct stat st {};
        return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0u;
    };
    EXPECT_EQ((std::vector<mode_t>{mode(Path("old")), mode(Path("link")) & S_IFMT,
                           mode(Path("fifo")) & S_IFMT, mode("/dev/null") & S_IFMT}),
              (std::vector<mode_t>{S_IFREG | 0640, S_IFLNK, S_IFIFO, S_IFCHR}));
    close(sock);
    EXPECT_EQ(Entries(), "backup dangling dir fifo link mine new old socket target");
}

// Verify that what is not committed, or fails, leaves the old file and no temporary.
TEST_F(OutputFileTest, UncommittedOrFailedLeavesTheOldFile) {
    std::ofstream(Path("old")) << "old text";
    for (const bool discarded : {false, true}) {
        COutputFile out;
        std::string error;
        ASSERT_TRUE(out.Open(Path("old"), COutputFile::TExisting::Replace, &error)) << error;
        out.Stream() << "dropped";
        if (discarded) {
            out.Discard();
            EXPECT_FALSE(out.Commit(&error));
        }
    }
    EXPECT_EQ(Read(Path("old")), "old text");
    EXPECT_EQ(Entries(), "old");
}

// Verify standard output's failures: a full device, and a descriptor open the wrong way round
// (what a closed standard output becomes).
TEST_F(OutputFileTest, StandardOutputFailuresAreSeen) {
    const int saved = dup(STDOUT_FILENO);
    const struct {
        const char* device;
        int flags;
        const char* why;
    } cases[] = {{"/dev/full", O_WRONLY, "No space left on device"},
                 {"/dev/null", O_RDONLY, "Bad file descriptor"},
                 {"/dev/null", O_WRONLY, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.why);
        const int fd = open(c.device, c.flags);
        ASSERT_GE(fd, 0);
        fflush(stdout);
        dup2(fd, STDOUT_FILENO);
        close(fd);
        COutputFile out;
        std::string error;
        ASSERT_TRUE(out.Open("-", COutputFile::TExisting::Replace, &error));
        out.Stream() << std::string(100000, 'x');
        const bool ok = out.Commit(&error);
        dup2(saved, STDOUT_FILENO);
        EXPECT_EQ(ok, c.why[0] == 0);
        if (!ok) {
            EXPECT_EQ(error, std::string("cannot write standard output: ") + c.why);
        }
    }
    close(saved);
}

TEST(QuotedText, EscapesAndCuts) {
    const struct {
        std::string text;
        std::string quoted;
    } cases[] = {
        {"tap.gesture", "'tap.gesture'"},
        {std::string("a\x1b[2J\nb\\\xff\0", 10), "'a\\x1b[2J\\x0ab\\\\\\xff\\x00'"},
        {std::string(81, 'x'), "'" + std::string(80, 'x') + "'... (81 bytes)"},
        // An escape is never split by the cut.
        {std::string(79, 'x') + "\x01", "'" + std::string(79, 'x') + "'... (80 bytes)"},
        {std::string(10 << 20, '\x80'), "'" + [] {
             std::string s;
             for (int i = 0; i < 20; ++i) s += "\\x80";
             return s;
         }() + "'... (10485760 bytes)"},
    };
    for (const auto& c : cases) EXPECT_EQ(QuotedText(c.text), c.quoted);
    EXPECT_EQ(EscapedText(std::string(100, 'y')), std::string(80, 'y') + "...");
}

}  // namespace
