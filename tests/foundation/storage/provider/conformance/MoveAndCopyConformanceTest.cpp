// Moving and copying within a provider under each replacement policy, as every provider must.

#include <KitPrelude.hpp>

namespace {

const pt::ptime older = pt::from_time_t(1'500'000'000);
const pt::ptime newer = older + pt::seconds(1);

const ReplacementPolicy allPolicies[] = {ReplacementPolicy::FailIfExists, ReplacementPolicy::Replace,
                                         ReplacementPolicy::MergeFolders, ReplacementPolicy::MergeCollectingFailures,
                                         ReplacementPolicy::ReplaceIfNewer};

class MoveAndCopyConformance : public ProviderTest {
protected:
    std::uint64_t sizeOf(const StorageIRI& file) const { return provider->getFileAttributes(file).getSize(); }

    // A source of 3 bytes and a target of 5, with the given times, so that which one survives shows.
    std::pair<StorageIRI, StorageIRI> sourceAndTarget(const ustring& prefix, pt::ptime sourceTime, pt::ptime targetTime) const
    {
        const StorageIRI source = makeFile(prefix + u"-source.txt", 3);
        const StorageIRI target = makeFile(prefix + u"-target.txt", 5);
        provider->setLastModified(source, sourceTime);
        provider->setLastModified(target, targetTime);
        return {source, target};
    }

    TransactionStatus copy(const StorageIRI& source, const StorageIRI& target, ReplacementPolicy policy,
                           std::function<bool(std::uint64_t, std::uint64_t)> progress = {}) const
    {
        CopyFileOptions options;
        options.replacementPolicy = policy;
        options.progress = std::move(progress);
        return provider->copyFile(source, *provider, target, options);
    }
};

// What happens when a file's move or copy meets an existing file.
struct OverExistingFile {
    ReplacementPolicy policy;
    pt::ptime sourceTime;
    pt::ptime targetTime;
    bool replaced;
    bool fails; // with ResourceAlreadyExists at the target
};
const OverExistingFile overExistingFile[] = {
    {ReplacementPolicy::FailIfExists, newer, older, false, true},
    {ReplacementPolicy::Replace, older, newer, true, false},
    {ReplacementPolicy::MergeFolders, older, newer, true, false},
    {ReplacementPolicy::MergeCollectingFailures, older, newer, true, false},
    {ReplacementPolicy::ReplaceIfNewer, newer, older, true, false},
    {ReplacementPolicy::ReplaceIfNewer, older, newer, false, false},
    {ReplacementPolicy::ReplaceIfNewer, older, older, false, false}, // equal is not newer
};

std::string describe(const OverExistingFile& c)
{
    return std::string(toString(c.policy)) + (c.sourceTime > c.targetTime ? ", source newer"
                                              : c.sourceTime < c.targetTime ? ", source older"
                                                                            : ", same time");
}

TEST_P(MoveAndCopyConformance, MovesToAFreeNameTakeAttributesAndContentAlongUnderEveryPolicy)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    makeFolder(u"elsewhere");
    int index = 0;
    for (const ReplacementPolicy policy : allPolicies) {
        SCOPED_TRACE(toString(policy));
        const ustring n = fl::i18n::utf8_to_ustring(std::to_string(index++));
        const StorageIRI file = makeFile(u"file" + n + u".txt", 7);
        if (capabilities().settableTimes)
            provider->setLastModified(file, older);
        const StorageIRI folder = makeFolder(u"folder" + n);
        makeFile(u"folder" + n + u"/a.txt", 2);
        makeFile(u"folder" + n + u"/sub/b.txt", 4);

        provider->moveFile(file, below(u"elsewhere/moved" + n + u".txt"), policy);
        provider->moveFolder(folder, below(u"elsewhere/moved" + n), policy);
        EXPECT_EQ(provider->exists(file), ExistenceType::NotFound);
        EXPECT_EQ(provider->exists(folder), ExistenceType::NotFound);
        const auto attributes = provider->getFileAttributes(below(u"elsewhere/moved" + n + u".txt"));
        EXPECT_EQ(attributes.getSize(), 7u);
        if (capabilities().settableTimes) {
            EXPECT_EQ(attributes.getLastModified(), older);
        }
        const std::map<ustring, std::optional<std::uint64_t>> expected = {
            {u"a.txt", 2}, {u"sub", std::nullopt}, {u"sub/b.txt", 4}};
        EXPECT_EQ(treeOf(*provider, below(u"elsewhere/moved" + n)), expected);
    }
}

TEST_P(MoveAndCopyConformance, MoveAndCopyOntoAFileFollowThePolicy)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    VFS_SKIP_UNLESS(capabilities().settableTimes, "times cannot be set, which the cases need");
    int index = 0;
    for (const bool moving : {true, false}) {
        for (const OverExistingFile& c : overExistingFile) {
            SCOPED_TRACE(std::string(moving ? "move, " : "copy, ") + describe(c));
            const auto [source, target] = sourceAndTarget(u"case" + fl::i18n::utf8_to_ustring(std::to_string(index++)),
                                                          c.sourceTime, c.targetTime);
            const auto call = [&, policy = c.policy, source = source, target = target] {
                if (moving)
                    provider->moveFile(source, target, policy);
                else
                    return copy(source, target, policy);
                return TransactionStatus::Completed;
            };
            if (c.fails) {
                EXPECT_TRUE(failsWith([&] { call(); }, ErrorCode::ResourceAlreadyExists, target));
            } else if (moving) {
                EXPECT_NO_THROW(call());
            } else {
                EXPECT_EQ(call(), c.replaced ? TransactionStatus::Completed : TransactionStatus::NothingDone);
            }
            EXPECT_EQ(sizeOf(target), c.replaced ? 3u : 5u);
            EXPECT_EQ(provider->exists(source), moving && c.replaced ? ExistenceType::NotFound : ExistenceType::File);
            if (!c.replaced) {
                EXPECT_EQ(provider->getFileAttributes(target).getLastModified(), c.targetTime);
            }
        }
    }
}

