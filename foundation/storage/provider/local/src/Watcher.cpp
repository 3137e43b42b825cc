#include "Watcher.hpp"

#include "Native.hpp"

#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/storage/provider/PosixError.hpp>

#include <boost/throw_exception.hpp>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::storage::provider::local::detail {

namespace {

using provider::detail::CallbackTable;

constexpr std::uint32_t watchedEvents = IN_CREATE | IN_DELETE | IN_MODIFY | IN_ATTRIB | IN_MOVED_FROM | IN_MOVED_TO |
                                        IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

[[noreturn]] void failWatch(int error, const char* call, const StorageIRI& location)
{
    switch (error) {
    case ENOSPC:
        boost::throw_exception(ChangeEventsSubscriptionException(
            location, u"the limit of inotify watches is reached (raise fs.inotify.max_user_watches)"));
    case EMFILE:
    case ENFILE:
        boost::throw_exception(ChangeEventsSubscriptionException(
            location, u"too many inotify instances or open files (fs.inotify.max_user_instances)"));
    case ENOSYS:
        boost::throw_exception(ChangeEventsNotSupportedException(location));
    default:
        fail(error, call, location);
    }
}

std::optional<ustring> nameOf(const char* name)
{
    return fl::i18n::native_to_ustring(name);
}

// One inotify event as read.
struct Raw {
    int wd;
    std::uint32_t mask;
    std::uint32_t cookie;
    std::string name;
};

} // namespace

struct Watcher::Core {
    using Key = std::pair<StorageIRI, bool>; // location, file watch

    struct Watch {
        CallbackTable::Id callback;
        bool recursive;
        ChangeKinds kinds;
        std::string name; // a file watch's file name in its folder
        std::set<int> wds;
    };
    struct Folder {
        std::string path;
        StorageIRI location;
        std::set<Key> users;
    };
    using Call = std::pair<CallbackTable::Id, ChangeReport>;

    FileDescriptor inotify;
    FileDescriptor wakeup;
    CallbackTable callbacks;
    std::mutex mutex;
    std::map<Key, Watch> watches;
    std::map<int, Folder> folders;
    // Entries that the scan of a new folder reported as created, by watch and path. An entry made
    // between the folder's inotify_add_watch and its scan is also in the kernel's queue as IN_CREATE;
    // the whole queue is read before the next batch is handled, so such an event arrives at the
    // latest with the next batch, and the marks of one batch are dropped after the next.
    std::set<std::pair<Key, std::string>> scanned;
    std::set<std::pair<Key, std::string>> scannedBefore;
    bool stopping = false;
    std::thread thread;

    // ---- bookkeeping; callers hold `mutex` ------------------------------------------------------

    // Watches the folder at `path` for the watch `key`: 0, or the errno.
    int add(const Key& key, Watch& watch, const std::string& path, const StorageIRI& location, bool followLink)
    {
        const int wd = ::inotify_add_watch(inotify.get(), path.c_str(), watchedEvents | (followLink ? 0 : IN_DONT_FOLLOW));
        if (wd < 0)
            return errno;
        Folder& folder = folders[wd];
        folder.path = path; // a folder reached again under a new path (moved) takes that path
        folder.location = location;
        folder.users.insert(key);
        watch.wds.insert(wd);
        return 0;
    }

    void release(const Key& key, Watch& watch, int wd)
    {
        watch.wds.erase(wd);
        const auto found = folders.find(wd);
        if (found == folders.end())
            return;
        found->second.users.erase(key);
        if (found->second.users.empty()) {
            ::inotify_rm_watch(inotify.get(), wd);
            folders.erase(found);
        }
    }

    void releaseAll(const Key& key, Watch& watch)
    {
        for (const int wd : std::set<int>(watch.wds))
            release(key, watch, wd);
    }

