// The local provider's inotify watcher where the kernel sets limits: a full event queue, the limit
// of watches (reached through the fault-injecting seam of InotifyFaults.hpp), and a provider
// released by its own watcher thread.

#include <ChangeRecorder.hpp>
#include <InotifyFaults.hpp>
#include <ProviderHarness.hpp>
#include <TaskCount.hpp>

#include <Prelude.hpp>

namespace {

using namespace vfs_test;
using foundation::storage::events::Kind;
using provider::RecursiveFileWatching;

TEST(LocalWatcherTest, AFullKernelQueueIsReportedAsOverflow)
{
    LocalHarness harness;
    const auto local = harness.provider();
    const StorageIRI a = harness.makeFile(u"a"), b = harness.makeFile(u"b");
    ChangeRecorder recorder;
    auto record = recorder.callback();
    std::mutex mutex;
    std::condition_variable changed;
    bool blocked = false, release = false;
    // The first report holds the watcher thread, so that the kernel's queue fills behind it.
    local->publishFolderEvents(harness.root(), [&](const auto&... args) {
        {
            std::unique_lock lock(mutex);
            if (!blocked) {
                blocked = true;
                changed.notify_all();
                changed.wait(lock, [&] { return release; });
            }
        }
        record(args...);
    }, {}, RecursiveFileWatching::NonRecursive);

    long queueLimit = 16384;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queueLimit;
    local->truncateToSize(a, 1);
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return blocked; }));
    }
    // Alternating names, so that the kernel cannot merge neighbouring events.
    for (long i = 0; i < queueLimit + 1000; ++i)
        local->setLastModified(i % 2 ? a : b, boost::posix_time::from_time_t(1'600'000'000 + i));
    {
        std::lock_guard lock(mutex);
        release = true;
        changed.notify_all();
    }
    EXPECT_TRUE(recorder.waitForSequence({{Kind::Overflow, "", true}}));
    const auto extras = recorder.extras();
    EXPECT_FALSE(extras.back().get<std::string>("reason", "").empty());
    local->shutdown();
}

TEST(LocalWatcherTest, TheLimitOfWatchesFailsTheWatchWholeOrIsReportedForLaterFolders)
{
    LocalHarness harness;
    const auto local = harness.provider();
    for (const auto* folder : {u"t/a/x", u"t/b", u"t/c"})
        harness.makeFolder(folder);
    const StorageIRI tree(harness.root(), u"t");
    ChangeRecorder recorder;
    {
        const long before = inotify_faults::added - inotify_faults::removed;
        inotify_faults::Limit limit(2);
        const auto error = thrown<provider::ChangeEventsSubscriptionException>(
            [&] { local->publishFolderEvents(tree, recorder.callback(), {}, RecursiveFileWatching::Recursive); });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->getStorageIRI(), tree);
        EXPECT_NE(error->getReason().find(u"max_user_watches"), ustring::npos);
        EXPECT_EQ(inotify_faults::added - inotify_faults::removed, before) << "a failed watch left kernel watches";
    }

    local->publishFolderEvents(tree, recorder.callback(), {}, RecursiveFileWatching::Recursive);
    {
        inotify_faults::Limit limit(0);
        local->createFolder(StorageIRI(tree, u"late"));
        ASSERT_TRUE(recorder.waitForSequence({{Kind::Created, "late", true}, {Kind::Overflow, "late", true}}))
            << testing::PrintToString(recorder.changes());
    }
    local->createFile(StorageIRI(tree, u"a/x/still-seen"));
    EXPECT_TRUE(recorder.waitForSequence({{Kind::Created, "a/x/still-seen", false}}));
    local->shutdown();
}

// Folders made, renamed and filled faster than the watcher can follow them: every file made in
// them is reported, or the watcher says that it fell behind.
TEST(LocalWatcherTest, FoldersRenamedBeforeTheyAreWatchedAreFollowedOrReportedAsOverflow)
{
    LocalHarness harness;
    const auto local = harness.provider();
    harness.makeFolder(u"t");
    const StorageIRI tree(harness.root(), u"t");
    ChangeRecorder recorder;
    local->publishFolderEvents(tree, recorder.callback(), {}, RecursiveFileWatching::Recursive);
    constexpr std::size_t rounds = 300;
    for (std::size_t i = 0; i < rounds; ++i) {
        const ustring number = fl::i18n::utf8_to_ustring(std::to_string(i));
        local->createFolder(StorageIRI(tree, u"d" + number));
        local->moveFolder(StorageIRI(tree, u"d" + number), StorageIRI(tree, u"e" + number),
                          provider::ReplacementPolicy::FailIfExists);
        local->createFile(StorageIRI(tree, u"e" + number + u"/f"));
    }
    const auto accounted = [&] {
        std::set<std::string> files;
        for (const Change& change : recorder.changes()) {
            if (change.kind == Kind::Overflow)
                return true;
            if (change.kind == Kind::Created && !change.folder)
                files.insert(change.relative);
        }
        return files.size() == rounds;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!accounted() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(accounted()) << testing::PrintToString(recorder.changes().size());
    local->shutdown();
}

TEST(LocalWatcherTest, AProviderReleasedByItsOwnWatcherThreadEndsThatThread)
{
    // A runtime that starts a helper thread along with the first thread of the process (as
    // ThreadSanitizer's does) has it before the count is taken.
    std::thread([] {}).join();
    const std::size_t before = threadCount();
    LocalHarness harness;
    std::mutex mutex;
    auto local = provider::local::makeLocalProvider();
    std::condition_variable done;
    bool released = false;
    local->publishFolderEvents(harness.root(), [&](const auto&...) {
        std::lock_guard lock(mutex);
        local.reset(); // the last owner: the provider and its watcher go on the watcher thread
        released = true;
        done.notify_all();
    }, {}, RecursiveFileWatching::NonRecursive);
    harness.makeFile(u"trigger");
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(done.wait_for(lock, std::chrono::seconds(10), [&] { return released; }));
    }
    EXPECT_TRUE(threadsDropTo(before));
}

} // namespace
