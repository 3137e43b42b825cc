#include <Prelude.hpp>

#include <InotifyFaults.hpp>

namespace {

using boost::property_tree::ptree;
using events::Kind;
using vfs::WithRecursiveChangeEvents;

// The vfs::Events a subscription receives; waits are bounded.
class Received {
public:
    eventmgr::EventCallback callback()
    {
        return [this](const boost::shared_ptr<const eventmgr::BaseEvent>& event) {
            std::lock_guard lock(m_mutex);
            m_events.push_back(boost::dynamic_pointer_cast<const vfs::Event>(event));
            m_arrived.notify_all();
        };
    }
    // The first event of `kind` for `location`, waiting for it at most 10 s; null when none came.
    boost::shared_ptr<const vfs::Event> waitFor(Kind kind, const AbsoluteIRI& location)
    {
        std::unique_lock lock(m_mutex);
        boost::shared_ptr<const vfs::Event> found;
        m_arrived.wait_for(lock, std::chrono::seconds(10), [&] {
            for (const auto& event : m_events)
                if (event && event->getSimpleEventData().getKind() == kind &&
                    event->getSimpleEventData().getLocation() == location.toString())
                    found = event;
            return found != nullptr;
        });
        return found;
    }
    std::size_t count()
    {
        std::lock_guard lock(m_mutex);
        return m_events.size();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::vector<boost::shared_ptr<const vfs::Event>> m_events;
};

eventmgr::EventFilter eventsOf(const AbsoluteIRI& subscription)
{
    return {vfs::Event::EventType(), events::eventTypePrefix(subscription.toString()), true};
}

TEST(EventTest, CarriesItsThreeFormsItsTypeAndItsTag)
{
    auto [system, ref] = vfs_test::makeSystem<vfs::DefaultStorageSystem>();
    const AbsoluteIRI subscription(u"mem://v/watched");
    const Folder folder(AbsoluteIRI(u"mem://v/watched/sub"), ref);
    ptree extra;
    extra.put("a.b", "x");
    const vfs::Event event(Kind::Created, subscription, folder, extra);

    EXPECT_EQ(event.getSimpleEventData(), events::SimpleEventData(Kind::Created, u"mem://v/watched/sub", events::EntryType::Folder));
    EXPECT_EQ(event.getExtendedEventData().getData(u"a.b").data(), "x");
    try {
        event.getExtendedEventData().getData(u"a.c");
        ADD_FAILURE() << "no runtime_error";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Unable to extract extended event data property a.c");
    }
    EXPECT_TRUE(event.hasExtendedEventData());
    const auto& type = event.getTypeInformation();
    EXPECT_EQ(type.getTypeNames(), (std::vector<std::string>{"foundation::storage::vfs::Event", "foundation::storage::events::Event",
                                                            "foundation::msg_svc::eventmgr::BaseEvent"}));
    EXPECT_EQ(type.getUserTags(), std::vector<ustring>{events::createEventType(Kind::Created, u"mem://v/watched")});

    ptree rootValueOnly("value");
    const vfs::Event fileEvent(Kind::Removed, subscription, File(AbsoluteIRI(u"mem://v/watched/f"), ref), rootValueOnly);
    EXPECT_EQ(fileEvent.getSimpleEventData().getEntryType(), events::EntryType::File);
    EXPECT_FALSE(fileEvent.hasExtendedEventData());

    const std::unique_ptr<eventmgr::BaseEvent> copy(event.clone());
    const auto& cloned = dynamic_cast<const vfs::Event&>(*copy);
    EXPECT_EQ(cloned.getEventSubscriptionLocation(), subscription);
    EXPECT_TRUE(cloned.getTypeInformation() == type);

    std::ostringstream text;
    text << static_cast<WithRecursiveChangeEvents>(7) << ' ' << WithRecursiveChangeEvents::Yes;
    EXPECT_EQ(text.str(), "WithRecursiveChangeEvents::No WithRecursiveChangeEvents::Yes");
}

class EventsEndToEnd : public testing::TestWithParam<const char*> {
protected:
    void TearDown() override { storage.system->shutdown(); }

