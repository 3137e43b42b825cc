// The vfs tool run as a person runs it: a subprocess over temporary trees, its output, exit codes
// and error lines checked.

#include "TempDir.hpp"
#include "Unprivileged.hpp"

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
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
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
    if (!fs::is_regular_file(path))
        return {}; // output sent to a device
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The tool's argument vector: its path, then `arguments`, ending in a null; the pointers lead into
// `storage`, which must outlive it.
std::vector<char*> toolArgv(const std::vector<std::string>& arguments, std::vector<std::string>& storage)
{
    storage = {VFS_TOOL_PATH};
    storage.insert(storage.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : storage)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    return argv;
}

// The tool started with `arguments`, stdout and stderr captured in files (no pipe can fill up).
class Started {
public:
    explicit Started(const std::vector<std::string>& arguments, const std::string& input = "/dev/null",
                     const std::string& output = "")
        : m_out(output.empty() ? m_capture.path() / "out" : fs::path(output)), m_err(m_capture.path() / "err")
    {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::vector<std::string> storage;
        std::vector<char*> argv = toolArgv(arguments, storage);
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

Outcome vfsTool(const std::vector<std::string>& arguments, const std::string& output = "")
{
    return Started(arguments, "/dev/null", output).finish();
}

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

// Runs the tool in a child whose root is `jail`, in a private mount namespace: the system's /usr and
// the build tree are there read-only, and nothing else of the machine is. Exit code of the tool;
// -1 where this process may not make a mount namespace (the caller skips).
int vfsToolJailed(const fs::path& jail, const std::vector<std::string>& arguments)
{
    const fs::path build = fs::path(VFS_TOOL_PATH).parent_path().parent_path().parent_path();
    const pid_t child = fork();
    if (child == 0) {
        const auto readOnly = [&](const fs::path& from) {
            const fs::path to = jail / from.relative_path();
            std::error_code ignored;
            fs::create_directories(to, ignored);
            return mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
                   mount(nullptr, to.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
        };
        std::error_code ignored;
        fs::create_directory_symlink("usr/lib", jail / "lib", ignored);
        fs::create_directory_symlink("usr/lib64", jail / "lib64", ignored);
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            !readOnly("/usr") || !readOnly(build) || chroot(jail.c_str()) != 0 || chdir("/") != 0)
            _exit(255);
        // A coverage build's counters would go to the read-only build tree: the jail takes them.
        setenv("GCOV_PREFIX", "/gcov", 1);
        const int err = open("/err", O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(err, STDERR_FILENO);
        std::vector<std::string> storage;
        std::vector<char*> argv = toolArgv(arguments, storage);
        execv(VFS_TOOL_PATH, argv.data());
        _exit(254);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 255 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

// What nobody asked to destroy stays: the root, '.', '..', what a ".." after a link does not name,
// special files and links that a copy lands on, and a tree a copy would land inside.
TEST_F(ToolTest, NothingIsDestroyedThatWasNotNamed)
{
    tree.writeFile("real/deeper/keep", "k");
    tree.writeFile("other/keep", "k");
    fs::create_directory_symlink(at("real/deeper"), at("ld"));
    fs::create_directory_symlink(at("a"), at("la"));
    tree.writeFile("target", "old");
    fs::create_symlink(at("target"), at("link"));
    fs::create_hard_link(at("target"), at("hard"));
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    const int reader = open(at("fifo").c_str(), O_RDONLY | O_NONBLOCK);
    const bool devices = mknod(at("null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
    // A file system of its own below the tree, in a mount namespace of this process (gone with it).
    tree.writeFile("m/f", "f");
    tree.makeFolder("m/mnt");
    const bool mounted = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount("vfs-test", at("m/mnt").c_str(), "tmpfs", 0, "size=1m") == 0;
    tree.writeFile("m/mnt/inner", "i");

    struct Case {
        std::vector<std::string> arguments;
        std::string firstErrorLine; // empty: succeeds
    };
    std::vector<Case> cases = {
        {{"rm", "-r", at("a/.")}, "vfs: rm: refusing to remove '.' or '..': " + at("a/.")},
        {{"rm", "-r", at("a/b/..")}, "vfs: rm: refusing to remove '.' or '..': " + at("a/b/..")},
        {{"rm", "-r", "mem://vol/"}, "vfs: rm: refusing to remove the root folder (--no-preserve-root overrides): mem://vol/"},
        {{"rm", "-r", at("ld/../other")}, "vfs: rm: no such file or folder: " + at("ld/../other")},
        {{"cp", "-r", at("a"), at("la/sub")}, "vfs: cp: cannot move or copy a folder into itself: " + at("la/sub")},
        {{"cp", at("a/x.txt"), at("link")}, ""},
        {{"cp", at("a/x.txt"), at("hard")}, ""},
        {{"cp", at("a/x.txt"), at("fifo")}, ""},
        {{"cp", at("a/x.txt"), devices ? at("null") : at("a/copy")}, ""},
    };
    if (mounted) // -x: cp makes the mount point empty; rm leaves it and its parent, and says so
        cases.insert(cases.end(), {{{"cp", "-rx", at("m"), at("mx")}, ""},
                                   {{"rm", "-rx", at("m")}, "vfs: rm: skipped, on another file system: " + at("m/mnt")}});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments[1] + " " + c.arguments[2]);
        const Outcome run = vfsTool(c.arguments);
        EXPECT_EQ(run.exitCode, c.firstErrorLine.empty() ? 0 : 1);
        EXPECT_EQ(lines(run.err).empty() ? "" : lines(run.err).front(), c.firstErrorLine);
    }
    EXPECT_TRUE(fs::is_regular_file(at("a/b/y.dat")));
    EXPECT_TRUE(fs::is_regular_file(at("other/keep")));
    EXPECT_FALSE(fs::exists(at("a/sub")));
    EXPECT_TRUE(fs::is_symlink(at("link")));
    EXPECT_EQ(fs::hard_link_count(at("hard")), 2u);
    EXPECT_EQ(slurp(at("target")), "hello\n");
    EXPECT_TRUE(fs::is_fifo(at("fifo")));
    char got[16] = {};
    EXPECT_EQ(read(reader, got, sizeof got), 6);
    close(reader);
    EXPECT_TRUE(!devices || fs::is_character_file(at("null")));
    EXPECT_TRUE(!mounted || (fs::is_empty(at("mx/mnt")) && fs::exists(at("mx/f")) && !fs::exists(at("m/f")) &&
                             fs::exists(at("m/mnt/inner"))));
    EXPECT_TRUE(!mounted || umount2(at("m/mnt").c_str(), MNT_DETACH) == 0);
    // find, as find does, enters a link to a folder only with -L.
    fs::create_directory_symlink(at("real"), at("other/lr"));
    EXPECT_EQ(vfsTool({"find", "--name", "deeper", at("other")}).out +
                  vfsTool({"find", "-L", "-0", "--name", "deeper", at("other")}).out,
              at("other/lr/deeper") + '\0');

    if (!mounted)
        GTEST_SKIP() << "no private mount namespace here: -x and the real root untested";
    // The real root, in a jail where the root is a throwaway folder and all else is read-only. The
    // jail has no /proc, which AddressSanitizer needs.
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "no jail under AddressSanitizer";
#endif
    const vfs_test::TempDir jail;
    jail.writeFile("victim", "v");
    const int root = vfsToolJailed(jail.path(), {"rm", "-r", "/"});
    if (root == -1)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(root, 1);
    EXPECT_TRUE(fs::is_regular_file(jail / "victim"));
    // Only the last line is the tool's: a sanitizer's runtime may first warn that the jail has no /proc.
    const std::string refusal = "vfs: rm: refusing to remove the root folder (--no-preserve-root overrides): /\n";
    const std::string err = slurp(jail / "err");
    EXPECT_TRUE(err == refusal || err.ends_with("\n" + refusal)) << err;
}

// A copy grants no more than the source did: bits within the umask, no set-ID bits of another owner;
// folders of a tree keep theirs too (a private folder stays private).
TEST_F(ToolTest, CopiesExposeNothing)
{
    tree.writeFile("suid", "#!");
    fs::permissions(at("suid"), static_cast<fs::perms>(06755));
    tree.writeFile("open", "o");
    fs::permissions(at("open"), static_cast<fs::perms>(0666));
    const bool root = geteuid() == 0 && chown(at("suid").c_str(), 65534, 65534) == 0;
    tree.writeFile("private/shut/f", "p");
    fs::permissions(at("private"), static_cast<fs::perms>(0700));
    fs::permissions(at("private/shut"), static_cast<fs::perms>(0500));
    fs::create_directory(at("shared"));
    fs::permissions(at("shared"), static_cast<fs::perms>(0777));
    struct Case {
        std::string source;
        mode_t umask;
        mode_t expected;
    };
    const std::vector<Case> cases = {
        {"open", 077, 0600},
        {"open", 022, 0644},
        {"suid", 022, root ? 0755u : 06755u},
        {"private", 022, 0700},
        {"private/shut", 022, 0500},
        {"shared", 027, 0750},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.source);
        const mode_t previous = umask(c.umask);
        const std::string copy = "copy-" + c.source.substr(c.source.rfind('/') + 1);
        const Outcome run = vfsTool({"cp", "-r", at(c.source), at(copy)});
        umask(previous);
        EXPECT_EQ(run.exitCode, 0) << run.err;
        struct stat info {};
        ASSERT_EQ(stat(at(copy).c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, c.expected);
        fs::permissions(at(copy), fs::perms::owner_all, fs::perm_options::add);
        fs::remove_all(at(copy));
    }
}

// Odd entries are shown for what they are and counted once; output that cannot be written fails.
TEST_F(ToolTest, NothingIsLostWithoutAWord)
{
    tree.writeFile("odd/file", std::string(100, 'f'));
    fs::create_hard_link(at("odd/file"), at("odd/second"));
    fs::create_symlink(at("nowhere"), at("odd/dangling"));
    fs::create_symlink("loop", at("odd/loop"));
    ASSERT_EQ(mkfifo(at("odd/fifo").c_str(), 0600), 0);
    const Outcome ls = vfsTool({"ls", "-l", at("odd")});
    EXPECT_EQ(ls.exitCode, 0) << ls.err;
    std::string kinds;
    for (const std::string& line : lines(ls.out))
        kinds += line.front();
    EXPECT_EQ(kinds, "lp-l-"); // dangling, fifo, file, loop, second
    EXPECT_NE(ls.out.find(std::to_string(at("nowhere").size()) + "  "), std::string::npos) << ls.out;

    const Outcome du = vfsTool({"du", "-s", at("odd")});
    EXPECT_EQ(du.out, std::to_string(100 + at("nowhere").size() + 4) + "\t" + at("odd") + "\n") << du.err;

    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"stat", "--json", at("a")}, {"ls", "--json", at("a")}, {"find", "--json", at("a")}, {"ls", at("a")}}) {
        SCOPED_TRACE(arguments.front());
        const Outcome full = vfsTool(arguments, "/dev/full");
        EXPECT_EQ(full.exitCode, 1);
        EXPECT_NE(full.err.find("cannot write the output"), std::string::npos) << full.err;
    }

    // cp -r keeps links as links (-P) unless told to follow them (-L); a storage without links
    // reports each one. A sparse file's copy keeps its holes.
    tree.writeFile("linked/f", "f");
    fs::create_symlink("f", at("linked/rel"));
    fs::create_directory_symlink(at("a"), at("linked/dir"));
    EXPECT_EQ(vfsTool({"cp", "-r", "-L", at("linked"), at("followed")}).exitCode, 0);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(at("followed/rel"))));
    EXPECT_TRUE(fs::is_regular_file(at("followed/dir/b/y.dat")));
    const Outcome memory = vfsTool({"cp", "-r", at("linked"), "mem://v/"});
    EXPECT_EQ(memory.exitCode, 1);
    EXPECT_NE(memory.err.find("vfs: cp: not supported here: mem://v/linked/rel"), std::string::npos) << memory.err;
    {
        std::ofstream sparse(at("linked/sparse"), std::ios::binary);
        sparse.seekp(200 << 20);
        sparse << "data";
        sparse.seekp(300 << 20);
        sparse << "end";
    }
    EXPECT_EQ(vfsTool({"cp", "-r", at("linked"), at("kept")}).exitCode, 0);
    EXPECT_EQ(fs::read_symlink(at("kept/rel")), "f");
    EXPECT_EQ(fs::read_symlink(at("kept/dir")), at("a"));
    struct stat sparse {};
    ASSERT_EQ(stat(at("kept/sparse").c_str(), &sparse), 0);
    EXPECT_EQ(sparse.st_size, (300 << 20) + 3);
    EXPECT_LT(sparse.st_blocks * 512, 1 << 20);
    std::string data(4, '\0');
    std::ifstream(at("kept/sparse"), std::ios::binary).seekg(200 << 20).read(data.data(), 4);
    EXPECT_EQ(data, "data");

