// The sftp provider: the contract over SFTP version 3. The server answers most refusals with the
// generic failure (OpenSSH: a rename over an existing file, mkdir over a file, rmdir of a full
// folder), so a failed change looks at the tree (a stat, or the first entry of a listing) to tell
// the real cause.

#include "Stream.hpp"

#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/PosixError.hpp>
#include <foundation/storage/provider/sftp/SftpProvider.hpp>

#include <boost/date_time/posix_time/conversion.hpp>
#include <boost/property_tree/ptree.hpp>

#include <charconv>
#include <future>
#include <map>
#include <mutex>
#include <vector>

namespace foundation::storage::provider::sftp {

namespace {

using detail::Connection;
using detail::Pool;
using detail::remotePath;
using detail::timeOf;
using detail::fileAttributes;
using detail::folderAttributes;
using Attributes = LIBSSH2_SFTP_ATTRIBUTES;

[[noreturn]] void notOfKind(const StorageIRI& location, const char16_t* call, const char16_t* kind)
{
    throwProviderError(ErrorCode::ResourceNotFound, location, {ExceptionContext(call), ExceptionContext(kind)});
}

// What one call does on one connection; the helpers take the location they report.
class Remote {
public:
    explicit Remote(Connection& connection) : c(connection) {}

    // The attributes at `location` (links followed unless `lstat`); nullopt when nothing is there.
    std::optional<Attributes> stat(const StorageIRI& location, bool lstat = false)
    {
        const std::string path = remotePath(location);
        return statPath(path, location, lstat);
    }
    std::optional<Attributes> statPath(const std::string& path, const StorageIRI& location, bool lstat = false)
    {
        Attributes attributes{};
        if (::libssh2_sftp_stat_ex(c.sftp(), path.data(), static_cast<unsigned>(path.size()),
                                   lstat ? LIBSSH2_SFTP_LSTAT : LIBSSH2_SFTP_STAT, &attributes) == 0)
            return attributes;
        if (c.lastStatus() == LIBSSH2_FX_NO_SUCH_FILE)
            return std::nullopt;
        c.fail(lstat ? "sftp_lstat" : "sftp_stat", location);
    }
    Attributes existing(const StorageIRI& location, const char* call)
    {
        if (auto attributes = stat(location))
            return *attributes;
        throwPosixError(ENOENT, call, location);
    }
    Attributes file(const StorageIRI& location, const char* call)
    {
        const Attributes attributes = existing(location, call);
        if (!detail::isFile(attributes))
            notOfKind(location, fl::i18n::utf8_to_ustring(call).c_str(), u"not-a-file");
        return attributes;
    }
    void setStat(const StorageIRI& location, Attributes attributes, const char* call)
    {
        const std::string path = remotePath(location);
        if (::libssh2_sftp_stat_ex(c.sftp(), path.data(), static_cast<unsigned>(path.size()), LIBSSH2_SFTP_SETSTAT, &attributes) != 0)
            c.fail(call, location);
    }
    // Whether the folder at `path` has any entry besides "." and "..".
    bool hasEntries(const std::string& path, const StorageIRI& location)
    {
        LIBSSH2_SFTP_HANDLE* handle = ::libssh2_sftp_open_ex(c.sftp(), path.data(), static_cast<unsigned>(path.size()), 0, 0,
                                                            LIBSSH2_SFTP_OPENDIR);
        if (!handle)
            c.fail("sftp_opendir", location);
        char name[4096];
        Attributes attributes{};
        bool found = false;
        int got = 0;
        while (!found && (got = ::libssh2_sftp_readdir_ex(handle, name, sizeof name, nullptr, 0, &attributes)) > 0) {
            const std::string_view entry(name, static_cast<std::size_t>(got));
            found = entry != "." && entry != "..";
        }
        ::libssh2_sftp_close_handle(handle);
        if (got < 0)
            c.fail("sftp_readdir", location);
        return found;
    }
    // After a generic failure of a change at `location`: what stands there.
    [[noreturn]] void failAfterLooking(const char* call, const StorageIRI& location)
    {
        const Exception error = c.failure(call, location);
        if (c.broken() || error.getErrorCode() != ErrorCode::IOError)
            throw error;
        if (stat(location, true))
            throwPosixError(EEXIST, call, location);
        throw error;
    }