    // Watches every folder below `path` for a recursive watch. Folders that vanish or cannot be read
    // meanwhile are passed over; every other failure is returned as its errno (ENOSPC: the limit).
    // `found`, when given, receives every entry met (for folders that appeared with content).
    int addBelow(const Key& key, Watch& watch, const std::string& path, const StorageIRI& location,
                 std::vector<std::pair<StorageIRI, bool>>* found)
    {
        std::vector<std::pair<std::string, StorageIRI>> pending{{path, location}};
        while (!pending.empty()) {
            auto [folderPath, folderLocation] = std::move(pending.back());
            pending.pop_back();
            FileDescriptor fd(::open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (!fd)
                continue;
            DIR* dir = ::fdopendir(fd.get());
            if (!dir)
                continue;
            fd.release();
            while (const dirent* entry = ::readdir(dir)) {
                if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
                    continue;
                const auto name = nameOf(entry->d_name);
                if (!name)
                    continue;
                bool isFolder = entry->d_type == DT_DIR;
                if (entry->d_type == DT_UNKNOWN) {
                    struct stat info {};
                    isFolder = ::fstatat(::dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
                }
                const StorageIRI childLocation(folderLocation, *name);
                if (found) {
                    found->emplace_back(childLocation, isFolder);
                    scanned.emplace(key, folderPath + '/' + entry->d_name);
                }
                if (!isFolder)
                    continue;
                const std::string childPath = folderPath + '/' + entry->d_name;
                const int error = add(key, watch, childPath, childLocation, false);
                if (error == ENOSPC || error == ENOMEM) {
                    ::closedir(dir);
                    return error;
                }
                if (error == 0)
                    pending.emplace_back(childPath, childLocation);
            }
            ::closedir(dir);
        }
        return 0;
    }

    // ---- turning events into reports; callers hold `mutex` --------------------------------------

    static ChangeReport report(events::Kind kind, const StorageIRI& subscription, const StorageIRI& changed, bool folder,
                               boost::property_tree::ptree extra = {})
    {
        return ChangeReport{kind, subscription, changed, folder ? events::EntryType::Folder : events::EntryType::File,
                            std::move(extra)};
    }

    void emit(std::vector<Call>& calls, const Watch& watch, ChangeReport change)
    {
        if (wantsKind(watch.kinds, change.kind))
            calls.emplace_back(watch.callback, std::move(change));
    }

    void overflow(std::vector<Call>& calls, const StorageIRI& at, const char* reason)
    {
        boost::property_tree::ptree extra;
        extra.put("reason", reason);
        for (const auto& [key, watch] : watches)
            if (key.first == at || key.first.isAncestorOf(at) || at.isAncestorOf(key.first))
                emit(calls, watch, report(events::Kind::Overflow, key.first, key.first == at || key.second ? key.first : at,
                                          !key.second, extra));
    }

    void translate(const std::vector<Raw>& batch, std::vector<Call>& calls)
    {
        scannedBefore = std::exchange(scanned, {});
        // Both halves of a rename read together name each other.
        std::map<std::uint32_t, std::pair<std::optional<StorageIRI>, std::optional<StorageIRI>>> renames;
        for (const Raw& raw : batch) {
            const auto folder = folders.find(raw.wd);
            if (folder == folders.end() || raw.name.empty() || !(raw.mask & (IN_MOVED_FROM | IN_MOVED_TO)))
                continue;
            if (const auto name = nameOf(raw.name.c_str())) {
                auto& pair = renames[raw.cookie];
                (raw.mask & IN_MOVED_FROM ? pair.first : pair.second) = StorageIRI(folder->second.location, *name);
            }
        }

        for (const Raw& raw : batch) {
            if (raw.mask & IN_Q_OVERFLOW) {
                boost::property_tree::ptree extra;
                extra.put("reason", "the kernel's event queue overflowed");
                for (const auto& [key, watch] : watches)
                    emit(calls, watch, report(events::Kind::Overflow, key.first, key.first, !key.second, extra));
                continue;
            }
            const auto found = folders.find(raw.wd);
            if (found == folders.end())
                continue; // a watch already released
            if (raw.mask & IN_IGNORED) {
                for (const Key& key : found->second.users)
                    if (const auto watch = watches.find(key); watch != watches.end())
                        watch->second.wds.erase(raw.wd);
                folders.erase(found);
                continue;
            }
            // Copies: the handling below may add and release folders.
            const Folder folder = found->second;
            if (raw.name.empty())
                selfEvent(raw, folder, calls);
            else
                childEvent(raw, folder, renames, calls);
        }
    }

    // An event of a watched folder itself; only the root of a folder watch reports it (below the
    // root, the parent's event for the child says the same).
    void selfEvent(const Raw& raw, const Folder& folder, std::vector<Call>& calls)
    {
        std::optional<events::Kind> kind;
        if (raw.mask & IN_DELETE_SELF)
            kind = events::Kind::Removed;
        else if (raw.mask & IN_MOVE_SELF)
            kind = events::Kind::RenamedFrom;
        else if (raw.mask & IN_ATTRIB)
            kind = events::Kind::AttributesChanged;
        if (!kind)
            return;
        for (const Key& key : folder.users) {
            auto watch = watches.find(key);
            if (watch == watches.end() || key.second || key.first != folder.location)
                continue;
            emit(calls, watch->second, report(*kind, key.first, key.first, true));
            // Moved away, the folder's path is no longer the watched location: stop following it.
            if (*kind == events::Kind::RenamedFrom)
                releaseAll(key, watch->second);
        }
    }

    void childEvent(const Raw& raw, const Folder& folder,
                    const std::map<std::uint32_t, std::pair<std::optional<StorageIRI>, std::optional<StorageIRI>>>& renames,
                    std::vector<Call>& calls)
    {
        std::optional<events::Kind> kind;
        if (raw.mask & IN_CREATE)
            kind = events::Kind::Created;
        else if (raw.mask & IN_DELETE)
            kind = events::Kind::Removed;
        else if (raw.mask & IN_MODIFY)
            kind = events::Kind::Modified;
        else if (raw.mask & IN_ATTRIB)
            kind = events::Kind::AttributesChanged;
        else if (raw.mask & IN_MOVED_FROM)
            kind = events::Kind::RenamedFrom;
        else if (raw.mask & IN_MOVED_TO)
            kind = events::Kind::RenamedTo;
        const auto name = nameOf(raw.name.c_str());
        if (!kind || !name)
            return;
        const bool isFolder = (raw.mask & IN_ISDIR) != 0;
        const StorageIRI changed(folder.location, *name);
        const std::string path = folder.path + '/' + raw.name;

        boost::property_tree::ptree extra;
        if (*kind == events::Kind::RenamedFrom || *kind == events::Kind::RenamedTo) {
            extra.put("rename.cookie", std::to_string(raw.cookie));
            const auto pair = renames.find(raw.cookie);
            if (pair != renames.end()) {
                if (*kind == events::Kind::RenamedFrom && pair->second.second)
                    extra.put("rename.to", fl::i18n::ustring_to_utf8_lossy(pair->second.second->toString()));
                if (*kind == events::Kind::RenamedTo && pair->second.first)
                    extra.put("rename.from", fl::i18n::ustring_to_utf8_lossy(pair->second.first->toString()));
            }
        }

        for (const Key& key : folder.users) {
            auto found = watches.find(key);
            if (found == watches.end())
                continue;
            Watch& watch = found->second;
            if (key.second) {
                if (raw.name == watch.name)
                    emit(calls, watch, report(*kind, key.first, key.first, isFolder, extra));
                continue;
            }
            // The creation of an entry a scan has reported already (any other event for the path
            // means the scan's entry has changed since, and drops the mark).
            if (!scannedBefore.empty() && scannedBefore.erase({key, path}) != 0 && *kind == events::Kind::Created)
                continue;
            emit(calls, watch, report(*kind, key.first, changed, isFolder, extra));
            if (!watch.recursive || !isFolder)
                continue;
            if (*kind == events::Kind::RenamedFrom) {
                // The subtree left: its folders are no longer below the watched one under these paths.
                for (const int wd : std::set<int>(watch.wds)) {
                    const auto below = folders.find(wd);
                    if (below != folders.end() &&
                        (below->second.path == path || below->second.path.starts_with(path + '/')))
                        release(key, watch, wd);
                }
            } else if (*kind == events::Kind::Created || *kind == events::Kind::RenamedTo) {
                // A folder renamed into place is new under its path too: what it holds is reported,
                // also what was made in it while it had no watch of its own.
                followNewFolder(key, watch, path, changed, true, calls);
            }
        }
    }

    // A folder appeared below a recursive watch: watch it and everything in it. It may already hold
    // entries made before its watch existed; with `created` they are reported as created.
    void followNewFolder(const Key& key, Watch& watch, const std::string& path, const StorageIRI& location,
                         bool created, std::vector<Call>& calls)
    {
        int error = add(key, watch, path, location, false);
        std::vector<std::pair<StorageIRI, bool>> found;
        if (error == 0)
            error = addBelow(key, watch, path, location, created ? &found : nullptr);
        if (error == ENOSPC || error == ENOMEM) {
            boost::property_tree::ptree extra;
            extra.put("reason", "the limit of inotify watches is reached: changes below this folder are not seen");
            emit(calls, watch, report(events::Kind::Overflow, key.first, location, true, extra));
        } else if (error == ENOENT || error == ENOTDIR) {
            // Renamed or removed before its watch was in place: what was done inside it meanwhile
            // cannot be known, so the watcher says it fell behind rather than stay silent.
            boost::property_tree::ptree extra;
            extra.put("reason", "a new folder changed before it could be watched: changes inside it may be missed");
            emit(calls, watch, report(events::Kind::Overflow, key.first, location, true, extra));
        }
        for (const auto& [entry, isFolder] : found)
            emit(calls, watch, report(events::Kind::Created, key.first, entry, isFolder));
    }

    // ---- the thread -----------------------------------------------------------------------------

    static void run(std::shared_ptr<Core> self)
    {
        alignas(struct inotify_event) char buffer[64 * 1024];
        pollfd fds[2] = {{self->inotify.get(), POLLIN, 0}, {self->wakeup.get(), POLLIN, 0}};
        for (;;) {
            if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
                logger().write(foundation::log::category_error,
                               std::string("inotify watcher stopped: poll failed: ") + std::strerror(errno));
                return;
            }
            {
                std::lock_guard lock(self->mutex);
                if (self->stopping)
                    return;
            }
            std::vector<Raw> batch;
            for (;;) {
                const ssize_t got = ::read(self->inotify.get(), buffer, sizeof buffer);
                if (got <= 0)
                    break;
                for (ssize_t offset = 0; offset < got;) {
                    const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
                    batch.push_back(Raw{event->wd, event->mask, event->cookie, event->len ? std::string(event->name) : std::string()});
                    offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
                }
            }
            std::vector<Call> calls;
            {
                std::lock_guard lock(self->mutex);
                try {
                    self->translate(batch, calls);
                } catch (...) {
                    if (logger().enabled(foundation::log::category_exception))
                        logger().write(foundation::log::category_exception,
                                       "Exception caught: " + foundation::log::current_exception_chain_as_string());
                }
            }
            for (auto& [id, change] : calls)
                self->callbacks.call(id, std::move(change));
        }
    }
};

Watcher::Watcher(const StorageIRI& location) : m_core(std::make_shared<Core>())
{
    m_core->inotify = FileDescriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_core->inotify)
        failWatch(errno, "inotify_init1", location);
    m_core->wakeup = FileDescriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!m_core->wakeup)
        failWatch(errno, "eventfd", location);
    m_core->thread = std::thread(&Core::run, m_core);
}