TEST_P(MoveAndCopyConformance, MoveFolderOntoAFolderFollowsThePolicy)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    struct Case {
        const char* name;
        ReplacementPolicy policy;
        bool targetEmpty;
        std::vector<ErrorCode> codes; // empty: the move succeeds; otherwise one of these at the target
    };
    const Case cases[] = {
        {"fail over an empty folder", ReplacementPolicy::FailIfExists, true, {ErrorCode::ResourceAlreadyExists}},
        {"fail over a full folder", ReplacementPolicy::FailIfExists, false, {ErrorCode::ResourceAlreadyExists}},
        {"replace an empty folder", ReplacementPolicy::Replace, true, {}},
        {"replace a full folder", ReplacementPolicy::Replace, false, {ErrorCode::FolderNotEmpty}},
        // Merging is the library's work: the provider declines and the library falls back.
        {"merge into a full folder", ReplacementPolicy::MergeFolders, false,
         {ErrorCode::ResourceAlreadyExists, ErrorCode::FolderNotEmpty}},
    };
    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const ustring n = fl::i18n::utf8_to_ustring(std::to_string(index++));
        const StorageIRI source = makeFolder(u"source" + n);
        makeFile(u"source" + n + u"/from-source.txt", 1);
        const StorageIRI target = makeFolder(u"target" + n);
        if (!c.targetEmpty)
            makeFile(u"target" + n + u"/from-target.txt", 2);
        const auto sourceTree = treeOf(*provider, source);
        const auto targetTree = treeOf(*provider, target);

        const auto error = providerError([&] { provider->moveFolder(source, target, c.policy); });
        if (c.codes.empty()) {
            EXPECT_FALSE(error.has_value()) << error->what();
            EXPECT_EQ(provider->exists(source), ExistenceType::NotFound);
            EXPECT_EQ(treeOf(*provider, target), sourceTree);
        } else {
            ASSERT_TRUE(error.has_value());
            EXPECT_NE(std::find(c.codes.begin(), c.codes.end(), error->getErrorCode()), c.codes.end())
                << toString(error->getErrorCode());
            EXPECT_TRUE(error->getStorageIRI() == target) << text(error->getStorageIRI());
            EXPECT_EQ(treeOf(*provider, source), sourceTree);
            EXPECT_EQ(treeOf(*provider, target), targetTree);
        }
    }
}

