// Processes killed with SIGKILL in the middle of library work on the local disk: a transactional
// writer leaves the old or the new content, whole, and a recursive copy leaves its source as it was.
// The work runs in a forked child (the parent's storage system and providers are built before the
// fork, so the child starts no thread of its own); the parent kills it after a random delay.

#include <Prelude.hpp>

#include <csignal>

#include <poll.h>
#include <sys/wait.h>

namespace {

// A fork costs a sanitized process far more (its shadow memory is copied), so fewer rounds there.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int writerRounds = 15;
constexpr int copyRounds = 2;
#else
constexpr int writerRounds = 100;
constexpr int copyRounds = 5;
#endif

// Contents that differ at every position and in length, so that a mix or a cut shows.
std::string pattern(char first, int period, std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(first + static_cast<int>(i % static_cast<std::size_t>(period)));
    return text;
}

std::string diskContent(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Every folder (mapped to "/") and file (mapped to its bytes) below `root`, links not followed.
std::map<std::string, std::string> snapshot(const std::filesystem::path& root)
{
    std::map<std::string, std::string> tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string relative = std::filesystem::relative(entry.path(), root).string();
        tree[relative] = entry.is_directory() ? "/" : diskContent(entry.path());
    }
    return tree;
}

// A child running `work` until it is killed; it writes one byte to the pipe once `work` has begun
// (through `started`). The parent waits for that byte (at most 30 s), waits `delay` more, kills
// the child and reaps it. Returns whether the child was still running when the signal came.
template <class Work>
bool killMidway(Work&& work, std::chrono::microseconds delay)
{
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0)
        throw std::runtime_error("pipe");
    const pid_t child = ::fork();
    if (child < 0)
        throw std::runtime_error("fork");
    if (child == 0) {
        ::close(pipeEnds[0]);
        const int ready = pipeEnds[1];
        try {
            work([ready] {
                if (::write(ready, "!", 1) != 1)
                    ::_exit(3);
            });
        } catch (const std::exception& error) {
            std::fprintf(stderr, "child: %s\n", error.what());
            ::_exit(2);
        } catch (...) {
            ::_exit(4);
        }
        ::_exit(0);
    }
    ::close(pipeEnds[1]);
    pollfd wait{pipeEnds[0], POLLIN, 0};
    const bool began = ::poll(&wait, 1, 30000) == 1;
    if (began)
        std::this_thread::sleep_for(delay); // the random moment of the crash, not a wait for a condition
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(pipeEnds[0]);
    EXPECT_TRUE(began) << "the child never got going";
    EXPECT_TRUE(WIFSIGNALED(status)) << "child status " << status;
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

TEST(CrashSafetyTest, AKilledTransactionalWriterLeavesTheOldOrTheNewContentWhole)
{
    DecoratedStorage storage;
    const WorkingFolder folder("file", storage.ref);
    const File file = folder.file(u"crash.txt");
    const std::string contents[2] = {pattern('a', 13, 300000), pattern('A', 7, 70001)};
    const auto writeWhole = [&](const std::string& content) {
        vfs::TransactionalIODevice device(file, provider::ByteStreamAccess::Write);
        for (std::size_t done = 0; done < content.size(); done += 65536)
            device.write(content.data() + done, static_cast<std::streamsize>(std::min<std::size_t>(65536, content.size() - done)));
        device.close(provider::StreamClosePolicy::Commit);
    };
    // The kills are spread over about three commits' time, measured here, so that they land in
    // writes, in syncs and in renames whatever the disk's speed.
    const auto start = std::chrono::steady_clock::now();
    writeWhole(contents[1]);
    writeWhole(contents[0]);
    const auto commit = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start) / 2;

    std::mt19937 random(20261121);
    std::uniform_int_distribution<std::int64_t> delay(0, 3 * commit.count() + 100);
    int killedWhileRunning = 0;
    int sawNew = 0;
    for (int round = 0; round < writerRounds; ++round) {
        killedWhileRunning += killMidway(
            [&](const auto& started) {
                started();
                for (int i = 0;; ++i)
                    writeWhole(contents[(i + 1) % 2]);
            },
            std::chrono::microseconds(delay(random)));

        const std::string now = diskContent(folder.localDir()->path() / "crash.txt");
        ASSERT_TRUE(now == contents[0] || now == contents[1])
            << "round " << round << ": " << now.size() << " bytes, neither content whole";
        sawNew += now == contents[1];
        // What a crash leaves behind is temporaries under names of their own; the file's name
        // always means the whole file.
        for (const auto& entry : std::filesystem::directory_iterator(folder.localDir()->path())) {
            if (entry.path().filename() != "crash.txt") {
                ASSERT_EQ(entry.path().filename().string().rfind(".vfs-tx-", 0), 0u) << entry.path();
            }
        }
        std::string viaLibrary(contents[0].size() + 1, '\0');
        vfs::IODevice reader(file);
        std::streamsize got = 0;
        for (std::streamsize n; (n = reader.read(viaLibrary.data() + got, static_cast<std::streamsize>(viaLibrary.size()) - got)) > 0;)
            got += n;
        reader.close();
        ASSERT_EQ(viaLibrary.substr(0, static_cast<std::size_t>(got)), now);
    }
    EXPECT_EQ(killedWhileRunning, writerRounds);
    EXPECT_GT(sawNew, 0) << "no kill came after a commit: the delays are too short to test anything";
}

TEST(CrashSafetyTest, AKilledFolderCopyLeavesItsSourceIntact)
{
    DecoratedStorage storage;
    const WorkingFolder work("file", storage.ref);
    const vfs_test::TempDir& disk = *work.localDir();
    for (int folder = 0; folder < 6; ++folder)
        for (int file = 0; file < 25; ++file)
            disk.writeFile("source/d" + std::to_string(folder) + "/sub/f" + std::to_string(file),
                           pattern(static_cast<char>('a' + folder), 11 + file, 1000 + 3000 * static_cast<std::size_t>(file)));
    const auto before = snapshot(disk / "source");
    const Folder source = work.folder(u"source");
    // The provider is built here, before the fork.
    ASSERT_TRUE(source.folderExists());

    std::mt19937 random(7);
    std::uniform_int_distribution<int> delay(0, 20000);
    for (int round = 0; round < copyRounds; ++round) {
        const std::u16string copies = u"copies" + fl::i18n::utf8_to_ustring(std::to_string(round));
        work.folder(copies).createFolder();
        EXPECT_TRUE(killMidway(
            [&](const auto& started) {
                started();
                for (int i = 0;; ++i)
                    source.copyFolder(work.folder(copies + u"/" + fl::i18n::utf8_to_ustring(std::to_string(i))),
                                      provider::ReplacementPolicy::FailIfExists);
            },
            std::chrono::microseconds(delay(random))));
        ASSERT_EQ(snapshot(disk / "source"), before) << "round " << round;
    }
}

} // namespace
