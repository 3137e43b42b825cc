// Eight threads change, read and list one memory volume and one local folder at once, under a
// recursive watch whose subscribers come and go, for a bounded time. Afterwards every file must be
// whole and listed once, and the watch must have reported at least one event per change (unless it
// reported an overflow). A watchdog ends the program instead of letting a deadlock hang it.

#include <Prelude.hpp>

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr auto loadTime = std::chrono::milliseconds(600);
#else
constexpr auto loadTime = std::chrono::milliseconds(2000);
#endif

// Ends the process when it is not dismissed within `limit`: a deadlock fails the run.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds limit)
        : m_thread([this, limit] {
              std::unique_lock lock(m_mutex);
              if (!m_done.wait_for(lock, limit, [this] { return m_dismissed; })) {
                  std::fprintf(stderr, "watchdog: the load test made no end within %lld s\n",
                               static_cast<long long>(limit.count()));
                  std::_Exit(1);
              }
          })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard lock(m_mutex);
            m_dismissed = true;
        }
        m_done.notify_all();
        m_thread.join();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_dismissed = false;
    std::thread m_thread;
};

// File contents that describe themselves ("size:seed:" then bytes from the seed), so that a reader
// can tell a whole file from a cut or mixed one without knowing who wrote it last.
std::string contentFor(std::uint32_t seed, std::size_t size)
{
    std::string text = std::to_string(size) + ":" + std::to_string(seed) + ":";
    for (std::size_t i = text.size(); i < size; ++i)
        text += static_cast<char>('a' + (seed + i * 7) % 26);
    text.resize(std::max(size, text.size()));
    return text;
}

bool isWhole(const std::string& content)
{
    if (content.empty())
        return true; // created, never written
    const auto first = content.find(':');
    const auto second = content.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos)
        return false;
    const std::size_t size = std::stoul(content.substr(0, first));
    const auto seed = static_cast<std::uint32_t>(std::stoul(content.substr(first + 1, second - first - 1)));
    return content == contentFor(seed, size);
}

// Counts a watch's events, and whether one of them was an overflow.
struct Received {
    std::mutex mutex;
    std::condition_variable arrived;
    std::size_t count = 0;
    bool overflow = false;

    eventmgr::EventCallback callback()
    {
        return [this](const boost::shared_ptr<const eventmgr::BaseEvent>& event) {
            const auto* change = dynamic_cast<const vfs::Event*>(event.get());
            std::lock_guard lock(mutex);
            ++count;
            overflow = overflow || (change && change->getSimpleEventData().getKind() == events::Kind::Overflow);
            arrived.notify_all();
        };
    }
};

// One watched root and what was done in it.
struct Area {
    explicit Area(Folder watched) : root(std::move(watched)) {}

    Folder root;
    eventmgr::EventMgr* manager = nullptr;
    std::unique_ptr<eventmgr::Connection> connection;
    Received received;
    std::atomic<std::size_t> changes{0};

    eventmgr::EventFilter filter() const
    {
        return {vfs::Event::EventType(), events::eventTypePrefix(root.getLocation().toString()), true};
    }
};

bool isRace(const vfs::Exception& error)
{
    switch (error.getErrorCode()) {
    case ErrorCode::ResourceNotFound:
    case ErrorCode::ResourceAlreadyExists:
    case ErrorCode::FolderNotEmpty:
        return true;
    default:
        return false;
    }
}

