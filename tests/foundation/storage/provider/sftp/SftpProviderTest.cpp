// What is specific to the sftp provider; its behaviour as a provider is the conformance suites'.

#include <KitPrelude.hpp>

#include <cstdlib>
#include <fstream>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vfs_test {
namespace {

std::string slurp(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write(const provider::IProvider& storage, const StorageIRI& location, const std::string& content)
{
    auto stream = storage.openTransactionalStream(location, {});
    stream->write(content.data(), static_cast<std::streamsize>(content.size()));
    stream->close(provider::StreamClosePolicy::Commit);
}

// Names in a local folder, to see what the server side holds (also hidden leftovers).
std::vector<std::string> namesIn(const std::filesystem::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class SftpTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!server)
            GTEST_FAIL() << "server fixture not running (tests/servers/sshd-fixture.sh)";
        harness = std::make_unique<SftpHarness>(*server);
        storage = harness->provider();
        root = harness->root();
    }
    StorageIRI below(const ustring& relative) const { return StorageIRI(root, relative); }
    std::filesystem::path local(const std::string& relative) const { return harness->dir() / relative; }

    const std::optional<SftpServer> server = sftpServer();
    std::unique_ptr<SftpHarness> harness;
    std::shared_ptr<provider::IProvider> storage;
    StorageIRI root;
};

TEST_F(SftpTest, GenericFailuresOfTheServerAreToldApart)
{
    const StorageIRI file = below(u"file"), full = below(u"full"), target = below(u"target");
    write(*storage, file, "file");
    storage->createFolder(full);
    write(*storage, below(u"full/child"), "child");
    EXPECT_TRUE(failsWith([&] { storage->createFolder(file); }, ErrorCode::ResourceAlreadyExists, file));
    EXPECT_TRUE(failsWith([&] { storage->removeFolder(full); }, ErrorCode::FolderNotEmpty, full));
    struct Row {
        ReplacementPolicy policy;
        bool sourceNewer;
        bool replaced;
    };
    for (const Row row : {Row{ReplacementPolicy::FailIfExists, true, false}, Row{ReplacementPolicy::Replace, false, true},
                          Row{ReplacementPolicy::MergeFolders, false, true}, Row{ReplacementPolicy::MergeCollectingFailures, false, true},
                          Row{ReplacementPolicy::ReplaceIfNewer, false, false}, Row{ReplacementPolicy::ReplaceIfNewer, true, true}}) {
        SCOPED_TRACE(toString(row.policy) + std::string(row.sourceNewer ? ", source newer" : ", source older"));
        const StorageIRI source = below(u"source");
        write(*storage, source, "new");
        write(*storage, target, "old");
        const auto now = boost::posix_time::second_clock::universal_time();
        storage->setLastModified(row.sourceNewer ? target : source, now - boost::posix_time::hours(1));
        if (row.policy == ReplacementPolicy::FailIfExists)
            EXPECT_TRUE(failsWith([&] { storage->moveFile(source, target, row.policy); }, ErrorCode::ResourceAlreadyExists, target));
        else
            storage->moveFile(source, target, row.policy);
        EXPECT_EQ(slurp(local("target")), row.replaced ? "new" : "old");
        EXPECT_EQ(std::filesystem::exists(local("source")), !row.replaced);
        EXPECT_EQ(namesIn(harness->dir().path()),
                  (row.replaced ? std::vector<std::string>{"file", "full", "target"} : std::vector<std::string>{"file", "full", "source", "target"}));
        std::filesystem::remove(local("source"));
    }
}