    // As an unprivileged user, an unreadable folder is reported and the rest is copied.
    tree.writeFile("part/ok", "o");
    tree.writeFile("part/locked/secret", "s");
    tree.writeFile("part/z", "z");
    tree.makeFolder("out");
    fs::permissions(at(""), static_cast<fs::perms>(0711));
    fs::permissions(at("out"), fs::perms::all);
    fs::permissions(at("part/locked"), fs::perms::none);
    const std::string partial = vfs_test::runWithPermissionsEnforced([&] {
        const Outcome run = vfsTool({"cp", "-r", at("part"), at("out/copy")});
        return std::to_string(run.exitCode) + (fs::exists(at("out/copy/z")) ? " z " : " - ") + run.err;
    });
    EXPECT_EQ(partial.substr(0, 4), "1 z ") << partial;
    EXPECT_NE(partial.find("vfs: cp: permission denied: " + at("part/locked")), std::string::npos) << partial;
    fs::permissions(at("part/locked"), fs::perms::owner_all);

    // A file moved to another file system is copied there, then removed here.
    if (fs::is_directory("/dev/shm")) {
        const vfs_test::TempDir elsewhere("/dev/shm");
        const Outcome mv = vfsTool({"mv", at("a/x.txt"), (elsewhere / "x.txt").string()});
        EXPECT_EQ(mv.exitCode, 0) << mv.err;
        EXPECT_EQ(slurp(elsewhere / "x.txt"), "hello\n");
        EXPECT_FALSE(fs::exists(at("a/x.txt")));
        // find -x lists a folder of another file system (here reached through a link) without entering it.
        elsewhere.writeFile("inside/f", "f");
        fs::create_directory_symlink(elsewhere / "inside", at("a/mounted"));
        EXPECT_EQ(vfsTool({"find", "-L", "-x", "--name", "f", at("a")}).out +
                      vfsTool({"find", "-L", "--name", "f", at("a")}).out,
                  at("a/mounted/f") + "\n");
    }
}