    Connection& c;
};

class EntryIterator final : public IFolderEntryIterator {
public:
    explicit EntryIterator(std::shared_ptr<const std::vector<FolderEntry>> entries) : m_entries(std::move(entries)) {}
    FolderEntry current() const override { return (*m_entries)[m_index - 1]; }
    bool hasNext() const override { return m_index < m_entries->size(); }
    void next() override { ++m_index; }
    std::unique_ptr<IFolderEntryIterator> clone() const override
    {
        auto copy = std::make_unique<EntryIterator>(m_entries);
        copy->m_index = m_index;
        return copy;
    }

private:
    std::shared_ptr<const std::vector<FolderEntry>> m_entries;
    std::size_t m_index = 0;
};

class SftpProvider final : public IProvider {
public:
    explicit SftpProvider(SftpProviderOptions options) : m_options(std::move(options)) {}
    ~SftpProvider() override { endPolling(); }

    ProviderCapabilities capabilities() const override
    {
        ProviderCapabilities capabilities;
        capabilities.scheme = u"sftp";
        capabilities.authority = ProviderCapabilities::Authority::Required;
        capabilities.extendedAttributes = true;
        capabilities.timeResolution = std::chrono::seconds(1);
        std::lock_guard lock(m_mutex); // configure() may be changing the options
        capabilities.parallelTransfers = std::max<std::uint32_t>(1, m_options.sessionsPerHost);
        capabilities.freeListingAttributes = true; // readdir answers carry them
        capabilities.with(ExtendedFeature::RecursiveListing);
        return capabilities;
    }

private:
    std::shared_ptr<Pool> poolOf(const StorageIRI& location) const
    {
        detail::Endpoint endpoint = detail::endpointOf(location);
        const std::string key = endpoint.key();
        std::lock_guard lock(m_mutex);
        auto& pool = m_pools[key];
        if (!pool)
            pool = std::make_shared<Pool>(std::move(endpoint), m_options);
        return pool;
    }

    template <class Work>
    auto call(const StorageIRI& location, Work&& work) const
    {
        Pool::Lease lease = poolOf(location)->forCall(location);
        Remote remote(*lease);
        return work(remote);
    }

protected:
    ExistenceType doExists(const StorageIRI& location) const override
    {
        return call(location, [&](Remote& r) {
            const auto a = r.stat(location);
            return !a ? ExistenceType::NotFound : detail::isFolder(*a) ? ExistenceType::Folder : ExistenceType::File;
        });
    }

    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override
    {
        return call(location, [&](Remote& r) {
            const auto a = r.stat(location, true);
            if (!a)
                return ExistenceTypeExtended::NotFound;
            if (detail::isLink(*a)) {
                const auto target = r.stat(location);
                return !target ? ExistenceTypeExtended::BrokenLink
                               : detail::isFolder(*target) ? ExistenceTypeExtended::LinkToFolder : ExistenceTypeExtended::LinkToFile;
            }
            return detail::isFolder(*a) ? ExistenceTypeExtended::Folder
                   : detail::isFile(*a) ? ExistenceTypeExtended::File
                                        : ExistenceTypeExtended::Special;
        });
    }

    StorageIRI doGetCanonicalLocation(const StorageIRI& location) const override
    {
        return call(location, [&](Remote& r) {
            r.existing(location, "realpath");
            const std::string path = remotePath(location);
            char resolved[4096];
            const int size = ::libssh2_sftp_symlink_ex(r.c.sftp(), path.data(), static_cast<unsigned>(path.size()), resolved,
                                                       sizeof resolved, LIBSSH2_SFTP_REALPATH);
            if (size < 0)
                r.c.fail("sftp_realpath", location);
            return StorageIRI(location, fl::i18n::native_to_ustring(std::string_view(resolved, static_cast<std::size_t>(size))));
        });
    }