    vfs_test::DecoratedStorage storage;
    vfs_test::WorkingFolder work{GetParam(), storage.ref};
};

TEST_P(EventsEndToEnd, RecursiveWatchDeliversHandlesUntilUnsubscribed)
{
    const Folder& root = work.root();
    eventmgr::EventMgr& manager = vfs::detail::publishEventsFor(root, {}, WithRecursiveChangeEvents::Yes);
    Received watched, everything;
    auto connection = manager.subscribe(eventsOf(root.getLocation()), watched.callback());
    auto all = manager.subscribe({}, everything.callback());

    work.folder(u"sub").createFolder();
    const auto created = watched.waitFor(Kind::Created, work.location(u"sub"));
    ASSERT_TRUE(created);
    work.file(u"sub/f").createFile();
    work.file(u"sub/f").truncateToSize(5);
    work.file(u"sub/f").moveFile(work.file(u"sub/g"), provider::ReplacementPolicy::FailIfExists);
    work.file(u"sub/g").removeFile();

    EXPECT_EQ(boost::get<Folder>(created->getEventData().getFileOrFolder()), work.folder(u"sub"));
    EXPECT_EQ(created->getEventSubscriptionLocation(), root.getLocation());
    const auto file = watched.waitFor(Kind::Created, work.location(u"sub/f"));
    ASSERT_TRUE(file);
    EXPECT_TRUE(boost::get<File>(file->getEventData().getFileOrFolder()).getStorageSystem() == storage.ref);
    EXPECT_TRUE(watched.waitFor(Kind::Modified, work.location(u"sub/f")));
    const auto renamed = watched.waitFor(Kind::RenamedTo, work.location(u"sub/g"));
    ASSERT_TRUE(renamed);
    EXPECT_FALSE(renamed->getExtendedEventData().getData(u"rename.cookie").data().empty());
    EXPECT_TRUE(watched.waitFor(Kind::Removed, work.location(u"sub/g")));

    vfs::unsubscribe(root, connection);
    EXPECT_FALSE(connection->isConnected());
    // Delivery is in order: once this event arrives, everything published before it has too.
    const AbsoluteIRI flush(u"mem://flush/");
    manager.publish(boost::make_shared<vfs::Event>(Kind::Created, flush, Folder(flush, storage.ref), ptree()),
                    static_cast<std::uint32_t>(eventmgr::DeliveryOption::Queued));
    ASSERT_TRUE(everything.waitFor(Kind::Created, flush));
    const std::size_t before = everything.count();
    work.file(u"after").createFile();
    // A later watch's event proves the pipeline has moved past the change above.
    const Folder other = work.folder(u"sub");
    vfs::detail::publishEventsFor(other, {Kind::Created}, WithRecursiveChangeEvents::No);
    work.file(u"sub/marker").createFile();
    ASSERT_TRUE(everything.waitFor(Kind::Created, work.location(u"sub/marker")));
    EXPECT_EQ(everything.count(), before + 1);
    vfs::unsubscribe(other, nullptr);
}

TEST_P(EventsEndToEnd, PollingDeliversChangesUntilUnsubscribed)
{
    const Folder& root = work.root();
    eventmgr::EventMgr& manager = vfs::detail::startChangePolling(root, {}, std::chrono::milliseconds(10));
    Received received;
    auto connection = manager.subscribe(eventsOf(root.getLocation()), received.callback());
    work.file(u"polled").createFile();
    EXPECT_TRUE(received.waitFor(Kind::Created, work.location(u"polled")));
    work.file(u"polled").removeFile();
    EXPECT_TRUE(received.waitFor(Kind::Removed, work.location(u"polled")));
    vfs::unsubscribeFromChangePolling(root, connection);
    EXPECT_EQ(storage.layers(GetParam() == std::string("file") ? u"file" : u"mem")
                  .calls->count(provider::decorators::ProviderOperation::StopChangePollingMechanism),
              1u);
}

// A watch handle reports until it ends, here destroyed from inside its own callback: the change
// after it reaches a second watch, not the first.
TEST_P(EventsEndToEnd, WatchHandleReportsUntilDestroyedFromItsOwnCallback)
{
    Received received;
    std::mutex mutex;
    std::unique_ptr<vfs::Watch> handle;
    const auto record = [&, deliver = received.callback()](const vfs::Event& event) {
        {
            std::lock_guard lock(mutex);
            if (event.getLocation() == work.location(u"stop"))
                handle.reset();
        }
        deliver(boost::make_shared<vfs::Event>(event));
    };
    {
        std::lock_guard lock(mutex);
        handle = std::make_unique<vfs::Watch>(vfs::watch(work.root(), record, {.recursive = true}));
    }
    work.folder(u"sub").createFolder();
    work.file(u"sub/f").createFile();
    EXPECT_TRUE(received.waitFor(Kind::Created, work.location(u"sub/f")));
    work.file(u"stop").createFile();
    ASSERT_TRUE(received.waitFor(Kind::Created, work.location(u"stop")));
    const vfs::Watch second = vfs::watch(work.folder(u"sub"), record);
    const std::size_t before = received.count();
    work.file(u"sub/after").createFile();
    EXPECT_TRUE(received.waitFor(Kind::Created, work.location(u"sub/after")));
    EXPECT_EQ(received.count(), before + 1); // from the second watch alone
    std::lock_guard lock(mutex);
    EXPECT_FALSE(handle);
}

INSTANTIATE_TEST_SUITE_P(Providers, EventsEndToEnd, testing::Values("file", "mem"));

TEST(EventsTest, WatchesThatCannotStartFailWithTheLibrarysErrors)
{
    vfs_test::DecoratedStorage masked({provider::ExtendedFeature::RecursiveWatching});
    const vfs_test::WorkingFolder local("file", masked.ref);
    const File file = local.file(u"f");
    file.createFile();
    const auto code = [](const std::function<void()>& call) {
        const auto error = vfs_test::thrown<vfs::Exception>(call);
        return error ? error->getErrorCode() : vfs::ErrorCode::Unknown;
    };
    EXPECT_EQ(code([&] { vfs::detail::publishEventsFor(file, {}, WithRecursiveChangeEvents::Yes); }),
              vfs::ErrorCode::InvalidLocation);
    EXPECT_EQ(code([&] { vfs::detail::publishEventsFor(local.root(), {}, WithRecursiveChangeEvents::Yes); }),
              vfs::ErrorCode::UnsupportedOperation);
    EXPECT_EQ(code([&] { vfs::detail::publishEventsFor(local.folder(u"missing"), {}, WithRecursiveChangeEvents::No); }),
              vfs::ErrorCode::ResourceNotFound);
    {
        vfs_test::inotify_faults::Limit limit(0);
        const auto error = vfs_test::thrown<vfs::ChangeEventsSubscriptionException>(
            [&] { vfs::detail::publishEventsFor(local.root(), {}, WithRecursiveChangeEvents::No); });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->getLocation(), local.root().getLocation());
    }

