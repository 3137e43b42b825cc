#include <foundation/msg_svc/eventmgr/EventMgr.hpp>

#include <Prelude.hpp>

namespace {

using namespace foundation::msg_svc::eventmgr;

class Ping : public BaseEvent {
public:
    using EventBase = BaseEvent;
    static constexpr bool admitsUserTags = true;
    static std::string EventType() { return "test::Ping"; }
    Ping(int n, std::vector<ustring> tags = {})
        : Ping(n, boost::make_shared<DerivedTypeInformation<Ping>>(std::move(tags)))
    {
    }
    Ping(int n, boost::shared_ptr<const TypeInformation> type) : BaseEvent(std::move(type)), number(n) {}
    BaseEvent* clone() const override { return new Ping(*this); }
    int number;
};

class LoudPing : public Ping {
public:
    using EventBase = Ping;
    static std::string EventType() { return "test::LoudPing"; }
    explicit LoudPing(int n) : Ping(n, boost::make_shared<DerivedTypeInformation<LoudPing>>()) {}
    BaseEvent* clone() const override { return new LoudPing(*this); }
};

class Untagged : public BaseEvent {
public:
    using EventBase = BaseEvent;
    static std::string EventType() { return "test::Untagged"; }
    Untagged() : BaseEvent(boost::make_shared<DerivedTypeInformation<Untagged>>()) {}
    BaseEvent* clone() const override { return new Untagged(*this); }
};

int numberOf(const boost::shared_ptr<const BaseEvent>& event) { return dynamic_cast<const Ping&>(*event).number; }

// Waits (bounded) until `count` reaches `expected`.
bool reaches(const std::atomic<int>& count, int expected)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (count.load() < expected && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    return count.load() >= expected;
}

TEST(TypeInformationTest, ChainTagsAndTheirRefusals)
{
    DerivedTypeInformation<LoudPing> loud;
    EXPECT_EQ(loud.getTypeNames(),
              (std::vector<std::string>{"test::LoudPing", "test::Ping", "foundation::msg_svc::eventmgr::BaseEvent"}));
    EXPECT_TRUE(loud.isA("test::Ping"));
    EXPECT_FALSE(loud.isA("test::Untagged"));
    try {
        loud.getTypeName(3);
        ADD_FAILURE() << "no out_of_range";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "eventmgr::BaseEvent has no base types.");
    }

    DerivedTypeInformation<Untagged> untagged;
    try {
        untagged.addUserTag(u"x");
        ADD_FAILURE() << "no logic_error";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "cannot add user tags.");
    }
    EXPECT_TRUE(untagged.getUserTags().empty());
    DerivedTypeInformation<Untagged> populated({u"x"});
    try {
        populated.getUserTags();
        ADD_FAILURE() << "no out_of_range";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ(error.what(), "userTags_ populated for event with NoUserEventTags");
    }

    DerivedTypeInformation<Ping> a({u"t"}), b({u"t"}), c({u"u"});
    DerivedTypeInformation<LoudPing> d({u"t"});
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == c);
    EXPECT_FALSE(a == d);
}

TEST(EventMgrTest, FiltersByTypeAndTagAndQueuesInOrderOnItsOwnThread)
{
    EventMgr manager;
    std::mutex mutex;
    std::vector<std::pair<std::string, int>> seen;
    std::vector<std::thread::id> queuedThreads;
    const auto record = [&](std::string who) {
        return [&, who](const boost::shared_ptr<const BaseEvent>& event) {
            std::lock_guard lock(mutex);
            seen.emplace_back(who, dynamic_cast<const Ping*>(event.get()) ? numberOf(event) : -1);
        };
    };
    auto all = manager.subscribe({}, record("all"));
    auto loud = manager.subscribe({LoudPing::EventType()}, record("loud"));
    auto exact = manager.subscribe({Ping::EventType(), u"file:///a Kind::Created"}, record("exact"));
    auto prefix = manager.subscribe({Ping::EventType(), u"file:///a ", true}, record("prefix"));

    manager.publish(boost::make_shared<Ping>(1, std::vector<ustring>{u"file:///a Kind::Created"}), 0);
    manager.publish(boost::make_shared<Ping>(2, std::vector<ustring>{u"file:///a Kind::Removed"}), 0);
    manager.publish(boost::make_shared<Ping>(3, std::vector<ustring>{u"file:///ab Kind::Created"}), 0);
    manager.publish(boost::make_shared<LoudPing>(4), 0);
    manager.publish(boost::make_shared<Untagged>(), 0);
    EXPECT_EQ(seen, (std::vector<std::pair<std::string, int>>{{"all", 1}, {"exact", 1}, {"prefix", 1}, {"all", 2},
                                                               {"prefix", 2}, {"all", 3}, {"all", 4}, {"loud", 4},
                                                               {"all", -1}}));

    all.reset(); // destroying a connection disconnects it
    loud.reset();
    exact.reset();
    prefix.reset();
    std::atomic<int> count{0};
    std::vector<int> order;
    auto queued = manager.subscribe({Ping::EventType()}, [&](const boost::shared_ptr<const BaseEvent>& event) {
        order.push_back(numberOf(event));
        queuedThreads.push_back(std::this_thread::get_id());
        ++count;
    });
    for (int i = 0; i < 200; ++i)
        manager.publish(boost::make_shared<Ping>(i), static_cast<std::uint32_t>(DeliveryOption::Queued));
    ASSERT_TRUE(reaches(count, 200));
    queued->disconnect();
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_NE(queuedThreads.front(), std::this_thread::get_id());
    EXPECT_THROW(manager.publish(boost::make_shared<Ping>(0), 7), std::invalid_argument);
}