    FileAttributes doGetFileAttributes(const StorageIRI& location) const override
    {
        return call(location, [&](Remote& r) {
            const auto own = r.stat(location, true);
            const bool link = own && detail::isLink(*own);
            const Attributes a = link ? r.existing(location, "getFileAttributes") : own ? *own : r.existing(location, "getFileAttributes");
            if (detail::isFolder(a))
                notOfKind(location, u"getFileAttributes", u"not-a-file");
            return fileAttributes(a, location.getName(), link);
        });
    }

    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override
    {
        return call(location, [&](Remote& r) {
            const auto own = r.stat(location, true);
            const bool link = own && detail::isLink(*own);
            const Attributes a = link ? r.existing(location, "getFolderAttributes") : own ? *own : r.existing(location, "getFolderAttributes");
            if (!detail::isFolder(a))
                notOfKind(location, u"getFolderAttributes", u"not-a-folder");
            return folderAttributes(a, location.getName(), link);
        });
    }

    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& location) const override
    {
        return call(location, [&](Remote& r) {
            const Attributes a = r.existing(location, "getExtendedAttributes");
            ExtendedAttributes extended;
            extended.lastAccessed = timeOf(a.atime);
            extended.posixMode = static_cast<std::uint32_t>(a.permissions);
            extended.ownerId = static_cast<std::uint32_t>(a.uid);
            extended.groupId = static_cast<std::uint32_t>(a.gid);
            return extended;
        });
    }

    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override
    {
        if (time.is_special())
            throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(u"setLastModified"), ExceptionContext(u"not-a-time")});
        // SFTP version 3 carries times as unsigned 32-bit seconds.
        const boost::posix_time::ptime epoch = boost::posix_time::from_time_t(0);
        const auto seconds = time < epoch ? -1 : (time - epoch).total_seconds();
        if (seconds < 0 || seconds > 0xFFFFFFFFll)
            throwProviderError(ErrorCode::InvalidLocation, location,
                               {ExceptionContext(u"setLastModified"), ExceptionContext(u"time-out-of-range")},
                               u"SFTP keeps times from 1970 to 2106 only");
        call(location, [&](Remote& r) {
            Attributes a = r.existing(location, "setLastModified");
            a.flags = LIBSSH2_SFTP_ATTR_ACMODTIME;
            a.mtime = static_cast<unsigned long>(seconds);
            r.setStat(location, a, "sftp_setstat");
        });
    }

    void doSetWritable(const StorageIRI& location, bool writable) const override
    {
        call(location, [&](Remote& r) {
            Attributes a = r.existing(location, "setWritable");
            a.flags = LIBSSH2_SFTP_ATTR_PERMISSIONS;
            a.permissions = (writable ? a.permissions | 0200 : a.permissions & ~0222ul) & 07777;
            r.setStat(location, a, "sftp_setstat");
        });
    }

    void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const override
    {
        call(location, [&](Remote& r) {
            Attributes a = r.file(location, "truncateToSize");
            a.flags = LIBSSH2_SFTP_ATTR_SIZE;
            a.filesize = size;
            r.setStat(location, a, "sftp_setstat");
        });
    }

    void doCreateFile(const StorageIRI& location) const override
    {
        call(location, [&](Remote& r) {
            const std::string path = remotePath(location);
            LIBSSH2_SFTP_HANDLE* handle = ::libssh2_sftp_open_ex(r.c.sftp(), path.data(), static_cast<unsigned>(path.size()),
                                                                LIBSSH2_FXF_WRITE | LIBSSH2_FXF_CREAT | LIBSSH2_FXF_EXCL, 0666,
                                                                LIBSSH2_SFTP_OPENFILE);
            if (!handle)
                r.failAfterLooking("sftp_open", location);
            if (::libssh2_sftp_close_handle(handle) != 0)
                r.c.fail("sftp_close", location);
        });
    }

    void doRemoveFile(const StorageIRI& location) const override
    {
        call(location, [&](Remote& r) {
            const std::string path = remotePath(location);
            if (::libssh2_sftp_unlink_ex(r.c.sftp(), path.data(), static_cast<unsigned>(path.size())) == 0)
                return;
            const Exception error = r.c.failure("sftp_unlink", location);
            if (!r.c.broken())
                if (const auto a = r.stat(location, true); a && detail::isFolder(*a))
                    notOfKind(location, u"removeFile", u"not-a-file");
            throw error;
        });
    }

    void doCreateFolder(const StorageIRI& location) const override
    {
        call(location, [&](Remote& r) {
            const std::string path = remotePath(location);
            if (::libssh2_sftp_mkdir_ex(r.c.sftp(), path.data(), static_cast<unsigned>(path.size()), 0777) != 0)
                r.failAfterLooking("sftp_mkdir", location);
        });
    }

    void doRemoveFolder(const StorageIRI& location) const override
    {
        call(location, [&](Remote& r) {
            const std::string path = remotePath(location);
            if (::libssh2_sftp_rmdir_ex(r.c.sftp(), path.data(), static_cast<unsigned>(path.size())) == 0)
                return;
            const Exception error = r.c.failure("sftp_rmdir", location);
            if (r.c.broken())
                throw error;
            const auto a = r.stat(location, true);
            if (a && !detail::isFolder(*a))
                notOfKind(location, u"removeFolder", u"not-a-folder");
            if (a && error.getErrorCode() == ErrorCode::IOError && r.hasEntries(path, location))
                throwPosixError(ENOTEMPTY, "sftp_rmdir", location);
            throw error;
        });
    }

    void doMoveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        move(location, destination, policy, false);
    }

    void doMoveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        if (location.isAncestorOf(destination))
            throwProviderError(ErrorCode::InvalidLocation, destination, {ExceptionContext(u"moveFolder"), ExceptionContext(u"into-itself")});
        move(location, destination, policy, true);
    }

    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& location, const ListOptions& options) const override
    {
        if (options.recursive)
            return std::make_unique<EntryIterator>(listTree(location, options));
        return std::make_unique<EntryIterator>(listFolder(location, options));
    }

    // The whole subtree, depth first, each folder before its content; names are paths relative to
    // `location`. Listing is bound by round trips (open, read, read, close for each folder), so the
    // folders of one level are listed several at a time over the session pool. Links to folders
    // are listed, not entered. A folder below `location` that cannot be listed (no permission,
    // gone) is listed without content, as the library's own walk does; other failures fail the
    // listing. The pattern is left to the library, which matches it against the relative names.
    std::shared_ptr<const std::vector<FolderEntry>> listTree(const StorageIRI& location, const ListOptions& options) const
    {
        ListOptions each;
        each.withAttributes = true; // to know links, at no cost
        std::map<ustring, std::shared_ptr<const std::vector<FolderEntry>>> listed{{ustring(), listFolder(location, each)}};
        const auto subfolders = [&](const ustring& relative, std::vector<ustring>& into) {
            for (const FolderEntry& entry : *listed.at(relative))
                if (!entry.isFile() && !(entry.getFolderAttributes() && entry.getFolderAttributes()->isSymlink()))
                    into.push_back(relative.empty() ? entry.getName() : relative + u'/' + entry.getName());
        };
        std::vector<ustring> level;
        subfolders(ustring(), level);
        const std::size_t atOnce = std::max<std::size_t>(1, capabilities().parallelTransfers);
        while (!level.empty()) {
            std::vector<ustring> next;
            for (std::size_t first = 0; first < level.size(); first += atOnce) {
                const std::size_t last = std::min(level.size(), first + atOnce);
                std::vector<std::future<std::shared_ptr<const std::vector<FolderEntry>>>> lists;
                for (std::size_t i = first; i < last; ++i)
                    lists.push_back(std::async(std::launch::async, [&, folder = StorageIRI(location, level[i])] {
                        return listFolder(folder, each);
                    }));
                for (std::size_t i = first; i < last; ++i) {
                    try {
                        listed[level[i]] = lists[i - first].get();
                    } catch (const Exception& error) {
                        if (error.getErrorCode() != ErrorCode::PermissionDenied && error.getErrorCode() != ErrorCode::ResourceNotFound)
                            throw;
                        listed[level[i]] = std::make_shared<const std::vector<FolderEntry>>();
                    }
                    subfolders(level[i], next);
                }
            }
            level = std::move(next);
        }
        auto entries = std::make_shared<std::vector<FolderEntry>>();
        const auto deliver = [&](const ustring& relative, const auto& self) -> void {
            const auto found = listed.find(relative);
            if (found == listed.end())
                return; // a link to a folder: not entered
            for (const FolderEntry& entry : *found->second) {
                ustring name = relative.empty() ? entry.getName() : relative + u'/' + entry.getName();
                if (options.kind == ListKind::All || (options.kind == ListKind::Files) == entry.isFile())
                    entries->push_back(FolderEntry(name, entry.isFile(), options.withAttributes ? entry.getFileAttributes() : std::nullopt,
                                                   options.withAttributes ? entry.getFolderAttributes() : std::nullopt));
                if (!entry.isFile())
                    self(name, self);
            }
        };
        deliver(ustring(), deliver);
        return entries;
    }

    // The children of one folder, as `options` ask (`recursive` aside).
    std::shared_ptr<const std::vector<FolderEntry>> listFolder(const StorageIRI& location, const ListOptions& options) const
    {
        return call(location, [&](Remote& r) {
            const std::string path = remotePath(location);
            LIBSSH2_SFTP_HANDLE* handle = ::libssh2_sftp_open_ex(r.c.sftp(), path.data(), static_cast<unsigned>(path.size()), 0, 0,
                                                                LIBSSH2_SFTP_OPENDIR);
            if (!handle) {
                const Exception error = r.c.failure("sftp_opendir", location);
                if (!r.c.broken() && r.stat(location))
                    notOfKind(location, u"list", u"not-a-folder");
                throw error;
            }
            std::unique_ptr<LIBSSH2_SFTP_HANDLE, int (*)(LIBSSH2_SFTP_HANDLE*)> open(handle, &::libssh2_sftp_close_handle);
            auto entries = std::make_shared<std::vector<FolderEntry>>();
            std::vector<char> name(8192);
            Attributes a{};
            for (;;) {
                const int got = ::libssh2_sftp_readdir_ex(handle, name.data(), name.size(), nullptr, 0, &a);
                if (got < 0)
                    r.c.fail("sftp_readdir", location);
                if (got == 0)
                    break;
                const std::string_view bytes(name.data(), static_cast<std::size_t>(got));
                if (bytes == "." || bytes == "..")
                    continue;
                ustring entryName = fl::i18n::native_to_ustring(bytes);
                if (!options.pattern.empty() && !matchesWildcard(entryName, options.pattern))
                    continue;
                // Listings carry lstat attributes; a link is followed to tell its kind.
                const bool link = detail::isLink(a);
                Attributes target = a;
                if (link)
                    target = r.statPath(path + (path.back() == '/' ? "" : "/") + std::string(bytes), location).value_or(a);
                const bool isFile = !detail::isFolder(target);
                if ((options.kind == ListKind::Files && !isFile) || (options.kind == ListKind::Folders && isFile))
                    continue;
                std::optional<FileAttributes> ofFile;
                std::optional<FolderAttributes> ofFolder;
                if (options.withAttributes && isFile)
                    ofFile = fileAttributes(target, entryName, link);
                else if (options.withAttributes)
                    ofFolder = folderAttributes(target, entryName, link);
                entries->push_back(FolderEntry(std::move(entryName), isFile, ofFile, ofFolder));
            }
            return std::shared_ptr<const std::vector<FolderEntry>>(std::move(entries));
        });
    }

    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override
    {
        return detail::openPlainStream(poolOf(location)->forStream(location), location, false, {});
    }

    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const override
    {
        return detail::openPlainStream(poolOf(location)->forStream(location), location, true, options);
    }

    std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                       const ByteStreamOpenOptions& options) const override
    {
        return detail::openTransactionalStream(poolOf(location)->forStream(location), location, options);
    }

    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const override
    {
        return call(location, [&](Remote& r) {
            r.existing(location, "getProviderStorageInfo");
            const std::string path = remotePath(location);
            LIBSSH2_SFTP_STATVFS space{};
            ProviderStorageInfo info;
            info.description = u"SFTP server " + location.getAuthority();
            if (::libssh2_sftp_statvfs(r.c.sftp(), path.data(), path.size(), &space) == 0) {
                info.capacityBytes = space.f_blocks * space.f_frsize;
                info.freeBytes = space.f_bfree * space.f_frsize;
                info.availableBytes = space.f_bavail * space.f_frsize;
            } else if (r.c.broken()) {
                r.c.fail("sftp_statvfs", location);
            }
            return info;
        });
    }

    void doConfigure(const boost::property_tree::ptree& settings) const override
    {
        SftpProviderOptions options = currentOptions();
        for (const auto& setting : settings) {
            // Named members rather than a structured binding: clang 14 cannot capture those.
            const std::string& key = setting.first;
            const boost::property_tree::ptree& value = setting.second;
            const std::string& text = value.data();
            const auto number = [&](const char* what) {
                std::uint64_t parsed = 0;
                const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
                if (!value.empty() || text.empty() || error != std::errc() || end != text.data() + text.size() || parsed == 0 ||
                    parsed > 1'000'000'000)
                    badSetting(key, text, what);
                return parsed;
            };
            const auto flag = [&] {
                if (!value.empty() || (text != "true" && text != "false"))
                    badSetting(key, text, "\"true\" or \"false\"");
                return text == "true";
            };
            if (key == "sessionsPerHost")
                options.sessionsPerHost = static_cast<std::uint32_t>(std::min<std::uint64_t>(number("a positive number"), 1024));
            else if (key == "connectTimeoutMs")
                options.connectTimeout = std::chrono::milliseconds(number("a positive number of milliseconds"));
            else if (key == "ioTimeoutMs")
                options.ioTimeout = std::chrono::milliseconds(number("a positive number of milliseconds"));
            else if (key == "identityFile" && value.empty())
                options.identityFile = text;
            else if (key == "knownHostsFile" && value.empty())
                options.knownHostsFile = text;
            else if (key == "useAgent")
                options.useAgent = flag();
            else if (key == "acceptNewHostKeys")
                options.acceptNewHostKeys = flag();
            else
                throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                                   {ExceptionContext(u"configure"), ExceptionContext(fl::i18n::utf8_to_ustring_lossy(key), u"unknown-setting")},
                                   fl::i18n::utf8_to_ustring_lossy("the sftp provider has no setting \"" + key + "\""));
        }
        std::map<std::string, std::shared_ptr<Pool>> released;
        std::lock_guard lock(m_mutex);
        m_options = std::move(options);
        released.swap(m_pools); // new connections take the new settings
    }

    void doShutdown() const override
    {
        std::map<std::string, std::shared_ptr<Pool>> released;
        std::lock_guard lock(m_mutex);
        released.swap(m_pools);
    }

