// Change events, as every provider must report them: watches of a folder, of a subtree and of a
// file; polling; stopping; and the failures of starting a watch.

#include <ChangeRecorder.hpp>
#include <KitPrelude.hpp>

namespace {

using foundation::storage::events::Kind;
using provider::RecursiveChangePolling;
using provider::RecursiveFileWatching;

constexpr bool file = false;
constexpr bool folder = true;

class ChangeEventsConformance : public ProviderTest {
protected:
    // Every watch ends before the recorders go.
    void TearDown() override { provider->shutdown(); }

    void watch(ChangeRecorder& recorder, const StorageIRI& location, RecursiveFileWatching recursive,
               provider::ChangeKinds kinds = {})
    {
        provider->publishFolderEvents(location, recorder.callback(), kinds, recursive);
    }
};

TEST_P(ChangeEventsConformance, FolderWatchReportsItsChildrenInOrderAndPairsRenames)
{
    VFS_SKIP_UNLESS(capabilities().watching && writable(), "no watching, or read-only storage");
    makeFolder(u"sub");
    ChangeRecorder recorder;
    watch(recorder, root, RecursiveFileWatching::NonRecursive);

    provider->createFile(below(u"a"));
    provider->truncateToSize(below(u"a"), 10);
    provider->setWritable(below(u"a"), false);
    provider->moveFile(below(u"a"), below(u"b"), ReplacementPolicy::FailIfExists);
    provider->createFile(below(u"sub/deeper")); // below a child: not seen without recursion
    provider->removeFile(below(u"sub/deeper"));
    provider->removeFile(below(u"b"));
    provider->removeFolder(below(u"sub"));

    const std::vector<Change> expected{{Kind::Created, "a", file},      {Kind::Modified, "a", file},
                                       {Kind::AttributesChanged, "a", file}, {Kind::RenamedFrom, "a", file},
                                       {Kind::RenamedTo, "b", file},     {Kind::Removed, "b", file},
                                       {Kind::Removed, "sub", folder}};
    ASSERT_TRUE(recorder.waitForSequence(expected)) << testing::PrintToString(recorder.changes());
    const auto changes = recorder.changes();
    const auto extras = recorder.extras();
    std::string fromCookie, toCookie;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(changes[i].relative.find('/'), std::string::npos) << "reported below a child: " << changes[i].relative;
        if (changes[i].kind == Kind::RenamedFrom)
            fromCookie = extras[i].get<std::string>("rename.cookie", "");
        if (changes[i].kind == Kind::RenamedTo) {
            toCookie = extras[i].get<std::string>("rename.cookie", "");
            EXPECT_EQ(extras[i].get<std::string>("rename.from", ""), text(below(u"a")));
        }
    }
    EXPECT_FALSE(fromCookie.empty());
    EXPECT_EQ(fromCookie, toCookie);
}

// Content written through streams is a change like any other: a plain stream's writes modify the
// file, a transactional stream's commit creates or modifies it at once.
TEST_P(ChangeEventsConformance, StreamWritesAreReportedAsChanges)
{
    VFS_SKIP_UNLESS(capabilities().watching && writable(), "no watching, or read-only storage");
    makeFile(u"kept");
    ChangeRecorder recorder;
    watch(recorder, root, RecursiveFileWatching::NonRecursive);

    const auto written = provider->openStream(below(u"kept"), {});
    written->write("abc", 3);
    written->close();
    const auto fresh = provider->openTransactionalStream(below(u"fresh"), {});
    fresh->write("xyz", 3);
    fresh->close(provider::StreamClosePolicy::Commit);

    EXPECT_TRUE(recorder.waitForSequence({{Kind::Modified, "kept", file}})) << testing::PrintToString(recorder.changes());
    // A commit by rename shows as the name arriving; one in place as a creation.
    EXPECT_TRUE(recorder.waitForAnyOf({{Kind::Created, "fresh", file}, {Kind::RenamedTo, "fresh", file}}))
        << testing::PrintToString(recorder.changes());
}