Watcher::~Watcher()
{
    unwatchAll();
    std::thread thread;
    {
        std::lock_guard lock(m_core->mutex);
        m_core->stopping = true;
        thread = std::move(m_core->thread);
    }
    const std::uint64_t one = 1;
    static_cast<void>(::write(m_core->wakeup.get(), &one, sizeof one));
    provider::detail::finishThread(thread);
}

void Watcher::watchFile(const StorageIRI& location, ChangeEventCallback callback, ChangeKinds kinds)
{
    start(location, std::move(callback), std::move(kinds), true, false);
}

void Watcher::watchFolder(const StorageIRI& location, ChangeEventCallback callback, ChangeKinds kinds, bool recursive)
{
    start(location, std::move(callback), std::move(kinds), false, recursive);
}

void Watcher::start(const StorageIRI& location, ChangeEventCallback callback, ChangeKinds kinds, bool file,
                    bool recursive)
{
    const fl::filesystem::path path = nativePath(location);
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        fail(errno, "stat", location);
    if (S_ISDIR(info.st_mode) == file)
        failKind(location, file ? u"not-a-file" : u"not-a-folder");
    const Core::Key key(location, file);
    const auto id = m_core->callbacks.add(std::move(callback));
    std::optional<CallbackTable::Id> replaced;
    int failure = 0;
    {
        std::lock_guard lock(m_core->mutex);
        if (const auto old = m_core->watches.find(key); old != m_core->watches.end()) {
            replaced = old->second.callback;
            m_core->releaseAll(key, old->second);
            m_core->watches.erase(old);
        }
        // A file is watched through its folder, for the events that name it.
        Core::Watch watch{id, recursive, std::move(kinds), file ? path.filename().native() : std::string(), {}};
        failure = file ? m_core->add(key, watch, path.parent_path().native(), location.getParent(), true)
                       : m_core->add(key, watch, path.native(), location, true);
        if (failure == 0 && recursive)
            failure = m_core->addBelow(key, watch, path.native(), location, nullptr);
        if (failure != 0)
            m_core->releaseAll(key, watch); // all or nothing: a watch must cover its whole tree
        else
            m_core->watches.emplace(key, std::move(watch));
    }
    finishStart(location, id, replaced, failure);
}

// Callbacks are removed with no lock of the watcher held: removal waits for a running callback, which
// may itself call into the watcher.
void Watcher::finishStart(const StorageIRI& location, CallbackTable::Id added, std::optional<CallbackTable::Id> replaced,
                          int failure)
{
    if (replaced)
        m_core->callbacks.remove(*replaced);
    if (failure == 0)
        return;
    m_core->callbacks.remove(added);
    failWatch(failure, "inotify_add_watch", location);
}

void Watcher::unwatch(const StorageIRI& location, bool file)
{
    const Core::Key key(location, file);
    CallbackTable::Id id = 0;
    {
        std::lock_guard lock(m_core->mutex);
        const auto found = m_core->watches.find(key);
        if (found == m_core->watches.end())
            return;
        id = found->second.callback;
        m_core->releaseAll(key, found->second);
        m_core->watches.erase(found);
    }
    m_core->callbacks.remove(id);
}

void Watcher::unwatchAll()
{
    {
        std::lock_guard lock(m_core->mutex);
        for (auto& [key, watch] : m_core->watches)
            m_core->releaseAll(key, watch);
        m_core->watches.clear();
    }
    m_core->callbacks.clear();
}

} // namespace foundation::storage::provider::local::detail
