// What only the archive providers have: hostile names and containers, an expansion limit,
// encryption, seeking in compressed entries, nesting, faults of the container's stream, and one
// index shared by many threads. Their ordinary behaviour is the kit's.

#ifdef VFS_TEST_ARCHIVE

#include <KitPrelude.hpp>

#include <foundation/storage/provider/decorators/CallCountingProvider.hpp>
#include <foundation/storage/provider/decorators/FaultInjectingProvider.hpp>

#include <csignal>
#include <sys/resource.h>

namespace {

using provider::archive::ArchiveFormat;
using Kind = ArchiveRecipe::Kind;

// zip:, tar: and mem: as a storage system would serve them, the memory volume `box` holding the
// containers.
struct Storages {
    std::shared_ptr<provider::IProvider> memory = provider::memory::makeMemoryProvider();
    std::shared_ptr<provider::IProvider> zip, tar;
    explicit Storages(std::shared_ptr<provider::IProvider> containers = nullptr)
    {
        const auto held = containers ? containers : memory;
        const auto resolve = [this, held](const StorageIRI& location) {
            return location.getScheme() == u"zip" ? zip : location.getScheme() == u"tar" ? tar : held;
        };
        zip = provider::archive::makeArchiveProvider({resolve}, archiveOptions(ArchiveFormat::Zip));
        tar = provider::archive::makeArchiveProvider({resolve}, archiveOptions(ArchiveFormat::Tar));
    }
    ~Storages() { zip.reset(), tar.reset(); } // the resolvers hold `this`, not the providers
    StorageIRI put(const ustring& name, const std::string& bytes) const
    {
        const StorageIRI location(u"mem://box/" + name);
        storeBytes(*memory, location, bytes);
        return location;
    }
    std::string read(const StorageIRI& location) const
    {
        const auto in = (location.getScheme() == u"zip" ? zip : tar)->openReadOnlyStream(location);
        std::string content(1 << 16, '\0'), all;
        for (std::streamsize got; (got = in->read(content.data(), static_cast<std::streamsize>(content.size()))) > 0;)
            all.append(content, 0, static_cast<std::size_t>(got));
        return all;
    }
};

TEST(ArchiveProviderTest, HostileNamesStayInsideAndDuplicatesResolveAsDocumented)
{
    for (const Kind kind : {Kind::Zip, Kind::Tar}) {
        Storages s;
        const std::string archive = makeArchive({{"../../etc/passwd", "x"}, {"/etc/passwd", "abs"}, {"a/../../b", "x"},
                                                 {"..\\..\\plain", "x"}, {"./ok//f.txt", "ok"},
                                                 {"dup", "first"}, {"dup", "second!"}, {"x", "file"}, {"x/y", "in"}},
                                                {kind, kind == Kind::Zip ? "deflate" : "", {}});
        const StorageIRI root(kind == Kind::Zip ? u"zip" : u"tar", s.put(u"h", archive), u"/");
        const auto& storage = kind == Kind::Zip ? *s.zip : *s.tar;
        using Tree = std::map<ustring, std::optional<std::uint64_t>>;
        EXPECT_EQ(treeOf(storage, root), (Tree{{u"..\\..\\plain", 1}, {u"dup", 7}, {u"etc", std::nullopt}, {u"etc/passwd", 3},
                                               {u"ok", std::nullopt}, {u"ok/f.txt", 2}, {u"x", std::nullopt}, {u"x/y", 2}}));
        EXPECT_EQ(s.read(StorageIRI(root, u"dup")), "second!");
    }
}

TEST(ArchiveProviderTest, BadContainersFailNamingTheContainerAndBombsStopAtTheLimit)
{
    Storages s;
    const std::string zip = makeArchive({{"f", randomBytes(100000, 1)}});
    const std::string targz = makeArchive({{"f", randomBytes(100000, 2)}}, {Kind::Tar, "gzip", {}});
    const struct {
        const char* name;
        std::string bytes;
        Kind kind;
    } rows[] = {{"not an archive", "hello, world", Kind::Zip}, {"empty", "", Kind::Zip},
                {"truncated zip", zip.substr(0, zip.size() - 30), Kind::Zip}, {"not a tar", std::string(700, 'x'), Kind::Tar},
                {"truncated tar.gz", targz.substr(0, targz.size() / 2), Kind::Tar}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const StorageIRI container = s.put(u"bad", row.bytes);
        const StorageIRI entry(row.kind == Kind::Zip ? u"zip" : u"tar", container, u"/f");
        const auto& storage = row.kind == Kind::Zip ? *s.zip : *s.tar;
        EXPECT_TRUE(failsWith([&] { storage.exists(entry); if (row.kind == Kind::Tar) s.read(entry); }, ErrorCode::IOError, container))
            << row.name;
    }
    EXPECT_TRUE(failsWith([&] { s.zip->getFileAttributes(StorageIRI(u"zip:mem://box/none!/f")); }, ErrorCode::ResourceNotFound,
                          StorageIRI(u"mem://box/none"), "container"));

    // The tar.gz expands beyond the limit as a whole too: its entries are read without a
    // decompressed copy of it.
    const std::vector<ArchiveItem> bombEntries{{"small", "small"}, {"zeros", std::string(1 << 20, '\0')}};
    boost::property_tree::ptree limit;
    limit.put("expansionLimitBytes", "65536");
    s.zip->configure(limit);
    s.tar->configure(limit);
    for (const Kind kind : {Kind::Zip, Kind::Tar}) {
        const bool zip = kind == Kind::Zip;
        const StorageIRI root(zip ? u"zip" : u"tar", s.put(u"bomb", makeArchive(bombEntries, {kind, zip ? "deflate" : "gzip", {}})), u"/");
        const StorageIRI bomb(root, u"zeros"), target(u"mem://out/zeros");
        EXPECT_TRUE(failsWith([&] { (zip ? s.zip : s.tar)->openReadOnlyStream(bomb); }, ErrorCode::NoSpaceLeft, bomb, "expansion-limit"));
        EXPECT_TRUE(failsWith([&] { (zip ? s.zip : s.tar)->copyFile(bomb, *s.memory, target, {}); }, ErrorCode::NoSpaceLeft, bomb));
        EXPECT_EQ(s.memory->exists(target), provider::ExistenceType::NotFound);
        EXPECT_EQ(s.read(StorageIRI(root, u"small")), "small");
    }
}

TEST(ArchiveProviderTest, EncryptedEntriesNeedThePassphrase)
{
    Storages s;
    const StorageIRI secret(u"zip", s.put(u"e.zip", makeArchive({{"s", "secret"}}, {Kind::Zip, "deflate", "pw"})), u"/s");
    EXPECT_TRUE(failsWith([&] { s.read(secret); }, ErrorCode::PermissionDenied, secret));
    boost::property_tree::ptree settings;
    settings.put("passphrase", "pw");
    s.zip->configure(settings);
    EXPECT_EQ(s.read(secret), "secret");
}

// The kit seeks in deflated zip, tar and tar.gz entries; here the shapes it does not stage.
TEST(ArchiveProviderTest, RandomSeeksReadTheSourceBytesInEveryEntryShape)
{
    Storages s;
    const std::string source = randomBytes(3 << 20, 3);
    const StorageIRI entries[] = {
        StorageIRI(u"zip", s.put(u"s.zip", makeArchive({{"f", source}}, {Kind::Zip, "store", {}})), u"/f"),
        StorageIRI(u"tar", s.put(u"t.tar.xz", makeArchive({{"f", source}}, {Kind::Tar, "xz", {}})), u"/f"),
    };
    std::mt19937 random(4);
    for (const StorageIRI& entry : entries) {
        SCOPED_TRACE(text(entry));
        const auto in = (entry.getScheme() == u"zip" ? s.zip : s.tar)->openReadOnlyStream(entry);
        std::string chunk(5000, '\0');
        for (int i = 0; i < 60; ++i) {
            const auto at = static_cast<std::streamoff>(random() % source.size());
            // Mostly short hops forward, sometimes far away in either direction.
            ASSERT_EQ(in->seek(at, std::ios_base::beg), at);
            const std::streamsize got = in->read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
            ASSERT_EQ(chunk.substr(0, static_cast<std::size_t>(got)), source.substr(static_cast<std::size_t>(at), chunk.size()));
        }
    }
}

TEST(ArchiveProviderTest, ArchivesNestInArchivesAndInAnyStorage)
{
    Storages s;
    const std::string inner = makeArchive({{"deep/x.txt", "nested"}});
    s.put(u"outer.zip", makeArchive({{"inner.zip", inner}, {"stored/inner.zip", inner}}, {Kind::Zip, "deflate", {}}));
    s.put(u"outer.tgz", makeArchive({{"in/inner.zip", inner}}, {Kind::Tar, "gzip", {}}));
    for (const ustring iri : {u"zip:zip:mem://box/outer.zip!/inner.zip!/deep/x.txt", u"zip:zip:mem://box/outer.zip!/stored/inner.zip!/deep/x.txt",
                              u"zip:tar:mem://box/outer.tgz!/in/inner.zip!/deep/x.txt"})
        EXPECT_EQ(s.read(StorageIRI(iri)), "nested") << fl::i18n::ustring_to_utf8(iri);
}

TEST(ArchiveProviderTest, FaultsOfTheContainerStreamReachTheCallerAsTheirOwnFailures)
{
    auto faulty = std::make_shared<provider::decorators::FaultInjectingProvider>(provider::memory::makeMemoryProvider());
    Storages s(faulty);
    const StorageIRI container(u"mem://box/f.zip");
    storeBytes(*faulty, container, makeArchive({{"f", randomBytes(2 << 20, 5)}}));
    const StorageIRI entry(u"zip", container, u"/f");
    using Op = provider::decorators::ProviderOperation;
    const auto fault = faulty->addFault({Op::StreamRead, std::nullopt, ErrorCode::IOError, provider::decorators::FaultInjectingProvider::Trigger::Once});
    EXPECT_TRUE(failsWith([&] { s.zip->exists(entry); }, ErrorCode::IOError, container, "container-read"));
    faulty->removeFault(fault);
    const auto in = s.zip->openReadOnlyStream(entry);
    faulty->addFault({Op::StreamRead, std::nullopt, ErrorCode::PermissionDenied, provider::decorators::FaultInjectingProvider::Trigger::Always});
    std::string chunk(2 << 20, '\0'); // more than the cached blocks hold
    const auto failure = thrown<provider::ByteStreamReadFailure>([&] {
        while (in->read(chunk.data(), 2 << 20) > 0) {
        }
    });
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->getErrorCode(), ErrorCode::PermissionDenied);
}

