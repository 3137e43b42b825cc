#pragma once

// What provider tests need from each provider under test: the provider, a folder of its own to
// work in, and the locations of its scheme it must refuse. A new provider joins every suite built
// on this by one harness class and one entry in allProviders().

#include "ExceptionCapture.hpp"
#include "TempDir.hpp"

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/IProvider.hpp>
#include <foundation/storage/provider/decorators/FeatureMaskingProvider.hpp>
#include <foundation/storage/provider/local/LocalProvider.hpp>
#include <foundation/storage/provider/memory/MemoryProvider.hpp>
#ifdef VFS_TEST_SFTP
#include <foundation/storage/provider/sftp/SftpProvider.hpp>
#endif

// Programs that run with the s3 server fixture define VFS_TEST_S3_FIXTURE.
#if defined(VFS_TEST_S3_FIXTURE) && __has_include(<foundation/storage/provider/s3/S3Provider.hpp>)
#include <foundation/storage/provider/s3/S3Provider.hpp>
#include <boost/property_tree/ptree.hpp>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <unistd.h>
#define VFS_TEST_S3 1
#endif

#include <fl/i18n/ustring.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vfs_test {

namespace provider = foundation::storage::provider;
using fl::i18n::ustring;
using provider::StorageIRI;

// Writes `bytes` as the file at `location`, whole, through a transactional stream (missing folders
// on the way made first).
inline void storeBytes(const provider::IProvider& storage, const StorageIRI& location, const std::string& bytes)
{
    storage.createFolderRecursive(location.getParent());
    const auto out = storage.openTransactionalStream(location, {provider::ByteStreamAccess::Write,
                                                                provider::ByteStreamCreation::CreateIfMissing, 0, 1});
    out->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out->close(provider::StreamClosePolicy::Commit);
}

// `size` bytes made from `seed`: compressible, not trivially.
inline std::string randomBytes(std::size_t size, unsigned seed)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (auto& byte : bytes)
        byte = static_cast<char>(random() % 7 == 0 ? random() : 'a' + random() % 4);
    return bytes;
}

class ProviderHarness {
public:
    virtual ~ProviderHarness() = default;

    virtual std::shared_ptr<provider::IProvider> provider() const = 0;
    // An existing, empty folder that belongs to this test alone.
    virtual StorageIRI root() const = 0;
    // Locations of the provider's own scheme that it must refuse with InvalidLocation.
    virtual std::vector<StorageIRI> malformedLocations() const = 0;

    // Trees are built through the provider itself, so a provider that cannot create what its
    // tests need fails here first. A read-only storage's harness builds them behind its back.
    virtual StorageIRI makeFolder(const ustring& relative) const
    {
        const StorageIRI location(root(), relative);
        provider()->createFolderRecursive(location);
        return location;
    }
    // The file at `relative` below root() (missing folders on the way too) holding `bytes`, made
    // anew or replaced whole: a reader opened before keeps what it had.
    virtual StorageIRI makeFileWith(const ustring& relative, const std::string& bytes) const
    {
        storeBytes(*provider(), StorageIRI(root(), relative), bytes);
        return StorageIRI(root(), relative);
    }
    // A file of `size` zero bytes.
    StorageIRI makeFile(const ustring& relative, std::uint64_t size = 0) const
    {
        return makeFileWith(relative, std::string(size, '\0'));
    }
};

class LocalHarness final : public ProviderHarness {
public:
    LocalHarness() : m_root(provider::toStorageIRI(u"", m_dir.path())) {}

    std::shared_ptr<provider::IProvider> provider() const override { return m_provider; }
    StorageIRI root() const override { return m_root; }
    std::vector<StorageIRI> malformedLocations() const override
    {
        return {StorageIRI(u"file://remote.example/tmp/a"), StorageIRI(m_root, ustring(u"a\0b", 3))};
    }

    const TempDir& dir() const noexcept { return m_dir; }

private:
    TempDir m_dir;
    std::shared_ptr<provider::IProvider> m_provider = provider::local::makeLocalProvider();
    StorageIRI m_root;
};

// Each harness has a provider of its own, so the root of one of its volumes is the test's alone.
class MemoryHarness final : public ProviderHarness {
public:
    std::shared_ptr<provider::IProvider> provider() const override { return m_provider; }
    StorageIRI root() const override { return m_root; }
    std::vector<StorageIRI> malformedLocations() const override
    {
        return {StorageIRI(u"mem:///a"), StorageIRI(u"mem://volume"), StorageIRI(m_root, ustring(u"a\0b", 3))};
    }

private:
    std::shared_ptr<provider::IProvider> m_provider = provider::memory::makeMemoryProvider();
    StorageIRI m_root{u"mem://harness/"};
};

