#include <Prelude.hpp>

namespace {

using provider::CopyFileOptions;
using provider::TransactionStatus;

const ptime older = time_from_string("2001-02-03 04:05:06");
const ptime newer = time_from_string("2011-12-13 14:15:16");

// The library code and the location's text of the Exception `call` throws.
template <class Call>
std::pair<ErrorCode, ustring> failure(Call&& call)
{
    return vfs_test::inspectThrown<vfs::Exception>(std::forward<Call>(call), [](const vfs::Exception& error) {
        return std::make_pair(error.getErrorCode(), error.getLocation().toString());
    });
}

// A file with `size` bytes of content: made through the library (which has no byte streams yet)
// by creating it and growing it with zeros.
void makeFile(const File& file, std::uint64_t size = 0, std::optional<ptime> modified = std::nullopt)
{
    file.createFile();
    if (size)
        file.truncateToSize(size);
    if (modified)
        file.setLastModified(*modified);
}

// Records the replacement policy of every copy and move it forwards.
class PolicyRecorder : public provider::decorators::ProviderDecorator {
public:
    using ProviderDecorator::ProviderDecorator;

    void doMoveFile(const provider::StorageIRI& location, const provider::StorageIRI& destination,
                    ReplacementPolicy policy) const override
    {
        record(policy);
        ProviderDecorator::doMoveFile(location, destination, policy);
    }
    TransactionStatus doCopyFile(const provider::StorageIRI& location, const provider::StorageIRI& destination,
                                 const CopyFileOptions& options) const override
    {
        record(options.replacementPolicy);
        return ProviderDecorator::doCopyFile(location, destination, options);
    }

