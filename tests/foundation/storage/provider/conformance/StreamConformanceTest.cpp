// Byte streams as every provider must offer them: open options, reading, writing and seeking,
// failures of the stream family, and transactional streams that publish whole files or nothing.

#include <KitPrelude.hpp>

namespace {

class StreamConformance : public ProviderTest {
protected:
    StorageIRI fileWith(const ustring& name, const std::string& content) const
    {
        const StorageIRI location = below(name);
        const auto out = provider->openStream(location, {});
        out->write(content.data(), static_cast<std::streamsize>(content.size()));
        out->close();
        return location;
    }

    std::string contentOf(const StorageIRI& location) const
    {
        const auto in = provider->openReadOnlyStream(location);
        std::string content;
        char chunk[7];
        for (std::streamsize got; (got = in->read(chunk, sizeof chunk)) > 0;)
            content.append(chunk, static_cast<std::size_t>(got));
        return content;
    }
};

// The ByteStreamFailure leaf `call` throws, with its code; the caller names the leaf.
template <class Failure, class Call>
std::optional<ErrorCode> streamFailure(Call&& call)
{
    const auto failure = thrown<Failure>(std::forward<Call>(call));
    return failure ? std::optional(failure->getErrorCode()) : std::nullopt;
}

TEST_P(StreamConformance, OpenOptionsDecideCreationTruncationAndAppending)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    struct Case {
        const char* name;
        ByteStreamOpenOptions options;
        bool existing;
        std::string expected; // after writing "XY" to a file of "abcd" (or to no file)
    };
    const Case cases[] = {
        {"overwrite in place", {ByteStreamAccess::Write, ByteStreamCreation::OpenExisting, 1, 1}, true, "XYcd"},
        {"truncate", {ByteStreamAccess::Write, ByteStreamCreation::CreateIfMissing, 0, 1}, true, "XY"},
        {"append", {ByteStreamAccess::ReadWrite, ByteStreamCreation::CreateIfMissing, 1, 0}, true, "abcdXY"},
        {"create", {ByteStreamAccess::Write, ByteStreamCreation::CreateIfMissing, 1, 1}, false, "XY"},
    };
    for (const bool transactional : {false, true}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + (transactional ? " transactionally" : ""));
            const StorageIRI location = below(u"file.txt");
            if (c.existing)
                fileWith(u"file.txt", "abcd");
            if (transactional) {
                const auto out = provider->openTransactionalStream(location, c.options);
                out->write("XY", 2);
                out->close(StreamClosePolicy::Commit);
            } else {
                const auto out = provider->openStream(location, c.options);
                out->write("XY", 2);
                out->close();
            }
            EXPECT_EQ(contentOf(location), c.expected);
            provider->removeFile(location);
        }
    }
    const StorageIRI missing = below(u"missing.txt");
    const ByteStreamOpenOptions existingOnly{ByteStreamAccess::Write, ByteStreamCreation::OpenExisting, 1, 1};
    EXPECT_TRUE(failsWith([&] { provider->openStream(missing, existingOnly); }, ErrorCode::ResourceNotFound, missing));
    EXPECT_TRUE(failsWith([&] { provider->openTransactionalStream(missing, existingOnly); }, ErrorCode::ResourceNotFound, missing));
    EXPECT_TRUE(failsWith([&] { provider->openReadOnlyStream(missing); }, ErrorCode::ResourceNotFound, missing));
    const StorageIRI folder = makeFolder(u"folder");
    EXPECT_TRUE(failsWith([&] { provider->openReadOnlyStream(folder); }, ErrorCode::ResourceNotFound, folder));
    EXPECT_TRUE(failsWith([&] { provider->openStream(folder, {}); }, ErrorCode::ResourceNotFound, folder));
    EXPECT_TRUE(failsWith([&] { provider->openTransactionalStream(folder, {}); }, ErrorCode::ResourceNotFound, folder));
    EXPECT_EQ(tree().size(), 1u);
}

TEST_P(StreamConformance, ReadsWritesAndSeeksAtTheStreamsPosition)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI location = fileWith(u"file.txt", "0123456789");
    const auto stream = provider->openStream(location, {ByteStreamAccess::ReadWrite, ByteStreamCreation::OpenExisting, 1, 1});
    char buffer[16] = {};
    EXPECT_EQ(stream->seek(-3, std::ios_base::end), std::streampos(7));
    EXPECT_EQ(stream->read(buffer, sizeof buffer), 3);
    EXPECT_EQ(std::string(buffer, 3), "789");
    EXPECT_EQ(stream->read(buffer, sizeof buffer), -1) << "the end of the file";
    EXPECT_EQ(stream->read(buffer, 0), 0);
    EXPECT_EQ(stream->seek(-8, std::ios_base::cur), std::streampos(2));
    EXPECT_EQ(stream->write("ab", 2), 2);
    EXPECT_EQ(stream->seek(0, std::ios_base::cur), std::streampos(4));
    // A write past the end fills the gap with zero bytes.
    EXPECT_EQ(stream->seek(12, std::ios_base::beg), std::streampos(12));
    stream->write("!", 1);
    stream->close();
    EXPECT_EQ(contentOf(location), std::string("01ab456789\0\0!", 13));
}