TEST_P(ChangeEventsConformance, RecursiveWatchFollowsFoldersCreatedAndMovedInLater)
{
    VFS_SKIP_UNLESS(capabilities().watching && writable(), "no watching, or read-only storage");
    ASSERT_TRUE(hasFeature(provider::ExtendedFeature::RecursiveWatching));
    makeFile(u"old/x");
    makeFile(u"outside/moved/inner");
    const StorageIRI watched = makeFolder(u"tree");
    ChangeRecorder recorder;
    watch(recorder, watched, RecursiveFileWatching::Recursive);

    provider->createFolder(below(u"tree/a"));
    ASSERT_TRUE(recorder.waitForSequence({{Kind::Created, "a", folder}}));
    provider->createFile(below(u"tree/a/f"));
    provider->truncateToSize(below(u"tree/a/f"), 3);
    provider->createFolderRecursive(below(u"tree/a/b/c"));
    provider->createFile(below(u"tree/a/b/c/g"));
    provider->moveFolder(below(u"outside/moved"), below(u"tree/moved"), ReplacementPolicy::FailIfExists);
    ASSERT_TRUE(recorder.waitForSequence({{Kind::RenamedTo, "moved", folder}}));
    provider->truncateToSize(below(u"tree/moved/inner"), 1);
    provider->moveFile(below(u"tree/a/f"), below(u"tree/a/b/f2"), ReplacementPolicy::FailIfExists);
    provider->removeFile(below(u"tree/a/b/c/g"));

    EXPECT_TRUE(recorder.waitForSequence({{Kind::Created, "a/f", file},
                                          {Kind::Modified, "a/f", file},
                                          {Kind::Created, "a/b/c/g", file},
                                          {Kind::Modified, "moved/inner", file},
                                          {Kind::RenamedFrom, "a/f", file},
                                          {Kind::RenamedTo, "a/b/f2", file},
                                          {Kind::Removed, "a/b/c/g", file}}))
        << testing::PrintToString(recorder.changes());
    EXPECT_TRUE(recorder.waitForSequence({{Kind::Created, "a/b", folder}, {Kind::Created, "a/b/c", folder}}));

    // A folder made right after its parent is in the parent's first listing and may also be in
    // its first events: reported once all the same. A later change is the end of what they bring.
    for (const char16_t* made : {u"tree/p/q", u"tree/r/s", u"tree/t/u", u"tree/v/w", u"tree/x/y"})
        provider->createFolderRecursive(below(made));
    ASSERT_TRUE(recorder.waitForSequence({{Kind::Created, "x/y", folder}}));
    provider->createFile(below(u"tree/end"));
    ASSERT_TRUE(recorder.waitForSequence({{Kind::Created, "end", file}}));
    std::set<std::string> created;
    for (const Change& change : recorder.changes()) {
        EXPECT_EQ(change.relative.rfind("..", 0), std::string::npos) << "outside the watch: " << change.relative;
        const bool first = change.kind != Kind::Created || created.insert(change.relative).second;
        EXPECT_TRUE(first) << "created twice: " << change.relative;
    }
}

// A file watch sees its own file only; kinds not asked for are not reported; a stopped watch
// reports nothing more (shown by a later change that a live watch reports).
TEST_P(ChangeEventsConformance, FileWatchKindsAndStopping)
{
    VFS_SKIP_UNLESS(capabilities().watching && writable(), "no watching, or read-only storage");
    const StorageIRI watchedFile = makeFile(u"f");
    makeFile(u"sibling");
    ChangeRecorder fileRecorder, removals, stopped, sentinel;
    provider->publishFileEvents(watchedFile, fileRecorder.callback(), {});
    watch(removals, root, RecursiveFileWatching::NonRecursive, {Kind::Removed});
    const StorageIRI other = makeFolder(u"other");
    watch(stopped, other, RecursiveFileWatching::NonRecursive);
    provider->stopPublishingFolderEvents(other);
    provider->stopPublishingFolderEvents(below(u"never-watched")); // nothing to stop: no error

    provider->truncateToSize(below(u"sibling"), 4);
    provider->truncateToSize(watchedFile, 4);
    provider->createFile(below(u"other/late"));
    provider->removeFile(watchedFile);
    ASSERT_TRUE(fileRecorder.waitForSequence({{Kind::Modified, "", file}, {Kind::Removed, "", file}}))
        << testing::PrintToString(fileRecorder.changes());
    ASSERT_TRUE(removals.waitForSequence({{Kind::Removed, "f", file}}));

    watch(sentinel, other, RecursiveFileWatching::NonRecursive);
    provider->createFile(below(u"other/sentinel"));
    ASSERT_TRUE(sentinel.waitForSequence({{Kind::Created, "sentinel", file}}));
    EXPECT_TRUE(stopped.changes().empty()) << testing::PrintToString(stopped.changes());
    for (const Change& change : fileRecorder.changes())
        EXPECT_EQ(change.relative, "");
    for (const Change& change : removals.changes())
        EXPECT_EQ(change.kind, Kind::Removed);
}