// A change that fails part way (a full disk, a failed commit, an entry beyond the expansion limit)
// leaves the old archive byte for byte; one that succeeds copies the entries it does not touch as
// they are stored (a stored entry stays stored), keeps the folders they implied, and nests.
TEST(ArchiveProviderTest, ZipChangesCommitWholeOrLeaveTheOldArchive)
{
    auto faulty = std::make_shared<provider::decorators::FaultInjectingProvider>(provider::memory::makeMemoryProvider());
    Storages s(faulty);
    const std::string kept = randomBytes(300000, 6);
    const StorageIRI container(u"mem://box/w.zip"), root(u"zip", container, u"/"), file(root, u"docs/kept.txt");
    storeBytes(*faulty, container, makeArchive({{"docs/kept.txt", kept}}, {Kind::Zip, "store", {}}));
    const auto containerBytes = [&] {
        const auto in = faulty->openReadOnlyStream(container);
        std::string all(4 << 20, '\0');
        all.resize(static_cast<std::size_t>(std::max<std::streamsize>(0, in->read(all.data(), 4 << 20))));
        return all;
    };
    const std::string before = containerBytes();
    using Op = provider::decorators::ProviderOperation;
    using Trigger = provider::decorators::FaultInjectingProvider::Trigger;
    boost::property_tree::ptree limit;
    limit.put("expansionLimitBytes", "65536");
    const struct {
        const char* name;
        std::optional<provider::decorators::FaultInjectingProvider::Fault> fault;
        std::function<void()> change;
        ErrorCode code;
    } rows[] = {
        {"disk full part way", {{Op::StreamWrite, container, ErrorCode::NoSpaceLeft, Trigger::AfterN, 1}},
         [&] { s.zip->createFile(StorageIRI(root, u"new.txt")); }, ErrorCode::NoSpaceLeft},
        {"commit refused", {{Op::StreamClose, container, ErrorCode::IOError, Trigger::Once}},
         [&] { s.zip->removeFile(file); }, ErrorCode::IOError},
        {"beyond the expansion limit", std::nullopt, [&] {
             s.zip->configure(limit);
             const auto out = s.zip->openTransactionalStream(StorageIRI(root, u"big"), {});
             out->write(kept.data(), 70000);
         }, ErrorCode::NoSpaceLeft},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto fault = row.fault ? faulty->addFault(*row.fault) : 0;
        if (!row.fault) { // a stream's write fails
            const auto failure = thrown<provider::ByteStreamWriteFailure>(row.change);
            EXPECT_EQ(failure ? failure->getErrorCode() : ErrorCode::Unknown, row.code);
        } else {
            EXPECT_TRUE(failsWith(row.change, row.code, container));
        }
        faulty->removeFault(fault);
        EXPECT_EQ(containerBytes(), before);
    }
    s.zip->createFile(StorageIRI(root, u"new.txt"));
    EXPECT_NE(containerBytes().find(kept), std::string::npos) << "the stored entry was copied as it was";
    s.zip->removeFile(file);
    EXPECT_EQ(s.zip->exists(file.getParent()), provider::ExistenceType::Folder) << "the folder it implied stays";

    const StorageIRI nested(u"zip:zip:mem://box/w.zip!/docs/inner.zip!/x.txt");
    const auto out = s.zip->openTransactionalStream(nested, {});
    out->write("nested", 6);
    out->close(provider::StreamClosePolicy::Commit);
    EXPECT_EQ(s.read(nested), "nested");

    faulty->createFolder(StorageIRI(u"mem://box/folder"));
    EXPECT_TRUE(failsWith([&] { s.zip->createFile(StorageIRI(u"zip:mem://box/folder!/f")); }, ErrorCode::ResourceNotFound,
                          StorageIRI(u"mem://box/folder"), "container"));
}