TEST_P(StreamConformance, StreamFailuresBelongToTheOperation)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI location = fileWith(u"file.txt", "abc");
    const auto reader = provider->openReadOnlyStream(location);
    EXPECT_EQ(streamFailure<provider::ByteStreamWriteFailure>([&] { reader->write("x", 1); }), ErrorCode::PermissionDenied);
    EXPECT_EQ(streamFailure<provider::ByteStreamSeekFailure>([&] { reader->seek(-1, std::ios_base::beg); }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(streamFailure<provider::ByteStreamSeekFailure>([&] { reader->seek(-4, std::ios_base::end); }),
              ErrorCode::InvalidLocation);
    char c;
    EXPECT_EQ(reader->read(&c, 1), 1) << "a failed seek leaves the stream usable";
    const auto writer = provider->openStream(location, {});
    char buffer[4];
    EXPECT_EQ(streamFailure<provider::ByteStreamReadFailure>([&] { writer->read(buffer, 4); }), ErrorCode::PermissionDenied);
    writer->close();
    EXPECT_TRUE(streamFailure<provider::ByteStreamWriteFailure>([&] { writer->write("x", 1); }).has_value());
    EXPECT_TRUE(streamFailure<provider::ByteStreamCloseFailure>([&] { writer->close(); }).has_value());
    EXPECT_EQ(contentOf(location), "abc");
}

TEST_P(StreamConformance, TransactionalStreamsPublishTheWholeFileOnCommitOnly)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI location = fileWith(u"file.txt", "old");
    const auto before = tree();
    const ByteStreamOpenOptions replace{ByteStreamAccess::ReadWrite, ByteStreamCreation::CreateIfMissing, 0, 1};
    {
        const auto dropped = provider->openTransactionalStream(location, replace);
        dropped->write("dropped", 7);
        // Readers see the old content while the new one is being written.
        EXPECT_EQ(contentOf(location), "old");
    }
    {
        const auto discarded = provider->openTransactionalStream(location, replace);
        discarded->write("discarded", 9);
        discarded->close(StreamClosePolicy::Discard);
        EXPECT_TRUE(streamFailure<provider::ByteStreamCloseFailure>([&] { discarded->close(StreamClosePolicy::Commit); }));
    }
    const auto missing = provider->openTransactionalStream(below(u"new.txt"), replace);
    missing->write("x", 1);
    missing.get()->close();
    EXPECT_EQ(tree(), before) << "nothing left behind, no temporary file either";
    EXPECT_EQ(contentOf(location), "old");

    const auto committed = provider->openTransactionalStream(location, replace);
    committed->write("new content", 11);
    char buffer[3];
    committed->seek(4, std::ios_base::beg);
    EXPECT_EQ(committed->read(buffer, 3), 3) << "a read-write stream reads what it wrote";
    EXPECT_EQ(std::string(buffer, 3), "con");
    committed->close(StreamClosePolicy::Commit);
    EXPECT_EQ(contentOf(location), "new content");
    EXPECT_EQ(tree().size(), 1u);
}

// A reader keeps the file it opened, as an open descriptor keeps its inode: whatever happens to the
// name part way through, the rest of the read is the old content.
TEST_P(StreamConformance, OpenReaderKeepsItsFileWhateverHappensToTheName)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const std::string old = "the old content, long enough to be read in several steps";
    const std::pair<const char*, std::function<void(const StorageIRI&)>> changes[] = {
        {"replaced by a commit",
         [&](const StorageIRI& location) {
             const auto out = provider->openTransactionalStream(location, {ByteStreamAccess::Write,
                                                                           ByteStreamCreation::CreateIfMissing, 0, 1});
             out->write("NEW", 3);
             out->close(StreamClosePolicy::Commit);
         }},
        {"removed", [&](const StorageIRI& location) { provider->removeFile(location); }},
        {"moved away, another moved in",
         [&](const StorageIRI& location) {
             provider->moveFile(location, below(u"away.txt"), provider::ReplacementPolicy::FailIfExists);
             provider->moveFile(fileWith(u"other.txt", "NEW"), location, provider::ReplacementPolicy::FailIfExists);
         }},
    };
    for (const auto& [name, change] : changes) {
        SCOPED_TRACE(name);
        const StorageIRI location = fileWith(u"file.txt", old);
        const auto reader = provider->openReadOnlyStream(location);
        std::string got(5, '\0');
        ASSERT_EQ(reader->read(got.data(), 5), 5);
        change(location);
        char chunk[7];
        for (std::streamsize n; (n = reader->read(chunk, sizeof chunk)) > 0;)
            got.append(chunk, static_cast<std::size_t>(n));
        EXPECT_EQ(got, old);
        EXPECT_EQ(reader->seek(0, std::ios_base::end), static_cast<std::streamoff>(old.size()));
        reader->close();
    }
}

// Streams of one provider on different files, plain and transactional, used by several threads at
// once while another thread lists the folder.
TEST_P(StreamConformance, StreamsOnDifferentFilesWorkFromSeveralThreadsAtOnce)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    constexpr int writers = 4;
    std::vector<std::function<void()>> tasks;
    for (int i = 0; i < writers; ++i) {
        tasks.push_back([&, i] {
            const std::string chunk(1000, static_cast<char>('a' + i));
            const auto plain = provider->openStream(below(u"plain" + ustring(1, u'0' + i)), {});
            const auto transaction = provider->openTransactionalStream(below(u"tx" + ustring(1, u'0' + i)), {});
            for (int round = 0; round < 50; ++round) {
                plain->write(chunk.data(), 1000);
                transaction->write(chunk.data(), 1000);
            }
            plain->close();
            transaction->close(StreamClosePolicy::Commit);
        });
    }
    tasks.push_back([&] {
        // Names only: temporary files come and go meanwhile.
        for (int round = 0; round < 20; ++round)
            for (auto it = provider->list(root, {}); it->hasNext();)
                it->next();
    });
    vfs_test::runTogether(tasks);
    for (int i = 0; i < writers; ++i) {
        const std::string expected(50000, static_cast<char>('a' + i));
        EXPECT_EQ(contentOf(below(u"plain" + ustring(1, u'0' + i))), expected);
        EXPECT_EQ(contentOf(below(u"tx" + ustring(1, u'0' + i))), expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Providers, StreamConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