TEST(EventMgrTest, ThrowingSubscriberDoesNotStopTheOthers)
{
    EventMgr manager;
    int calls = 0;
    auto thrower = manager.subscribe({}, [](const auto&) { throw std::runtime_error("subscriber failed"); });
    auto counter = manager.subscribe({}, [&](const auto&) { ++calls; });
    EXPECT_NO_THROW(manager.publish(boost::make_shared<Ping>(1), 0));
    EXPECT_EQ(calls, 1);
}

// After disconnect() returns the callback is not running elsewhere and is never called again; a
// callback may disconnect itself; destroying the manager from its own dispatcher thread is safe.
TEST(EventMgrTest, DisconnectWaitsForRunningCallbacksAndIsSafeFromInsideThem)
{
    auto manager = std::make_unique<EventMgr>();

    std::mutex mutex;
    std::condition_variable changed;
    bool inside = false, release = false;
    auto blocking = manager->subscribe({}, [&](const auto&) {
        std::unique_lock lock(mutex);
        inside = true;
        changed.notify_all();
        changed.wait(lock, [&] { return release; });
    });
    std::thread publisher([&] { manager->publish(boost::make_shared<Ping>(1), 0); });
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return inside; }));
    }
    std::atomic<bool> disconnected{false};
    std::thread disconnecter([&] {
        blocking->disconnect();
        disconnected = true;
    });
    // disconnect() must still be waiting, since the callback has not returned.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(disconnected.load());
    {
        std::lock_guard lock(mutex);
        release = true;
        changed.notify_all();
    }
    disconnecter.join();
    publisher.join();
    EXPECT_TRUE(disconnected.load());

    // Many publishers against connections that come and go: none is called after its disconnect.
    std::atomic<int> lateCalls{0};
    vfs_test::runOnThreads(4, [&](int index) {
        if (index < 2) {
            for (int i = 0; i < 2000; ++i)
                manager->publish(boost::make_shared<Ping>(i), static_cast<std::uint32_t>(i % 2));
            return;
        }
        for (int i = 0; i < 200; ++i) {
            auto gone = std::make_shared<std::atomic<bool>>(false);
            auto connection = manager->subscribe({}, [gone, &lateCalls](const auto&) {
                if (gone->load())
                    ++lateCalls;
            });
            std::this_thread::yield();
            connection->disconnect();
            gone->store(true);
        }
    });
    EXPECT_EQ(lateCalls.load(), 0);

    std::atomic<int> selfCalls{0};
    std::unique_ptr<Connection> self;
    std::mutex selfMutex;
    {
        std::lock_guard lock(selfMutex);
        self = manager->subscribe({}, [&](const auto&) {
            ++selfCalls;
            std::lock_guard lock(selfMutex);
            self->disconnect();
            manager.reset(); // the last owner goes on the dispatcher thread
        });
    }
    {
        // Held so that the callback cannot destroy the manager before publish() has returned.
        std::lock_guard lock(selfMutex);
        manager->publish(boost::make_shared<Ping>(1), static_cast<std::uint32_t>(DeliveryOption::Queued));
    }
    ASSERT_TRUE(reaches(selfCalls, 1));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        std::lock_guard lock(selfMutex);
        if (!manager)
            break;
    }
    std::lock_guard lock(selfMutex);
    EXPECT_FALSE(manager);
    EXPECT_FALSE(self->isConnected());
}

} // namespace