TEST_P(MoveAndCopyConformance, MoveAndCopyFailuresReportCodeAndLocationAndLeaveTheTreeAlone)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI file = makeFile(u"file.txt", 3);
    const StorageIRI folder = makeFolder(u"folder");
    makeFile(u"folder/inner/deep.txt", 1);
    const StorageIRI missing = below(u"missing");
    const StorageIRI free = below(u"free");
    const StorageIRI noParent = below(u"missing/child");
    const StorageIRI belowFile = StorageIRI(file, u"child");
    const StorageIRI insideItself = below(u"folder/inner/moved");
    const auto foreign = foreignLocations(root);
    const auto before = tree();
    const auto replace = ReplacementPolicy::Replace;

    std::vector<Refusal> cases = {
        {"moveFile of nothing", [&] { provider->moveFile(missing, free, replace); }, ErrorCode::ResourceNotFound, {missing}},
        {"moveFile of a folder", [&] { provider->moveFile(folder, free, replace); }, ErrorCode::ResourceNotFound, {folder}, "not-a-file"},
        {"moveFile without target parent", [&] { provider->moveFile(file, noParent, replace); }, ErrorCode::ResourceNotFound, {noParent}},
        {"moveFile below a file", [&] { provider->moveFile(file, belowFile, replace); }, ErrorCode::ResourceNotFound, {belowFile}},
        {"moveFolder of nothing", [&] { provider->moveFolder(missing, free, replace); }, ErrorCode::ResourceNotFound, {missing}},
        {"moveFolder of a file", [&] { provider->moveFolder(file, free, replace); }, ErrorCode::ResourceNotFound, {file}, "not-a-folder"},
        {"moveFolder without target parent", [&] { provider->moveFolder(folder, noParent, replace); }, ErrorCode::ResourceNotFound, {noParent}},
        {"moveFolder below a file", [&] { provider->moveFolder(folder, belowFile, replace); }, ErrorCode::ResourceNotFound, {belowFile}},
        {"moveFolder into itself", [&] { provider->moveFolder(folder, insideItself, replace); }, ErrorCode::InvalidLocation,
         {insideItself}, "into-itself"},
    };
    for (const ReplacementPolicy policy : allPolicies) {
        cases.push_back({"copy of nothing", [&, policy] { copy(missing, free, policy); }, ErrorCode::ResourceNotFound, {missing}});
        cases.push_back({"copy of a folder", [&, policy] { copy(folder, free, policy); }, ErrorCode::ResourceNotFound, {folder},
                         "not-a-file"});
        cases.push_back({"copy without target parent", [&, policy] { copy(file, noParent, policy); },
                         ErrorCode::ResourceNotFound, {noParent}});
        cases.push_back({"copy below a file", [&, policy] { copy(file, belowFile, policy); }, ErrorCode::ResourceNotFound,
                         {belowFile}});
    }
    for (const StorageIRI& elsewhere : foreign) {
        cases.push_back({"moveFile to a foreign location", [&] { provider->moveFile(file, elsewhere, replace); },
                         ErrorCode::UnsupportedOperation, {elsewhere}});
        cases.push_back({"moveFolder to a foreign location", [&] { provider->moveFolder(folder, elsewhere, replace); },
                         ErrorCode::UnsupportedOperation, {elsewhere}});
    }
    expectRefusals(cases);
    EXPECT_EQ(tree(), before);
}

TEST_P(MoveAndCopyConformance, MovingOrCopyingOntoItselfLosesNothing)
{
    const StorageIRI file = makeFile(u"file.txt", 3);
    const StorageIRI folder = makeFolder(u"folder");
    makeFile(u"folder/inner.txt", 2);
    const auto before = tree();
    // Whether refused or done as nothing, the data must survive.
    for (const ReplacementPolicy policy : allPolicies) {
        SCOPED_TRACE(toString(policy));
        providerError([&] { provider->moveFile(file, file, policy); });
        providerError([&] { provider->moveFolder(folder, folder, policy); });
        providerError([&] { copy(file, file, policy); });
        EXPECT_EQ(tree(), before);
    }
}

TEST_P(MoveAndCopyConformance, CopyFileCopiesSizeAndWritabilityAndKeepsTheSource)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    struct Case {
        const char16_t* name;
        std::uint64_t size;
        bool writable;
    };
    makeFolder(u"copies");
    for (const Case& c : {Case{u"empty", 0, true}, Case{u"small", 70000, true}, Case{u"read-only", 1 << 20, false}}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(c.name));
        if (!c.writable && !capabilities().settableWritability)
            continue;
        const StorageIRI source = makeFile(c.name, c.size);
        if (capabilities().settableWritability)
            provider->setWritable(source, c.writable);
        const StorageIRI target = below(ustring(u"copies/") + c.name);

        EXPECT_EQ(copy(source, target, ReplacementPolicy::FailIfExists), TransactionStatus::Completed);
        EXPECT_EQ(sizeOf(target), c.size);
        EXPECT_EQ(provider->getFileAttributes(target).isWritable(), c.writable);
        EXPECT_EQ(sizeOf(source), c.size);
        EXPECT_EQ(provider->getFileAttributes(source).isWritable(), c.writable);
    }
}