#ifdef VFS_TEST_SFTP
// The OpenSSH server the test fixture started (tests/servers/sshd-fixture.sh), as its env file
// (named by VFS_SFTP_FIXTURE) describes it; nullopt when that file is absent.
struct SftpServer {
    std::map<std::string, std::string> values;
    const std::string& operator[](const std::string& key) const { return values.at(key); }
    // sftp://USER@HOST:PORT/
    ustring base() const { return fl::i18n::utf8_to_ustring("sftp://" + values.at("SFTP_USER") + "@" + values.at("SFTP_HOST") + ":" + values.at("SFTP_PORT") + "/"); }
    // Key file and known_hosts of the fixture, nothing of the user's own.
    provider::sftp::SftpProviderOptions options() const
    {
        provider::sftp::SftpProviderOptions options;
        options.identityFile = values.at("SFTP_KEY");
        options.knownHostsFile = values.at("SFTP_KNOWN_HOSTS");
        options.useAgent = false;
        return options;
    }
};

inline std::optional<SftpServer> sftpServer(const char* file = std::getenv("VFS_SFTP_FIXTURE"))
{
    std::ifstream in(file ? file : "");
    if (!in)
        return std::nullopt;
    SftpServer server;
    for (std::string line; std::getline(in, line);)
        if (const auto equals = line.find('='); equals != std::string::npos)
            server.values[line.substr(0, equals)] = line.substr(equals + 1);
    return server;
}

// A fresh local folder, reached over SFTP on the loopback server.
class SftpHarness final : public ProviderHarness {
public:
    explicit SftpHarness(const SftpServer& server)
        : m_provider(provider::sftp::makeSftpProvider(server.options())),
          m_root(StorageIRI(server.base()), fl::i18n::utf8_to_ustring(m_dir.path().string() + "/"))
    {
    }

    std::shared_ptr<provider::IProvider> provider() const override { return m_provider; }
    StorageIRI root() const override { return m_root; }
    std::vector<StorageIRI> malformedLocations() const override
    {
        return {StorageIRI(u"sftp:///tmp/a"), StorageIRI(m_root, ustring(u"a\0b", 3))};
    }
    const TempDir& dir() const noexcept { return m_dir; }

private:
    TempDir m_dir;
    std::shared_ptr<provider::IProvider> m_provider;
    StorageIRI m_root;
};
#endif


#ifdef VFS_TEST_S3
// The settings of the test cluster's user, from the file the server fixture writes (its path in
// VFS_S3_ENV). The s3 entries are listed whenever the provider is built, since tests are listed
// before any fixture runs; without the file every s3 test fails, none passes unseen.
inline boost::property_tree::ptree s3TestSettings()
{
    const char* path = std::getenv("VFS_S3_ENV");
    std::ifstream in(path ? path : "");
    if (!path || !in)
        throw std::runtime_error("server fixture not running: VFS_S3_ENV names no readable file");
    const std::map<std::string, std::string> keys = {{"AWS_ENDPOINT_URL", "endpoint"}, {"AWS_ACCESS_KEY_ID", "accessKeyId"},
                                                     {"AWS_SECRET_ACCESS_KEY", "secretAccessKey"}, {"AWS_REGION", "region"}};
    boost::property_tree::ptree settings;
    for (std::string line; std::getline(in, line);)
        if (const auto found = keys.find(line.substr(0, line.find('='))); found != keys.end())
            settings.put(found->second, line.substr(line.find('=') + 1));
    settings.put("addressing", "path");
    return settings;
}

// Each harness works below a fresh prefix of one test bucket, removed afterwards.
class S3Harness final : public ProviderHarness {
public:
    S3Harness()
    {
        static std::atomic<int> counter{0};
        m_provider->configure(s3TestSettings());
        const StorageIRI bucket(u"s3://vfs-tests/");
        if (!m_provider->folderExists(bucket))
            m_provider->createFolder(bucket);
        m_root = StorageIRI(bucket, fl::i18n::utf8_to_ustring("h" + std::to_string(::getpid()) + "-" +
                                                              std::to_string(counter++) + "-" + std::to_string(std::rand())));
        m_provider->createFolder(m_root);
    }
    ~S3Harness() override
    {
        try {
            m_provider->removeFolderRecursively(m_root);
        } catch (const std::exception&) {
            // Left to the cluster, which is removed after the run.
        }
    }