private:
    [[noreturn]] static void badSetting(const std::string& key, const std::string& text, const char* what)
    {
        throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                           {ExceptionContext(u"configure"), ExceptionContext(fl::i18n::utf8_to_ustring_lossy(key), u"bad-value")},
                           fl::i18n::utf8_to_ustring_lossy("the setting \"" + key + "\" takes " + what + ", not \"" + text + "\""));
    }

    SftpProviderOptions currentOptions() const
    {
        std::lock_guard lock(m_mutex);
        return m_options;
    }

    // A rename, with what OpenSSH leaves to the client: telling "exists" and "not empty" from the
    // generic failure, and replacing a target.
    void move(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy, bool folder) const
    {
        const char16_t* call16 = folder ? u"moveFolder" : u"moveFile";
        call(location, [&](Remote& r) {
            const auto source = r.stat(location, true);
            if (!source)
                throwPosixError(ENOENT, "sftp_rename", location);
            if (detail::isFolder(*source) != folder)
                notOfKind(location, call16, folder ? u"not-a-folder" : u"not-a-file");
            if (location == destination) {
                if (policy == ReplacementPolicy::FailIfExists)
                    throwPosixError(EEXIST, "sftp_rename", destination);
                return;
            }
            if (!folder && policy == ReplacementPolicy::ReplaceIfNewer)
                if (const auto target = r.stat(destination); target && detail::isFile(*target) && source->mtime <= target->mtime)
                    return;
            const std::string from = remotePath(location);
            const std::string to = remotePath(destination);
            if (::libssh2_sftp_rename_ex(r.c.sftp(), from.data(), static_cast<unsigned>(from.size()), to.data(),
                                         static_cast<unsigned>(to.size()), LIBSSH2_SFTP_RENAME_NATIVE) == 0)
                return;
            const Exception error = r.c.failure("sftp_rename", destination);
            if (r.c.broken() || error.getErrorCode() != ErrorCode::IOError)
                throw error;
            const auto target = r.stat(destination, true);
            if (!target)
                throw error;
            const bool replace = policy != ReplacementPolicy::FailIfExists && (!folder || policy == ReplacementPolicy::Replace);
            if (!replace || detail::isFolder(*target) != folder)
                throwPosixError(EEXIST, "sftp_rename", destination);
            if (folder && r.hasEntries(to, destination))
                throwPosixError(ENOTEMPTY, "sftp_rename", destination);
            detail::renameReplacing(r.c, from, to, destination, folder);
        });
    }

    mutable std::mutex m_mutex;
    mutable SftpProviderOptions m_options;
    mutable std::map<std::string, std::shared_ptr<Pool>> m_pools;
};

} // namespace

std::shared_ptr<IProvider> makeSftpProvider(SftpProviderOptions options)
{
    return std::make_shared<SftpProvider>(std::move(options));
}

} // namespace foundation::storage::provider::sftp
