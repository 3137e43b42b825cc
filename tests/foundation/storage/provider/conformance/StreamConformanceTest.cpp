// Byte streams as every provider must offer them: open options, reading, writing and seeking,
// failures of the stream family, and transactional streams that publish whole files or nothing.
// What only reads runs on read-only storages too, their files staged by the harness.

#include <KitPrelude.hpp>

namespace {

class StreamConformance : public ProviderTest {
protected:
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
                makeFileWith(u"file.txt", "abcd");
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
    const StorageIRI folder = makeFolder(u"folder");
    EXPECT_TRUE(failsWith([&] { provider->openStream(folder, {}); }, ErrorCode::ResourceNotFound, folder));
    EXPECT_TRUE(failsWith([&] { provider->openTransactionalStream(folder, {}); }, ErrorCode::ResourceNotFound, folder));
    EXPECT_EQ(tree().size(), 1u);
}

// A reader goes anywhere in the file, forwards and back (inside a compressed entry too), and its
// failures belong to the operation that failed.
TEST_P(StreamConformance, ReadersSeekAnywhereAndFailAsTheirOperation)
{
    const std::string source = randomBytes(3 << 19, 1);
    const auto size = static_cast<std::streamoff>(source.size());
    const auto in = provider->openReadOnlyStream(makeFileWith(u"file.bin", source));
    std::mt19937 random(2);
    std::string chunk(5000, '\0');
    for (int i = 0; i < 40; ++i) {
        const auto at = static_cast<std::streamoff>(random() % source.size());
        ASSERT_EQ(in->seek(at, std::ios_base::beg), std::streampos(at));
        const std::streamsize got = in->read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        ASSERT_EQ(chunk.substr(0, static_cast<std::size_t>(got)), source.substr(static_cast<std::size_t>(at), chunk.size()));
    }
    EXPECT_EQ(in->seek(-3, std::ios_base::end), std::streampos(size - 3));
    EXPECT_EQ(in->read(chunk.data(), static_cast<std::streamsize>(chunk.size())), 3);
    EXPECT_EQ(in->read(chunk.data(), static_cast<std::streamsize>(chunk.size())), -1) << "the end of the file";
    EXPECT_EQ(in->read(chunk.data(), 0), 0);
    EXPECT_EQ(in->seek(-8, std::ios_base::cur), std::streampos(size - 8));
    EXPECT_EQ(streamFailure<provider::ByteStreamWriteFailure>([&] { in->write("x", 1); }), ErrorCode::PermissionDenied);
    EXPECT_EQ(streamFailure<provider::ByteStreamSeekFailure>([&] { in->seek(-1, std::ios_base::beg); }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(streamFailure<provider::ByteStreamSeekFailure>([&] { in->seek(-size - 1, std::ios_base::end); }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(in->read(chunk.data(), 1), 1) << "a failed seek leaves the stream usable";
    EXPECT_EQ(chunk[0], source[source.size() - 8]);
    const StorageIRI missing = below(u"missing.txt");
    EXPECT_TRUE(failsWith([&] { provider->openReadOnlyStream(missing); }, ErrorCode::ResourceNotFound, missing));
    const StorageIRI folder = makeFolder(u"folder");
    EXPECT_TRUE(failsWith([&] { provider->openReadOnlyStream(folder); }, ErrorCode::ResourceNotFound, folder));
}

TEST_P(StreamConformance, WritersWriteAtTheirPositionAndFailAsTheirOperation)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI location = makeFileWith(u"file.txt", "0123456789");
    const auto stream = provider->openStream(location, {ByteStreamAccess::ReadWrite, ByteStreamCreation::OpenExisting, 1, 1});
    EXPECT_EQ(stream->seek(-8, std::ios_base::end), std::streampos(2));
    EXPECT_EQ(stream->write("ab", 2), 2);
    EXPECT_EQ(stream->seek(0, std::ios_base::cur), std::streampos(4));
    // A write past the end fills the gap with zero bytes.
    EXPECT_EQ(stream->seek(12, std::ios_base::beg), std::streampos(12));
    stream->write("!", 1);
    stream->close();
    const std::string written("01ab456789\0\0!", 13);
    EXPECT_EQ(contentOf(location), written);
    const auto writer = provider->openStream(location, {});
    char buffer[4];
    EXPECT_EQ(streamFailure<provider::ByteStreamReadFailure>([&] { writer->read(buffer, 4); }), ErrorCode::PermissionDenied);
    writer->close();
    EXPECT_TRUE(streamFailure<provider::ByteStreamWriteFailure>([&] { writer->write("x", 1); }).has_value());
    EXPECT_TRUE(streamFailure<provider::ByteStreamCloseFailure>([&] { writer->close(); }).has_value());
    EXPECT_EQ(contentOf(location), written);
}

TEST_P(StreamConformance, TransactionalStreamsPublishTheWholeFileOnCommitOnly)
{
    VFS_SKIP_UNLESS(writable(), "read-only storage");
    const StorageIRI location = makeFileWith(u"file.txt", "old");
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
// name part way through (on a read-only storage, to the storage behind its back), the rest of the
// read is the old content.
TEST_P(StreamConformance, OpenReaderKeepsItsFileWhateverHappensToTheName)
{
    const std::string old = "the old content, long enough to be read in several steps";
    const std::pair<const char*, std::function<void(const StorageIRI&)>> changes[] = {
        {"replaced whole", [&](const StorageIRI&) { makeFileWith(u"file.txt", "NEW"); }},
        {"removed", [&](const StorageIRI& location) { provider->removeFile(location); }},
        {"moved away, another moved in",
         [&](const StorageIRI& location) {
             provider->moveFile(location, below(u"away.txt"), provider::ReplacementPolicy::FailIfExists);
             provider->moveFile(makeFileWith(u"other.txt", "NEW"), location, provider::ReplacementPolicy::FailIfExists);
         }},
    };
    for (const auto& [name, change] : changes) {
        SCOPED_TRACE(name);
        VFS_SKIP_UNLESS(writable() || name == changes[0].first, "read-only storage: changes through the provider");
        const StorageIRI location = makeFileWith(u"file.txt", old);
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

// Streams of one provider used by several threads at once while another thread lists the folder:
// readers of one file, each its own way through it, and where the storage can be written, plain and
// transactional writers of other files.
TEST_P(StreamConformance, StreamsWorkFromSeveralThreadsAtOnce)
{
    const std::string shared = randomBytes(1 << 20, 3);
    const StorageIRI read = makeFileWith(u"shared.bin", shared);
    constexpr int threads = 4;
    std::vector<std::function<void()>> tasks;
    for (int i = 0; i < threads; ++i) {
        tasks.push_back([&, i] {
            const auto in = provider->openReadOnlyStream(read);
            std::string chunk(4096, '\0');
            for (int round = 0; round < 20; ++round) {
                const auto at = static_cast<std::size_t>((i % 2 ? round : 19 - round) * 50000 + i * 1000);
                ASSERT_EQ(in->seek(static_cast<std::streamoff>(at), std::ios_base::beg), std::streampos(at));
                ASSERT_EQ(in->read(chunk.data(), 4096), 4096);
                ASSERT_EQ(chunk, shared.substr(at, 4096));
            }
        });
    }
    tasks.push_back([&] {
        // Names only: temporary files come and go meanwhile.
        for (int round = 0; round < 20; ++round)
            for (auto it = provider->list(root, {}); it->hasNext();)
                it->next();
    });
    if (!writable()) {
        runTogether(tasks);
        GTEST_SKIP() << "read-only storage: readers only";
    }
    for (int i = 0; i < threads; ++i) {
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
    runTogether(tasks);
    for (int i = 0; i < threads; ++i) {
        const std::string expected(50000, static_cast<char>('a' + i));
        EXPECT_EQ(contentOf(below(u"plain" + ustring(1, u'0' + i))), expected);
        EXPECT_EQ(contentOf(below(u"tx" + ustring(1, u'0' + i))), expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Providers, StreamConformance, testing::ValuesIn(allProviders()), providerName);

} // namespace