// What used to crash, hang or be refused: odd locations, pipes and FIFOs, --version.
TEST_F(ToolTest, PipesFifosAndOddLocationsWork)
{
    const Outcome version = vfsTool({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out.rfind("vfs ", 0), 0u) << version.out;

    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    // The writer's end is open first, so that the tool's start does not wait for one.
    const int writer = open(at("fifo").c_str(), O_RDWR | O_CLOEXEC);
    Started piped({"cat", "/dev/stdin"}, at("fifo"));
    EXPECT_EQ(write(writer, "through a pipe\n", 15), 15);
    EXPECT_TRUE(piped.waitForOutput("through a pipe\n"));
    close(writer);
    const Outcome cat = piped.finish();
    EXPECT_EQ(cat.exitCode, 0) << cat.err;
    EXPECT_EQ(cat.out, "through a pipe\n");

    // Waiting for a writer that never comes: Ctrl-C ends it as it ends cat.
    Started waiting({"cat", at("fifo")});
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    waiting.signal(SIGINT);
    EXPECT_EQ(waiting.finish().exitCode, 128 + SIGINT);
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
        {{"cp", "-r", at("a"), at("a/b")}, 1, "vfs: cp: cannot move or copy a folder into itself: " + at("a/b/a")},
        {{"rm", at("a")}, 1, "vfs: rm: is a folder (use -r): " + at("a")},
        {{"mkdir", at("no/parent")}, 1, "vfs: mkdir: no such file or folder: " + at("no/parent")},
        {{"mkdir", at("a")}, 1, "vfs: mkdir: already exists: " + at("a")},
        {{"tree", at("a/x.txt")}, 1, "vfs: tree: not a folder: " + at("a/x.txt")},
        {{"cat", at("a")}, 1, "vfs: cat: is a folder: " + at("a")},
        {{"ls", "zip:nowhere:/x"}, 2, "vfs: ls: not a valid IRI: zip:nowhere:/x"},
        {{"stat", "file://host/x"}, 1, "vfs: stat: invalid location: file://host/x"},
        {{"stat", "file://127.0.0.1:22/x"}, 1, ""},
        {{"stat", "file:///tmp/a%00b"}, 1, ""},
        {{"rm", at("a/x.txt/")}, 1, "vfs: rm: not a folder: " + at("a/x.txt/")},
        {{"cp", at("a/x.txt"), at("a/x.txt")}, 1, "vfs: cp: source and target are the same file: " + at("a/x.txt")},
        {{"touch", at(std::string(256, 'n'))}, 1, "vfs: touch: name or path too long: " + at(std::string(256, 'n'))},
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