    std::shared_ptr<provider::IProvider> provider() const override { return m_provider; }
    StorageIRI root() const override { return m_root; }
    std::vector<StorageIRI> malformedLocations() const override
    {
        return {StorageIRI(u"s3:///a"), StorageIRI(m_root, ustring(u"a\0b", 3))};
    }

private:
    std::shared_ptr<provider::IProvider> m_provider = provider::s3::makeS3Provider();
    StorageIRI m_root;
};
#endif
// The memory provider seen through FeatureMaskingProvider as a read-only storage without native
// recursion or watching: the suites' skips and the library's fallbacks run against it. Trees are
// built on the unmasked provider underneath.
class ReadOnlyMemoryHarness final : public ProviderHarness {
public:
    std::shared_ptr<provider::IProvider> provider() const override { return m_masked; }
    StorageIRI root() const override { return m_root; }
    std::vector<StorageIRI> malformedLocations() const override { return {StorageIRI(u"mem:///a")}; }
    StorageIRI makeFolder(const ustring& relative) const override
    {
        const StorageIRI location(m_root, relative);
        m_memory->createFolderRecursive(location);
        return location;
    }
    StorageIRI makeFileWith(const ustring& relative, const std::string& bytes) const override
    {
        storeBytes(*m_memory, StorageIRI(m_root, relative), bytes);
        return StorageIRI(m_root, relative);
    }

private:
    std::shared_ptr<provider::IProvider> m_memory = provider::memory::makeMemoryProvider();
    std::shared_ptr<provider::IProvider> m_masked = std::make_shared<provider::decorators::FeatureMaskingProvider>(
        m_memory,
        std::set{provider::ExtendedFeature::RecursiveListing, provider::ExtendedFeature::RecursiveRemoval,
                 provider::ExtendedFeature::RecursiveWildcardListing, provider::ExtendedFeature::RecursiveWatching},
        std::set{provider::decorators::HiddenAbility::Writing, provider::decorators::HiddenAbility::Watching});
    StorageIRI m_root{u"mem://harness/"};
};

} // namespace vfs_test

#ifdef VFS_TEST_ARCHIVE
#include "ArchiveHarness.hpp"
#endif