TEST_F(SftpTest, HostAndUserKeysAreCheckedAndAnUnreachableHostFailsClearly)
{
    const std::string known = slurp((*server)["SFTP_KNOWN_HOSTS"]);
    const std::string userKey = slurp((*server)["SFTP_KEY"] + ".pub");
    // The user's public key stands in for a host key that changed.
    const std::string changed = known.substr(0, known.find(' ')) + " " + userKey.substr(0, userKey.rfind(' ')) + "\n";
    struct Row {
        const char* name;
        std::string knownHosts;
        std::string identity;
        ustring authority;
        ErrorCode code;
        const char* context;
    };
    const ustring authority = server->base().substr(7, server->base().size() - 8);
    // A port that takes connections and never says a word: the handshake must give up in time.
    const int silent = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(silent, 4), 0);
    ASSERT_EQ(::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const ustring silentHost = u"127.0.0.1:" + fl::i18n::utf8_to_ustring(std::to_string(ntohs(address.sin_port)));
    const std::vector<Row> rows{
        {"unknown host", "", (*server)["SFTP_KEY"], authority, ErrorCode::PermissionDenied, "known_hosts"},
        {"changed host key", changed, (*server)["SFTP_KEY"], authority, ErrorCode::PermissionDenied, "known_hosts"},
        {"key not authorised", known, (std::filesystem::path((*server)["SFTP_KEY"]).parent_path() / "host_key").string(), authority, ErrorCode::PermissionDenied, "authentication"},
        {"no key file", known, harness->dir().path().string() + "/missing", authority, ErrorCode::PermissionDenied, "authentication"},
        {"closed port", known, (*server)["SFTP_KEY"], u"127.0.0.1:1", ErrorCode::IOError, "connect"},
        {"silent host", known, (*server)["SFTP_KEY"], silentHost, ErrorCode::IOError, "timeout"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        harness->dir().writeFile("known_hosts", row.knownHosts);
        auto options = server->options();
        options.knownHostsFile = local("known_hosts").string();
        options.identityFile = row.identity;
        if (row.authority == silentHost)
            options.connectTimeout = std::chrono::milliseconds(500); // the others keep time for a loaded machine
        const StorageIRI location(u"sftp://" + row.authority + u"/tmp");
        EXPECT_TRUE(failsWith([&] { provider::sftp::makeSftpProvider(options)->exists(location); }, row.code, location, row.context));
        EXPECT_EQ(slurp(local("known_hosts")), row.knownHosts) << "a refused key is never recorded";
    }
    ::close(silent);
    // Accepting a new host records it; a changed key is refused all the same.
    auto options = server->options();
    options.knownHostsFile = local("known_hosts").string();
    options.acceptNewHostKeys = true;
    harness->dir().writeFile("known_hosts", "");
    EXPECT_EQ(provider::sftp::makeSftpProvider(options)->exists(root), provider::ExistenceType::Folder);
    options.acceptNewHostKeys = false;
    EXPECT_EQ(provider::sftp::makeSftpProvider(options)->exists(root), provider::ExistenceType::Folder);
    harness->dir().writeFile("known_hosts", changed);
    options.acceptNewHostKeys = true;
    EXPECT_TRUE(failsWith([&] { provider::sftp::makeSftpProvider(options)->exists(root); }, ErrorCode::PermissionDenied, root, "known_hosts"));
}

// A server of this test's own, whose sessions it kills while a stream writes.
TEST_F(SftpTest, ASessionKilledMidStreamFailsTheStreamLeavesTheTargetAloneAndTheNextCallReconnects)
{
    const TempDir serverDir;
    const std::string script = VFS_SSHD_FIXTURE, folder = serverDir.path().string();
    ASSERT_EQ(std::system((script + " start " + folder).c_str()), 0);
    const auto own = sftpServer((folder + "/env").c_str());
    ASSERT_TRUE(own.has_value());
    const auto storage = provider::sftp::makeSftpProvider(own->options());
    const StorageIRI target(StorageIRI(own->base()), fl::i18n::utf8_to_ustring(local("target").string()));
    write(*storage, target, "old");
    auto stream = storage->openTransactionalStream(target, {});
    const std::string chunk(std::size_t{3} << 20, 'x');
    stream->write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    ASSERT_EQ(std::system((script + " drop " + folder).c_str()), 0);
    std::optional<ErrorCode> failure;
    try {
        stream->write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        stream->close(provider::StreamClosePolicy::Commit);
    } catch (const provider::ByteStreamFailure& error) {
        failure = error.getErrorCode();
    }
    EXPECT_EQ(failure, ErrorCode::IOError);
    EXPECT_EQ(slurp(local("target")), "old");
    EXPECT_EQ(storage->exists(target), provider::ExistenceType::File);
    EXPECT_EQ(std::system((script + " stop " + folder).c_str()), 0);
}

TEST_F(SftpTest, EightThreadsShareOneProvider)
{
    std::vector<std::function<void()>> tasks;
    for (int t = 0; t < 8; ++t)
        tasks.push_back([&, t] {
            const ustring name = u"thread" + fl::i18n::utf8_to_ustring(std::to_string(t));
            const StorageIRI folder = below(name), file = below(name + u"/file"), moved = below(name + u"/moved");
            for (int round = 0; round < 3; ++round) {
                storage->createFolder(folder);
                write(*storage, file, std::string(std::size_t{100000} * (t + 1), 'a'));
                storage->moveFile(file, moved, ReplacementPolicy::FailIfExists);
                EXPECT_EQ(listedEntries(*storage, folder, {}).size(), 1u);
                EXPECT_EQ(storage->getFileAttributes(moved).getSize(), 100000u * (t + 1));
                storage->removeFile(moved);
                storage->removeFolder(folder);
            }
        });
    runTogether(tasks);
    EXPECT_TRUE(namesIn(harness->dir().path()).empty());
}

} // namespace
} // namespace vfs_test