TEST_P(MoveAndCopyConformance, CopyFileReportsProgressUpToTheTotal)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    constexpr std::uint64_t size = (3u << 20) + 12345;
    const StorageIRI source = makeFile(u"source.bin", size);
    std::vector<std::pair<std::uint64_t, std::uint64_t>> calls;
    EXPECT_EQ(copy(source, below(u"target.bin"), ReplacementPolicy::FailIfExists,
                   [&](std::uint64_t copied, std::uint64_t total) {
                       calls.emplace_back(copied, total);
                       return true;
                   }),
              TransactionStatus::Completed);
    ASSERT_FALSE(calls.empty());
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(calls[i].second, size) << "call " << i;
        if (i > 0) {
            EXPECT_GE(calls[i].first, calls[i - 1].first) << "call " << i;
        }
    }
    EXPECT_EQ(calls.back().first, size);
    EXPECT_EQ(sizeOf(below(u"target.bin")), size);
}

TEST_P(MoveAndCopyConformance, ACancelledCopyLeavesNoTargetAndKeepsAReplacedOne)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    constexpr std::uint64_t size = 3u << 20;
    const StorageIRI source = makeFile(u"source.bin", size);
    const StorageIRI existing = makeFile(u"existing.bin", 5);
    const auto before = tree();
    // Cancelled at the first report, and at the second where there is one.
    for (const int cancelAt : {1, 2}) {
        SCOPED_TRACE(cancelAt);
        for (const auto& [target, policy] : {std::pair{below(u"fresh.bin"), ReplacementPolicy::FailIfExists},
                                             std::pair{existing, ReplacementPolicy::Replace}}) {
            SCOPED_TRACE(text(target));
            int calls = 0;
            const auto status = copy(source, target, policy, [&](std::uint64_t, std::uint64_t) { return ++calls < cancelAt; });
            ASSERT_GE(calls, 1) << "progress is reported at least once";
            if (calls < cancelAt)
                continue; // done in one report: nothing left to cancel
            EXPECT_EQ(status, TransactionStatus::NothingDone);
            EXPECT_EQ(calls, cancelAt) << "no report after the cancellation";
            EXPECT_EQ(tree(), before);
        }
    }
}

TEST_P(MoveAndCopyConformance, CopyToAnotherProviderWritesThroughItsTransactionalStream)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI file = makeFile(u"file.txt");
    {
        const auto out = provider->openStream(file, {});
        out->write("content", 7);
        out->close();
    }
    const auto other = std::make_shared<provider::decorators::FaultInjectingProvider>(provider::memory::makeMemoryProvider());
    const StorageIRI elsewhere(u"mem://other/copy.txt");

    // A write failing in the middle leaves no target behind.
    other->addFault({.operation = provider::decorators::ProviderOperation::StreamWrite, .code = ErrorCode::NoSpaceLeft});
    EXPECT_TRUE(failsWith([&] { provider->copyFile(file, *other, elsewhere, {}); }, ErrorCode::NoSpaceLeft, elsewhere,
                          "fault-injection"));
    EXPECT_EQ(other->exists(elsewhere), ExistenceType::NotFound);
    other->clearFaults();

    EXPECT_EQ(provider->copyFile(file, *other, elsewhere, {}), TransactionStatus::Completed);
    char bytes[16] = {};
    EXPECT_EQ(other->openReadOnlyStream(elsewhere)->read(bytes, sizeof bytes), 7);
    EXPECT_STREQ(bytes, "content");
    EXPECT_TRUE(failsWith([&] { provider->copyFile(file, *other, elsewhere, {}); }, ErrorCode::ResourceAlreadyExists,
                          elsewhere));
    EXPECT_EQ(sizeOf(file), 7u);
}

INSTANTIATE_TEST_SUITE_P(Providers, MoveAndCopyConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