namespace vfs_test {

struct ProviderUnderTest {
    std::string name;
    std::function<std::unique_ptr<ProviderHarness>()> make;
    friend std::ostream& operator<<(std::ostream& out, const ProviderUnderTest& p) { return out << p.name; }
};

inline std::vector<ProviderUnderTest> allProviders()
{
    std::vector<ProviderUnderTest> providers{
        {"Local", [] { return std::make_unique<LocalHarness>(); }},
        {"Memory", [] { return std::make_unique<MemoryHarness>(); }},
        {"ReadOnlyMemory", [] { return std::make_unique<ReadOnlyMemoryHarness>(); }},
#ifdef VFS_TEST_ARCHIVE
        {"Zip", [] { return std::make_unique<ArchiveHarness>(ArchiveRecipe{ArchiveRecipe::Kind::Zip, "deflate", {}}); }},
        {"Tar", [] { return std::make_unique<ArchiveHarness>(ArchiveRecipe{ArchiveRecipe::Kind::Tar, "", {}}); }},
        {"TarGz", [] { return std::make_unique<ArchiveHarness>(ArchiveRecipe{ArchiveRecipe::Kind::Tar, "gzip", {}}); }},
#endif
    };
#ifdef VFS_TEST_SFTP
    // Listed whether or not the server runs (the tests are discovered without it): without it each
    // of its tests fails, never passes.
    providers.push_back({"Sftp", [] {
                             const auto server = sftpServer();
                             if (!server)
                                 throw std::runtime_error("server fixture not running (tests/servers/sshd-fixture.sh)");
                             return std::make_unique<SftpHarness>(*server);
                         }});
#endif
#ifdef VFS_TEST_S3
    providers.push_back({"S3", [] { return std::make_unique<S3Harness>(); }});
#endif
    return providers;
}

inline std::string providerName(const testing::TestParamInfo<ProviderUnderTest>& info)
{
    return info.param.name;
}

// Locations no provider of this library serves.
inline std::vector<StorageIRI> foreignLocations(const StorageIRI& root)
{
    return {StorageIRI(u"bogus://volume/a"), StorageIRI(u"http://example.com/a"), StorageIRI(root.getScheme() == u"zip" ? u"tar" : u"zip", root, u"/a")};
}

// The provider exception `call` throws; nullopt when it returns normally. Other exceptions pass.
template <class Call>
std::optional<provider::Exception> providerError(Call&& call)
{
    return thrown<provider::Exception>(std::forward<Call>(call));
}

// Whether `call` fails with a provider Exception of `code` concerning one of `locations`, with
// `context` among its context keys when one is given.
inline testing::AssertionResult failsWith(const std::function<void()>& call, provider::ErrorCode code,
                                          const std::vector<StorageIRI>& locations, const char* context = nullptr)
{
    std::optional<provider::Exception> error;
    try {
        call();
    } catch (const provider::Exception& thrownError) {
        error = thrownError;
    } catch (...) {
        return testing::AssertionFailure() << "threw " << describeCurrentException();
    }
    if (!error)
        return testing::AssertionFailure() << "nothing was thrown, expected " << toString(code);
    const std::string where = fl::i18n::ustring_to_utf8(error->getStorageIRI().toString());
    const std::string contexts = fl::i18n::ustring_to_utf8(provider::joinContextKeys(error->getAllExceptionContexts()));
    const auto describe = [&] { return std::string(toString(error->getErrorCode())) + " at " + where + " [" + contexts + "]"; };
    if (error->getErrorCode() != code)
        return testing::AssertionFailure() << "threw " << describe() << ", expected " << toString(code);
    bool atLocation = false;
    for (const auto& location : locations)
        atLocation = atLocation || error->getStorageIRI() == location;
    if (!atLocation)
        return testing::AssertionFailure() << "threw " << describe() << " at an unexpected location";
    if (context) {
        bool found = false;
        for (const auto& each : error->getAllExceptionContexts())
            found = found || fl::i18n::ustring_to_utf8(each.getExceptionContextKey()) == context;
        if (!found)
            return testing::AssertionFailure() << "threw " << describe() << " without the context " << context;
    }
    return testing::AssertionSuccess();
}

inline testing::AssertionResult failsWith(const std::function<void()>& call, provider::ErrorCode code,
                                          const StorageIRI& location, const char* context = nullptr)
{
    return failsWith(call, code, std::vector<StorageIRI>{location}, context);
}

// One row of a table of refused calls: what is called, and how it must fail.
struct Refusal {
    const char* name;
    std::function<void()> call;
    provider::ErrorCode code;
    std::vector<StorageIRI> locations;
    const char* context = nullptr;
};

inline void expectRefusals(const std::vector<Refusal>& rows)
{
    for (const Refusal& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_TRUE(failsWith(row.call, row.code, row.locations, row.context));
    }
}

// The entries below `folder`: relative path -> size for a file, nullopt for a folder. Walks with
// names-only flat listings, so it works whatever the provider's optional features.
inline std::map<ustring, std::optional<std::uint64_t>> treeOf(const provider::IProvider& storage,
                                                                const StorageIRI& folder, const ustring& prefix = {})
{
    std::map<ustring, std::optional<std::uint64_t>> tree;
    for (auto it = storage.list(folder, provider::ListOptions{}); it->hasNext();) {
        it->next();
        const provider::FolderEntry entry = it->current();
        const StorageIRI location(folder, entry.getName());
        if (entry.isFile()) {
            tree[prefix + entry.getName()] = storage.getFileAttributes(location).getSize();
        } else {
            tree[prefix + entry.getName()] = std::nullopt;
            tree.merge(treeOf(storage, location, prefix + entry.getName() + u"/"));
        }
    }
    return tree;
}

// Everything `it` still yields, in order.
inline std::vector<provider::FolderEntry> remainingEntries(provider::IFolderEntryIterator& it)
{
    std::vector<provider::FolderEntry> entries;
    while (it.hasNext()) {
        it.next();
        entries.push_back(it.current());
    }
    return entries;
}

inline std::vector<provider::FolderEntry> listedEntries(const provider::IProvider& storage, const StorageIRI& folder,
                                                        const provider::ListOptions& options)
{
    return remainingEntries(*storage.list(folder, options));
}

inline provider::ListOptions makeListOptions(provider::ListKind kind, bool withAttributes, ustring pattern = {},
                                             bool recursive = false)
{
    provider::ListOptions options;
    options.kind = kind;
    options.withAttributes = withAttributes;
    options.pattern = std::move(pattern);
    options.recursive = recursive;
    return options;
}

// The entries' names as the bytes they have on disk, in order; with `markFolders`, folders' names
// end in '/'.
inline std::vector<std::string> entryNames(const std::vector<provider::FolderEntry>& entries, bool markFolders = false)
{
    std::vector<std::string> names;
    for (const auto& entry : entries)
        names.push_back(fl::i18n::ustring_to_native(entry.getName()) + (markFolders && !entry.isFile() ? "/" : ""));
    return names;
}

// A fixture run once for each provider of allProviders(): its harness, the provider, and the
// harness's root folder.
class ProviderTest : public testing::TestWithParam<ProviderUnderTest> {
protected:
    StorageIRI below(const ustring& relative) const { return StorageIRI(root, relative); }
    StorageIRI makeFile(const ustring& relative, std::uint64_t size = 0) const { return harness->makeFile(relative, size); }
    StorageIRI makeFileWith(const ustring& relative, const std::string& bytes) const
    {
        return harness->makeFileWith(relative, bytes);
    }
    StorageIRI makeFolder(const ustring& relative) const { return harness->makeFolder(relative); }
    std::map<ustring, std::optional<std::uint64_t>> tree() const { return treeOf(*provider, root); }
    bool hasFeature(provider::ExtendedFeature feature) const { return provider->hasFeature(root, feature); }
    provider::ProviderCapabilities capabilities() const { return provider->capabilities(); }
    bool writable() const { return capabilities().writable; }