TEST_P(ChangeEventsConformance, PollingSeesCreationChangeAndRemoval)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    makeFile(u"kept");
    ChangeRecorder recorder;
    provider->startChangePollingMechanism(root, recorder.callback(), {}, std::chrono::milliseconds(10),
                                          RecursiveChangePolling::NonRecursive);
    provider->createFile(below(u"new"));
    ASSERT_TRUE(recorder.waitForSequence({{Kind::Created, "new", file}}));
    provider->truncateToSize(below(u"new"), 100);
    ASSERT_TRUE(recorder.waitForSequence({{Kind::Modified, "new", file}}));
    provider->moveFile(below(u"new"), below(u"renamed"), ReplacementPolicy::FailIfExists);
    provider->createFolder(below(u"dir"));
    // A move that is a copy and a delete (not atomic) may be polled halfway: then the new name comes first.
    if (capabilities().atomicReplace)
        ASSERT_TRUE(recorder.waitForSequence({{Kind::Removed, "new", file}, {Kind::Created, "renamed", file}}))
            << testing::PrintToString(recorder.changes());
    else
        ASSERT_TRUE(recorder.waitForSequence({{Kind::Removed, "new", file}}) &&
                    recorder.waitForSequence({{Kind::Created, "renamed", file}}))
            << testing::PrintToString(recorder.changes());
    ASSERT_TRUE(recorder.waitForSequence({{Kind::Created, "dir", folder}}));
    provider->stopChangePollingMechanism(root);
    const auto seen = recorder.changes().size();
    // Polling restarted on the same folder reports only what changes after the restart.
    ChangeRecorder again;
    provider->startChangePollingMechanism(root, again.callback(), {}, std::chrono::milliseconds(10),
                                          RecursiveChangePolling::NonRecursive);
    provider->removeFile(below(u"kept"));
    ASSERT_TRUE(again.waitForSequence({{Kind::Removed, "kept", file}}));
    EXPECT_EQ(again.changes().size(), 1u) << testing::PrintToString(again.changes());
    EXPECT_EQ(recorder.changes().size(), seen);
}

TEST_P(ChangeEventsConformance, StartingAWatchWhereItCannotBeFails)
{
    const StorageIRI aFile = makeFile(u"file");
    const StorageIRI aFolder = makeFolder(u"folder");
    const StorageIRI missing = below(u"missing");
    ChangeRecorder recorder;
    const auto folderWatch = [&](const StorageIRI& at) {
        return [&, at] { watch(recorder, at, RecursiveFileWatching::NonRecursive); };
    };
    if (!capabilities().watching) {
        EXPECT_THROW(folderWatch(aFolder)(), provider::ChangeEventsNotSupportedException);
        EXPECT_THROW(provider->publishFileEvents(aFile, recorder.callback(), {}),
                     provider::ChangeEventsNotSupportedException);
    } else {
    EXPECT_TRUE(failsWith(folderWatch(missing), ErrorCode::ResourceNotFound, missing));
    EXPECT_TRUE(failsWith(folderWatch(aFile), ErrorCode::ResourceNotFound, aFile, "not-a-folder"));
    EXPECT_TRUE(failsWith([&] { provider->publishFileEvents(missing, recorder.callback(), {}); },
                          ErrorCode::ResourceNotFound, missing));
    EXPECT_TRUE(failsWith([&] { provider->publishFileEvents(aFolder, recorder.callback(), {}); },
                          ErrorCode::ResourceNotFound, aFolder, "not-a-file"));
    }
    const auto poll = [&](const StorageIRI& at, std::chrono::milliseconds interval) {
        return [&, at, interval] {
            provider->startChangePollingMechanism(at, recorder.callback(), {}, interval,
                                                  RecursiveChangePolling::NonRecursive);
        };
    };
    EXPECT_TRUE(failsWith(poll(missing, std::chrono::milliseconds(10)), ErrorCode::ResourceNotFound, missing));
    EXPECT_TRUE(failsWith(poll(aFolder, std::chrono::milliseconds(0)), ErrorCode::InvalidLocation, aFolder));
    for (const StorageIRI& malformed : harness->malformedLocations())
        EXPECT_TRUE(failsWith(folderWatch(malformed), ErrorCode::InvalidLocation, malformed));
}

INSTANTIATE_TEST_SUITE_P(Providers, ChangeEventsConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