// A batch writes the archive once, when it ends; until then readers see the old archive. A change
// of the batch that fails leaves the others in it; a batch whose commit fails leaves the old archive.
TEST(ArchiveProviderTest, ABatchWritesTheArchiveOnceWhenItEnds)
{
    auto faulty = std::make_shared<provider::decorators::FaultInjectingProvider>(provider::memory::makeMemoryProvider());
    auto counted = std::make_shared<provider::decorators::CallCountingProvider>(faulty);
    Storages s(counted);
    const StorageIRI container(u"mem://box/b.zip"), root(u"zip", container, u"/");
    storeBytes(*faulty, container, makeArchive({{"old", "old"}}));
    const auto& batching = dynamic_cast<const provider::extensions::IChangeBatching&>(*s.zip);
    using Op = provider::decorators::ProviderOperation;
    // Deflated on other threads while the batch goes on: small, random and repetitive contents.
    const std::string contents[] = {"new", randomBytes(300000, 7), std::string(500000, 'x'), randomBytes(9000, 8) + std::string(90000, 'y')};
    const auto name = [](std::size_t i) { return u"/" + ustring(1, static_cast<char16_t>(u'1' + i)); };
    for (const bool commitFails : {false, true}) {
        SCOPED_TRACE(commitFails ? "the commit fails" : "the commit succeeds");
        const ustring folder = commitFails ? u"/e" : u"/d";
        counted->reset();
        batching.beginBatch(root);
        s.zip->createFolder(StorageIRI(root, folder));
        for (std::size_t i = 0; i < std::size(contents); ++i)
            storeBytes(*s.zip, StorageIRI(root, folder + name(i)), contents[i]);
        EXPECT_TRUE(failsWith([&] { s.zip->openTransactionalStream(StorageIRI(root, u"/none/x"), {}); }, ErrorCode::ResourceNotFound,
                              StorageIRI(root, u"/none/x")));
        s.zip->setLastModified(StorageIRI(root, folder), boost::posix_time::from_time_t(1'000'000'000));
        EXPECT_EQ(s.zip->exists(StorageIRI(root, folder)), provider::ExistenceType::NotFound) << "readers see the old archive";
        EXPECT_EQ(s.read(StorageIRI(root, u"/old")), "old");
        EXPECT_EQ(counted->count(Op::OpenTransactionalStream), 0u);
        const auto fault = commitFails ? faulty->addFault({Op::StreamClose, container, ErrorCode::IOError,
                                                           provider::decorators::FaultInjectingProvider::Trigger::Once})
                                       : 0;
        if (commitFails)
            EXPECT_TRUE(failsWith([&] { batching.endBatch(root); }, ErrorCode::IOError, container));
        else
            batching.endBatch(root);
        faulty->removeFault(fault);
        EXPECT_EQ(counted->count(Op::OpenTransactionalStream), 1u) << "one write of the archive";
        EXPECT_EQ(s.zip->exists(StorageIRI(root, folder + u"/2")), commitFails ? provider::ExistenceType::NotFound : provider::ExistenceType::File);
        EXPECT_EQ(s.read(StorageIRI(root, u"/old")), "old");
    }
    for (std::size_t i = 0; i < std::size(contents); ++i)
        EXPECT_EQ(s.read(StorageIRI(root, u"/d" + name(i))), contents[i]);
    EXPECT_EQ(s.zip->getFolderAttributes(StorageIRI(root, u"/d")).getLastModified(), boost::posix_time::from_time_t(1'000'000'000));

    // Files are deflated into a temporary file that takes no more bytes past 200 kB (the process's
    // file size limit): the batch fails as it ends and leaves the archive as it was.
    batching.beginBatch(root);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{200000, before.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &small);
    for (std::size_t i = 0; i < 4; ++i)
        storeBytes(*s.zip, StorageIRI(root, u"/f" + name(i)), randomBytes(100000, 10 + static_cast<unsigned>(i)));
    EXPECT_TRUE(failsWith([&] { batching.endBatch(root); }, ErrorCode::IOError, container));
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(s.zip->exists(StorageIRI(root, u"/f")), provider::ExistenceType::NotFound);
    EXPECT_EQ(s.read(StorageIRI(root, u"/d/2")), contents[1]);
}

TEST(ArchiveProviderTest, OneIndexServesManyThreadsWhileTheContainerChanges)
{
    Storages s;
    const std::string versions[] = {makeArchive({{"a/f", "one"}, {"b", "1"}}), makeArchive({{"a/f", "two!"}, {"b", "2"}})};
    const StorageIRI file(u"zip", s.put(u"c.zip", versions[0]), u"/a/f");
    std::vector<std::function<void()>> tasks(3, [&] {
        for (int i = 0; i < 40; ++i) {
            const std::string content = s.read(file);
            EXPECT_TRUE(content == "one" || content == "two!") << content;
            EXPECT_EQ(listedEntries(*s.zip, file.getParent().getParent(), makeListOptions(provider::ListKind::All, true, {}, true)).size(), 3u);
        }
    });
    tasks.push_back([&] {
        for (int i = 0; i < 20; ++i)
            s.put(u"c.zip", versions[i % 2]);
    });
    runTogether(tasks);
}

} // namespace

#endif