    // A storage system without an event manager: refused before the provider is asked.
    auto bare = std::make_shared<vfs::StorageSystemDecorator>(masked.system);
    const Folder unpublished(local.root().getLocation(), vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(bare)));
    const auto& calls = *masked.layers(u"file").calls;
    const auto before = calls.total();
    EXPECT_THROW(vfs::detail::publishEventsFor(unpublished, {}, WithRecursiveChangeEvents::No),
                 vfs::ChangeEventsNotSupportedException);
    EXPECT_THROW(vfs::detail::startChangePolling(unpublished, {}, std::chrono::seconds(1)),
                 vfs::ChangeEventsNotSupportedException);
    EXPECT_EQ(calls.total(), before);
    masked.system->shutdown();
}

// A live watch keeps its storage system: released by its owner, the system still publishes, and it
// goes when the watch ends. A publisher without a storage system drops reports with a diagnostic.
TEST(EventsTest, StorageSystemReleasedWhileAWatchLives)
{
    auto [system, ref] = vfs_test::makeSystem<vfs::DefaultStorageSystem>();
    const Folder folder(AbsoluteIRI(u"mem://v/"), ref);
    eventmgr::EventMgr& manager = vfs::detail::publishEventsFor(folder, {}, WithRecursiveChangeEvents::No);
    Received received;
    auto connection = manager.subscribe({}, received.callback());
    const std::weak_ptr<vfs::DefaultStorageSystem> weak = system;
    system.reset();
    ASSERT_FALSE(weak.expired());
    File(AbsoluteIRI(u"mem://v/f"), ref).createFile();
    EXPECT_TRUE(received.waitFor(Kind::Created, AbsoluteIRI(u"mem://v/f")));
    vfs::unsubscribe(folder, connection);
    EXPECT_TRUE(weak.expired());

    // A watch handle holds no storage system, and ends cleanly after it has gone.
    auto [owner, reference] = vfs_test::makeSystem<vfs::DefaultStorageSystem>();
    vfs::Watch handle = vfs::watch(Folder(AbsoluteIRI(u"mem://v/"), reference), [](const vfs::Event&) {});
    const std::weak_ptr<vfs::DefaultStorageSystem> released = owner;
    owner.reset();
    EXPECT_TRUE(released.expired());
    EXPECT_TRUE(handle.active());
    handle.stop();
    EXPECT_FALSE(handle.active());

    vfs_test::RecordingListener log(vfs::detail::logger(), foundation::log::category_results);
    auto orphanManager = boost::make_shared<eventmgr::EventMgr>();
    const vfs::EventPublisher orphan(nullptr, orphanManager, 0);
    orphan(Kind::Created, provider::StorageIRI(u"mem://v/"), provider::StorageIRI(u"mem://v/x"), events::EntryType::File, {});
    const auto records = log.take();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "Storage system found to be null");
}

} // namespace