    const std::unique_ptr<ProviderHarness> harness = GetParam().make();
    const std::shared_ptr<provider::IProvider> provider = harness->provider();
    const StorageIRI root = harness->root();
};

// Skips the rest of a test (with the reason printed) on a provider that lacks what it needs.
#define VFS_SKIP_UNLESS(condition, reason)                                                                              \
    do {                                                                                                               \
        if (!(condition))                                                                                              \
            GTEST_SKIP() << (reason);                                                                                  \
    } while (false)

// The context keys in order, as UTF-8, for readable comparisons.
inline std::vector<std::string> contextKeys(const provider::Exception& error)
{
    std::vector<std::string> keys;
    for (const auto& context : error.getAllExceptionContexts())
        keys.push_back(fl::i18n::ustring_to_utf8(context.getExceptionContextKey()));
    return keys;
}

inline std::string text(const StorageIRI& iri)
{
    return fl::i18n::ustring_to_utf8(iri.toString());
}

namespace detail {

inline void writeField(std::ostream& out, const ustring& field)
{
    const std::string utf8 = fl::i18n::ustring_to_utf8(field);
    out << utf8.size() << ':' << utf8;
}

inline ustring readField(std::istream& in)
{
    std::size_t size = 0;
    char colon = 0;
    in >> size >> colon;
    std::string utf8(size, '\0');
    in.read(utf8.data(), static_cast<std::streamsize>(size));
    if (!in || colon != ':')
        throw std::runtime_error("malformed provider error text");
    return fl::i18n::utf8_to_ustring(utf8);
}

} // namespace detail

// A provider failure, or none, as text and back: for failures met in another process (see
// Unprivileged.hpp). Code, location, message and contexts survive; strings travel as length:bytes.
inline void writeProviderError(std::ostream& out, const std::optional<provider::Exception>& error)
{
    out << (error ? 1 : 0) << ' ';
    if (!error)
        return;
    out << static_cast<int>(error->getErrorCode()) << ' ';
    detail::writeField(out, error->getStorageIRI().toString());
    detail::writeField(out, error->getMessage());
    out << error->getAllExceptionContexts().size() << ' ';
    for (const auto& context : error->getAllExceptionContexts()) {
        detail::writeField(out, context.getExceptionContextKey());
        detail::writeField(out, context.getDetail());
    }
}

inline std::optional<provider::Exception> readProviderError(std::istream& in)
{
    int present = 0;
    in >> present;
    if (!in)
        throw std::runtime_error("malformed provider error text");
    if (!present)
        return std::nullopt;
    int code = 0;
    in >> code;
    const ustring location = detail::readField(in);
    const ustring message = detail::readField(in);
    std::size_t count = 0;
    in >> count;
    provider::ExceptionContexts contexts;
    for (std::size_t i = 0; i < count; ++i) {
        ustring key = detail::readField(in);
        contexts.emplace_back(std::move(key), detail::readField(in));
    }
    provider::Exception error(static_cast<provider::ErrorCode>(code),
                              location.empty() ? StorageIRI() : StorageIRI(location), message);
    error.withExceptionContexts(std::move(contexts));
    return error;
}

} // namespace vfs_test