    std::vector<ReplacementPolicy> seen() const
    {
        std::lock_guard lock(m_mutex);
        return m_seen;
    }

private:
    void record(ReplacementPolicy policy) const
    {
        std::lock_guard lock(m_mutex);
        m_seen.push_back(policy);
    }
    mutable std::mutex m_mutex;
    mutable std::vector<ReplacementPolicy> m_seen;
};

TEST(FilePolicyTest, MergeCollectingFailuresReachesTheProviderAsReplaceInCopyAndMove)
{
    std::shared_ptr<PolicyRecorder> recorder;
    vfs_test::DecoratedStorage storage({}, [&](std::shared_ptr<provider::IProvider> inner) {
        recorder = std::make_shared<PolicyRecorder>(std::move(inner));
        return recorder;
    });
    const vfs_test::WorkingFolder work("mem", storage.ref);
    const File source = work.file(u"source");
    makeFile(source, 4);

    const std::vector<std::pair<ReplacementPolicy, ReplacementPolicy>> expected{
        {ReplacementPolicy::FailIfExists, ReplacementPolicy::FailIfExists},
        {ReplacementPolicy::Replace, ReplacementPolicy::Replace},
        {ReplacementPolicy::MergeFolders, ReplacementPolicy::MergeFolders},
        {ReplacementPolicy::MergeCollectingFailures, ReplacementPolicy::Replace},
        {ReplacementPolicy::ReplaceIfNewer, ReplacementPolicy::ReplaceIfNewer},
    };
    // Each round copies, then moves the copy: the provider sees the policy twice per round.
    std::vector<ReplacementPolicy> forwardedTwice;
    int round = 0;
    for (const auto& [given, forwarded] : expected) {
        const ustring suffix = fl::i18n::utf8_to_ustring(std::to_string(round++));
        const File copy = work.file(u"copy" + suffix);
        const File moved = work.file(u"moved" + suffix);
        source.copyFile(copy, given);
        copy.moveFile(moved, given);
        EXPECT_TRUE(moved.fileExists());
        forwardedTwice.push_back(forwarded);
        forwardedTwice.push_back(forwarded);
    }
    EXPECT_EQ(recorder->seen(), forwardedTwice);
}

TEST(FileAcrossSchemesTest, MoveKeepsTheSourceWhenTheCopyFails)
{
    vfs_test::DecoratedStorage storage;
    const vfs_test::WorkingFolder disk("file", storage.ref);
    const vfs_test::WorkingFolder memory("mem", storage.ref);
    const File source = disk.file(u"a.txt");
    const File target = memory.file(u"a.txt");
    makeFile(source, 5);

    // The copy writes the memory file through its transactional stream, whose commit fails.
    storage.layers(u"mem").faults->addFault({.operation = ProviderOperation::StreamClose, .code = provider::ErrorCode::NoSpaceLeft});
    EXPECT_EQ(failure([&] { source.moveFile(target, ReplacementPolicy::Replace); }).first, ErrorCode::NoSpaceLeft);
    EXPECT_TRUE(source.fileExists());
    EXPECT_EQ(source.getAttributes().getSize(), 5u);
    EXPECT_FALSE(target.fileExists());
    // Across schemes the provider's move is never asked.
    EXPECT_EQ(storage.layers(u"file").calls->count(ProviderOperation::MoveFile), 0u);
    EXPECT_EQ(storage.layers(u"file").calls->count(ProviderOperation::RemoveFile), 0u);
}

TEST(FileNameTest, StemAndExtensionSplitAtTheLastDotButALeadingDotIsNoSeparatorForTheStem)
{
    vfs_test::DecoratedStorage storage;
    const vfs_test::WorkingFolder work("mem", storage.ref);
    struct Row {
        ustring name, stem, extension;
    };
    for (const Row& row : std::vector<Row>{
             {u"report.txt", u"report", u".txt"},
             {u"archive.tar.gz", u"archive.tar", u".gz"},
             {u".profile", u".profile", u".profile"},
             {u".config.json", u".config", u".json"},
             {u"name.", u"name", u"."},
             {u"README", u"README", u""},
             {u"...", u"..", u"."},
             {u"\u00e9t\u00e9.\u00fc", u"\u00e9t\u00e9", u".\u00fc"},
         }) {
        const File file(work.root(), row.name);
        EXPECT_EQ(file.getName(), row.name);
        EXPECT_EQ(file.getStem(), row.stem) << fl::i18n::ustring_to_utf8(row.name);
        EXPECT_EQ(file.getExtension(), row.extension) << fl::i18n::ustring_to_utf8(row.name);
    }
    // None of it reaches the provider.
    EXPECT_EQ(storage.layers(u"mem").calls->total(), 0u);
}

TEST(FileValueTest, OutlivesItsStorageSystemForWhatNeedsNoStorage)
{
    auto storage = std::make_unique<vfs_test::DecoratedStorage>();
    const vfs::StorageSystemReference ref = storage->ref;
    const File file(AbsoluteIRI(u"mem://v/a.txt"), ref);
    storage.reset();

    EXPECT_EQ(file.getName(), u"a.txt");
    EXPECT_EQ(file.getExtension(), u".txt");
    EXPECT_TRUE(file == File(file));
    EXPECT_TRUE(file.getStorageSystem() == ref);
    EXPECT_EQ(vfs_test::whatOf<std::runtime_error>([&] { File(AbsoluteIRI(u"mem://v/b"), ref); }),
              "StorageSystem has been destroyed");
    EXPECT_THROW(File(AbsoluteIRI(u"rar:mem://v/a.rar!/x"), vfs_test::DecoratedStorage().ref),
                 vfs::UnsupportedIRISchemeException);
}

TEST(FileExistenceTest, NotFoundFromTheProviderAnswersFalse)
{
    vfs_test::DecoratedStorage storage;
    const vfs_test::WorkingFolder work("mem", storage.ref);
    const File file = work.file(u"a");
    makeFile(file);
    storage.layers(u"mem").faults->addFault(
        {ProviderOperation::FileExists, std::nullopt, provider::ErrorCode::ResourceNotFound});
    EXPECT_FALSE(file.fileExists());
}

} // namespace