void workOn(Area& area, std::mt19937& random, std::atomic<int>& brokenReads)
{
    const ustring place = random() % 2 ? u"" : u"shared/";
    const auto name = [&](const char* stem) {
        return place + fl::i18n::utf8_to_ustring(stem + std::to_string(random() % 12));
    };
    const File file(vfs::AbsoluteIRI(area.root.getLocation(), name("f")), area.root.getStorageSystem());
    try {
        switch (random() % 8) {
        case 0:
            file.createFile();
            break;
        case 1:
        case 2: {
            const std::string content = contentFor(static_cast<std::uint32_t>(random()), 10 + random() % 20000);
            vfs::TransactionalIODevice device(file, provider::ByteStreamAccess::Write);
            device.write(content.data(), static_cast<std::streamsize>(content.size()));
            device.close(provider::StreamClosePolicy::Commit);
            break;
        }
        case 3: {
            const File target(vfs::AbsoluteIRI(area.root.getLocation(), name("f")), area.root.getStorageSystem());
            if (target == file)
                return;
            file.moveFile(target, provider::ReplacementPolicy::Replace);
            break;
        }
        case 4:
            file.removeFile();
            break;
        case 5: {
            const Folder folder(vfs::AbsoluteIRI(area.root.getLocation(), name("d")), area.root.getStorageSystem());
            if (random() % 2)
                folder.createFolder();
            else
                folder.removeFolder(vfs::FolderRemovalPolicy::NonRecursive);
            break;
        }
        case 6: {
            std::set<ustring> names;
            for (const auto& entry : area.root.listAll(u""))
                if (!names.insert(entry.getName()).second)
                    ADD_FAILURE() << "listed twice: " << fl::i18n::ustring_to_utf8(entry.getName());
            return;
        }
        default: {
            // A subscriber that comes and goes while events flow.
            auto passing = area.manager->subscribe(area.filter(), [](const auto&) {});
            // A reader keeps the file it opened, so a replacement arriving part way through never
            // shows.
            if (!isWhole(vfs_test::readWhole(file)))
                ++brokenReads;
            passing->disconnect();
            return;
        }
        }
        ++area.changes;
    } catch (const vfs::Exception& error) {
        if (!isRace(error))
            throw;
    } catch (const vfs::IOException& error) {
        if (error.getErrorCode() != ErrorCode::ResourceNotFound)
            throw;
    }
}

TEST(LoadTest, MixedOperationsOnEightThreadsKeepTreesWholeAndEventsComing)
{
    const Watchdog watchdog(std::chrono::seconds(120));
    vfs_test::DecoratedStorage storage;
    const vfs_test::WorkingFolder local("file", storage.ref);
    const vfs_test::WorkingFolder memory("mem", storage.ref);
    Area areas[2] = {Area(local.root()), Area(memory.root())};
    for (Area& area : areas) {
        Folder(area.root, u"shared").createFolder();
        area.manager = &vfs::detail::publishEventsFor(area.root, {}, vfs::WithRecursiveChangeEvents::Yes);
        area.connection = area.manager->subscribe(area.filter(), area.received.callback());
    }

    std::atomic<int> brokenReads{0};
    const auto end = std::chrono::steady_clock::now() + loadTime;
    vfs_test::runOnThreads(8, [&](int index) {
        std::mt19937 random(static_cast<unsigned>(index) * 7919u + 1u);
        while (std::chrono::steady_clock::now() < end)
            workOn(areas[random() % 2], random, brokenReads);
    });
    EXPECT_EQ(brokenReads.load(), 0) << "a reader saw a file that was not whole";

    for (Area& area : areas) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(area.root.getLocation().toString()));
        const std::size_t changes = area.changes.load();
        {
            std::unique_lock lock(area.received.mutex);
            area.received.arrived.wait_for(lock, std::chrono::seconds(20), [&] {
                return area.received.overflow || area.received.count >= changes;
            });
            if (!area.received.overflow) {
                EXPECT_GE(area.received.count, changes) << "fewer events than changes, and no overflow reported";
            }
        }
        vfs::unsubscribe(area.root, area.connection);
        EXPECT_GT(changes, 0u);

        for (const Folder& folder : {area.root, Folder(area.root, u"shared")}) {
            std::set<ustring> names;
            for (const auto& entry : folder.listFileEntries(u"")) {
                const std::string name = fl::i18n::ustring_to_utf8(entry.getName());
                EXPECT_TRUE(names.insert(entry.getName()).second) << "listed twice: " << name;
                EXPECT_EQ(name.front(), 'f') << "left behind: " << name;
                const std::string content = vfs_test::readWhole(entry.getFile());
                EXPECT_TRUE(isWhole(content)) << name << " is not whole";
                EXPECT_EQ(entry.getAttributes().getSize(), content.size()) << name;
            }
        }
    }
    storage.system->shutdown();
}

} // namespace
