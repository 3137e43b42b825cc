// The vfs tool run as a person runs it: a subprocess over temporary trees, its output, exit codes
// and error lines checked.

#include "TempDir.hpp"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <chrono>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string slurp(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The tool started with `arguments`, stdout and stderr captured in files (no pipe can fill up).
class Started {
public:
    explicit Started(const std::vector<std::string>& arguments)
        : m_out(m_capture.path() / "out"), m_err(m_capture.path() / "err")
    {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::vector<std::string> storage{VFS_TOOL_PATH};
        storage.insert(storage.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& argument : storage)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        const int spawned = posix_spawn(&m_pid, VFS_TOOL_PATH, &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (spawned != 0)
            throw std::runtime_error("cannot start " VFS_TOOL_PATH);
    }
    Started(const Started&) = delete;
    Started& operator=(const Started&) = delete;
    ~Started()
    {
        if (m_pid != 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }

    std::string out() const { return slurp(m_out); }
    std::string err() const { return slurp(m_err); }
    // Waits (at most 10 s) until `text` shows in the captured output (`err` or not).
    bool waitForOutput(const std::string& text, bool err = false) const
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while ((err ? this->err() : out()).find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
    void signal(int number) const { kill(m_pid, number); }
    Outcome finish()
    {
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = 0;
        return Outcome{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out(), err()};
    }

private:
    const vfs_test::TempDir m_capture;
    const fs::path m_out;
    const fs::path m_err;
    pid_t m_pid = 0;
};

Outcome vfsTool(const std::vector<std::string>& arguments) { return Started(arguments).finish(); }

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

class ToolTest : public ::testing::Test {
protected:
    ToolTest()
    {
        tree.writeFile("a/x.txt", "hello\n");
        tree.writeFile("a/b/y.dat", std::string(2048, 'y'));
        tree.writeFile(".hidden", "h");
        tree.makeFolder("empty");
    }
    std::string at(const std::string& relative) const
    {
        return relative.empty() ? tree.path().string() : (tree.path() / relative).string();
    }

    vfs_test::TempDir tree;
};

TEST_F(ToolTest, ReadingCommandsPrintWhatIsThere)
{
    Outcome ls = vfsTool({"ls", at("")});
    EXPECT_EQ(ls.exitCode, 0) << ls.err;
    EXPECT_EQ(lines(ls.out), (std::vector<std::string>{"a/", "empty/"}));

    ls = vfsTool({"ls", "-a", "-R", "--pattern", "*.txt", "file://" + at("")});
    EXPECT_EQ(lines(ls.out), (std::vector<std::string>{at("") + ":", "a/", "empty/", "", at("a") + ":", "b/", "x.txt",
                                                        "", at("a/b") + ":", "", at("empty") + ":"}));

    const Outcome tree = vfsTool({"tree", at("a")});
    EXPECT_EQ(lines(tree.out), (std::vector<std::string>{at("a"), "├── b", "│   └── y.dat", "└── x.txt", "",
                                                          "1 folder, 2 files"}));

    const Outcome du = vfsTool({"du", at("")});
    EXPECT_EQ(lines(du.out), (std::vector<std::string>{"2048\t" + at("a/b"), "2054\t" + at("a"), "0\t" + at("empty"),
                                                        "2055\t" + at("")}));
    EXPECT_EQ(lines(vfsTool({"du", "-s", "-h", at("")}).out), (std::vector<std::string>{"2.0K\t" + at("")}));

    // Walk order is the storage's; the parallel walk's is any.
    for (const char* walk : {"--name", "--parallel"}) {
        std::vector<std::string> arguments{"find", at(""), "--name", "*.*", "--type", "f"};
        if (std::string(walk) == "--parallel")
            arguments.push_back(walk);
        auto found = lines(vfsTool(arguments).out);
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, (std::vector<std::string>{at(".hidden"), at("a/b/y.dat"), at("a/x.txt")})) << walk;
    }

    const Outcome cat = vfsTool({"cat", at("a/x.txt"), "file://" + at("a/x.txt")});
    EXPECT_EQ(cat.out, "hello\nhello\n");

    const Outcome stat = vfsTool({"stat", at("a/x.txt")});
    EXPECT_NE(stat.out.find("Size: 6\n"), std::string::npos) << stat.out;
    EXPECT_NE(stat.out.find("Type: file\n"), std::string::npos);
    EXPECT_NE(stat.out.find("Mode: 0"), std::string::npos);
}

TEST_F(ToolTest, JsonOutputParsesBackOneObjectPerLine)
{
    const auto objects = [](const Outcome& run) {
        std::vector<boost::json::object> out;
        for (const std::string& line : lines(run.out))
            out.push_back(boost::json::parse(line).as_object());
        return out;
    };
    const auto ls = objects(vfsTool({"ls", "--json", at("a")}));
    ASSERT_EQ(ls.size(), 2u);
    EXPECT_EQ(ls[0].at("type").as_string(), "folder");
    EXPECT_EQ(ls[1].at("name").as_string(), "x.txt");
    EXPECT_EQ(ls[1].at("size").to_number<int>(), 6);
    EXPECT_EQ(ls[1].at("iri").as_string(), "file://" + at("a/x.txt"));

    const auto stat = objects(vfsTool({"stat", "--json", at("a/b/y.dat")}));
    ASSERT_EQ(stat.size(), 1u);
    EXPECT_EQ(stat[0].at("size").to_number<int>(), 2048);

    std::vector<std::string> folders;
    for (const auto& found : objects(vfsTool({"find", "--json", "--type", "d", at("")})))
        folders.emplace_back(found.at("path").as_string());
    std::sort(folders.begin(), folders.end());
    EXPECT_EQ(folders, (std::vector<std::string>{"a", "a/b", "empty"}));

    const auto du = objects(vfsTool({"du", "-s", "--json", at("")}));
    ASSERT_EQ(du.size(), 1u);
    EXPECT_EQ(du[0].at("bytes").to_number<int>(), 2055);
    EXPECT_EQ(du[0].at("files").to_number<int>(), 3);
    EXPECT_EQ(du[0].at("folders").to_number<int>(), 3);
}

TEST_F(ToolTest, ChangingCommandsChangeTheTree)
{
    EXPECT_EQ(vfsTool({"mkdir", "-p", at("new/deep/er")}).exitCode, 0);
    EXPECT_TRUE(fs::is_directory(at("new/deep/er")));
    EXPECT_EQ(vfsTool({"touch", at("new/t.txt")}).exitCode, 0);
    EXPECT_TRUE(fs::is_regular_file(at("new/t.txt")));

    EXPECT_EQ(vfsTool({"cp", "-r", at("a"), at("new")}).exitCode, 0);
    EXPECT_EQ(slurp(at("new/a/b/y.dat")), std::string(2048, 'y'));
    EXPECT_EQ(vfsTool({"cp", at("a/x.txt"), at("new")}).exitCode, 0);
    EXPECT_EQ(slurp(at("new/x.txt")), "hello\n");
    EXPECT_EQ(vfsTool({"mv", at("new/x.txt"), at("new/deep/moved.txt")}).exitCode, 0);
    EXPECT_FALSE(fs::exists(at("new/x.txt")));
    EXPECT_EQ(slurp(at("new/deep/moved.txt")), "hello\n");
    EXPECT_EQ(vfsTool({"mv", at("new/deep"), at("empty")}).exitCode, 0);
    EXPECT_TRUE(fs::is_regular_file(at("empty/deep/moved.txt")));

    EXPECT_EQ(vfsTool({"rm", "-r", at("empty/deep"), at("new/t.txt")}).exitCode, 0);
    EXPECT_FALSE(fs::exists(at("empty/deep")));
    EXPECT_FALSE(fs::exists(at("new/t.txt")));
}

// Ctrl-C stops a tree copy or removal between two files and says what it left.
TEST_F(ToolTest, InterruptedTreeWorkIsReported)
{
    constexpr int files = 2000;
    for (int i = 0; i < files; ++i)
        tree.writeFile("big/f" + std::to_string(i), "x");
    const auto count = [](const fs::path& folder) {
        std::error_code error;
        std::ptrdiff_t entries = 0;
        for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
            ++entries;
        return entries;
    };
    const auto interruptOnceUnderWay = [&](const std::vector<std::string>& arguments, const fs::path& watched,
                                           const auto& underWay) {
        Started started(arguments);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!underWay(watched) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        started.signal(SIGINT);
        return started.finish();
    };

    const Outcome copied = interruptOnceUnderWay({"cp", "-r", at("big"), at("copy")}, at("copy"),
                                                 [](const fs::path& copy) { return fs::exists(copy); });
    EXPECT_EQ(copied.exitCode, 1);
    EXPECT_NE(copied.err.find("interrupted after"), std::string::npos) << copied.err;
    EXPECT_NE(copied.err.find("partial copy left: " + at("copy")), std::string::npos) << copied.err;
    EXPECT_LT(count(at("copy")), files);
    EXPECT_EQ(count(at("big")), files);

    const Outcome removed = interruptOnceUnderWay({"rm", "-r", at("big")}, at("big"), [&](const fs::path& big) {
        return count(big) < files;
    });
    EXPECT_EQ(removed.exitCode, 1);
    EXPECT_NE(removed.err.find("partly removed: " + at("big")), std::string::npos) << removed.err;
    EXPECT_GT(count(at("big")), 0);
}

TEST_F(ToolTest, WatchPrintsOneLinePerChangeUntilInterrupted)
{
    for (const std::string mode : {"-r", "--poll=20"}) {
        SCOPED_TRACE(mode);
        const std::string watched = at("a");
        Started watch({"watch", mode, watched});
        ASSERT_TRUE(watch.waitForOutput("watching " + watched, true)) << watch.err();
        tree.writeFile("a/new" + mode + ".txt", "n");
        EXPECT_TRUE(watch.waitForOutput("created\tfile\tfile://" + at("a/new" + mode + ".txt") + "\n")) << watch.out();
        watch.signal(SIGINT);
        const Outcome outcome = watch.finish();
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    }
    EXPECT_EQ(vfsTool({"watch", "--poll", "10", at("a/x.txt")}).exitCode, 1);
    EXPECT_EQ(vfsTool({"watch", at("missing")}).exitCode, 1);
}

// Bad input: one line "vfs: COMMAND: WHAT: LOCATION" (or a usage line), the right exit code, and
// nothing written.
TEST_F(ToolTest, BadInputGivesOneErrorLineAndTheRightExitCode)
{
    struct Case {
        std::vector<std::string> arguments;
        int exitCode;
        std::string firstErrorLine;
    };
    const std::vector<Case> cases = {
        {{"ls", at("missing")}, 1, "vfs: ls: no such file or folder: " + at("missing")},
        {{"cp", at("a"), at("copy")}, 1, "vfs: cp: is a folder (use -r): " + at("a")},
        {{"cp", "-r", at("a"), at("a/b")}, 1, "vfs: cp: invalid location: " + at("a/b/a")},
        {{"rm", at("a")}, 1, "vfs: rm: is a folder (use -r): " + at("a")},
        {{"mkdir", at("no/parent")}, 1, "vfs: mkdir: no such file or folder: " + at("no/parent")},
        {{"mkdir", at("a")}, 1, "vfs: mkdir: already exists: " + at("a")},
        {{"tree", at("a/x.txt")}, 1, "vfs: tree: not a folder: " + at("a/x.txt")},
        {{"cat", at("a")}, 1, "vfs: cat: is a folder: " + at("a")},
        {{"ls", "zip:nowhere:/x"}, 2, "vfs: ls: neither an IRI nor a path: zip:nowhere:/x"},
        {{"ls", "ftp://host/x"}, 2, "vfs: ls: no storage for the scheme: ftp"},
        {{"cp", at("a/x.txt")}, 2, "vfs: cp: DST is required"},
        {{"ls", "--bogus"}, 2, "vfs: ls: The following argument was not expected: --bogus"},
        {{"frobnicate"}, 2, "vfs: unknown command: frobnicate"},
        {{"cp", "--policy", "sometimes", at("a/x.txt"), at("b")}, 2, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments.front() + " " + c.arguments.back());
        const Outcome run = vfsTool(c.arguments);
        EXPECT_EQ(run.exitCode, c.exitCode);
        EXPECT_TRUE(run.out.empty()) << run.out;
        ASSERT_FALSE(run.err.empty());
        if (!c.firstErrorLine.empty()) {
            EXPECT_EQ(lines(run.err).front(), c.firstErrorLine);
        }
    }
    EXPECT_FALSE(fs::exists(at("copy")));
    EXPECT_FALSE(fs::exists(at("b")));
    EXPECT_TRUE(fs::is_regular_file(at("a/x.txt")));

    // rm goes on with the other operands after a failure, and fails overall.
    const Outcome rm = vfsTool({"rm", at("missing"), at("a/x.txt")});
    EXPECT_EQ(rm.exitCode, 1);
    EXPECT_FALSE(fs::exists(at("a/x.txt")));

    const Outcome help = vfsTool({"ls", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("--pattern"), std::string::npos);
}

} // namespace
