#include <Prelude.hpp>

namespace {

using vfs::FolderVisitResult;
using Result = FolderVisitResult;

std::string narrow(const ustring& text) { return fl::i18n::ustring_to_utf8(text); }

// Records "<name" before a folder, "name" for a file, ">name" after a folder and "!name" for a failure
// it absorbs; answers what `answers` says for an event (Continue otherwise). Safe for parallel walks.
class Recorder : public vfs::FolderVisitor {
public:
    std::map<std::string, Result> answers;
    bool absorbFailures = false;
    std::function<void(const vfs::Folder&)> onBefore;

    Result visitBefore(const vfs::Folder& folder) override
    {
        if (onBefore)
            onBefore(folder);
        return record("<" + narrow(folder.getName()));
    }
    Result visit(const vfs::File& file) override { return record(narrow(file.getName())); }
    Result visitAfter(const vfs::Folder& folder) override { return record(">" + narrow(folder.getName())); }
    Result visitFolderFailed(const vfs::Folder& folder, const vfs::Exception& error) override
    {
        if (!absorbFailures)
            return FolderVisitor::visitFolderFailed(folder, error);
        return record("!" + narrow(folder.getName()));
    }

    std::vector<std::string> events() const
    {
        std::lock_guard lock(m_mutex);
        return m_events;
    }
    bool saw(const std::string& event) const
    {
        const auto all = events();
        return std::find(all.begin(), all.end(), event) != all.end();
    }
    std::ptrdiff_t at(const std::string& event) const
    {
        const auto all = events();
        return std::find(all.begin(), all.end(), event) - all.begin();
    }

private:
    Result record(const std::string& event)
    {
        std::lock_guard lock(m_mutex);
        m_events.push_back(event);
        const auto answer = answers.find(event);
        return answer == answers.end() ? Result::Continue : answer->second;
    }
    mutable std::mutex m_mutex;
    std::vector<std::string> m_events;
};

// The flag makes the walk the parallel one.
class FolderWalkTest : public vfs_test::OnEachSchemeAndFlag {
protected:
    // r/{a/{x, y, c/{z}}, b/{w}, f}
    void SetUp() override
    {
        for (const ustring folder : {u"r/a/c", u"r/b"})
            work.folder(folder).createFolderRecursive();
        for (const ustring file : {u"r/a/x", u"r/a/y", u"r/a/c/z", u"r/b/w", u"r/f"})
            work.file(file).createFile();
    }

    static bool parallel() { return flag(); }
    Result walk(const vfs::Folder& root, vfs::FolderVisitor& visitor) const
    {
        return parallel() ? vfs::walkFolderParallel(root, visitor) : vfs::walkFolder(root, visitor);
    }
    vfs::Folder tree() const { return work.folder(u"r"); }
    provider::StorageIRI iri(const ustring& relative) const
    {
        return provider::StorageIRI(work.location(relative).toString());
    }
};

INSTANTIATE_TEST_SUITE_P(Walks, FolderWalkTest, vfs_test::eachSchemeAndFlag(),
                         vfs_test::schemeAndFlagName("sequential", "parallel"));

TEST_P(FolderWalkTest, VisitsDepthFirstWithEachFolderAroundItsContents)
{
    Recorder visitor;
    EXPECT_EQ(walk(tree(), visitor), Result::Continue);
    const auto events = visitor.events();
    EXPECT_EQ(events.size(), 13u);
    EXPECT_EQ(events.front(), "<r");
    EXPECT_EQ(events.back(), ">r");
    const std::map<std::string, std::vector<std::string>> contents{
        {"a", {"x", "y", "<c", "z", ">c"}}, {"c", {"z"}}, {"b", {"w"}}};
    for (const auto& [folder, inside] : contents)
        for (const std::string& event : inside) {
            EXPECT_LT(visitor.at("<" + folder), visitor.at(event)) << event;
            EXPECT_GT(visitor.at(">" + folder), visitor.at(event)) << event;
        }
    EXPECT_TRUE(visitor.saw("f"));
}

TEST_P(FolderWalkTest, AnswersSteerTheWalk)
{
    struct Case {
        std::map<std::string, Result> answers;
        Result result;
        std::vector<std::string> seen, unseen;
    };
    // The parallel walk lets siblings of a Stop run on and only drops the ancestors' after-visits.
    const std::vector<Case> cases{
        {{{"<a", Result::Skip}}, Result::Continue, {"<b", "w", "f", ">r"}, {"x", "<c", ">a"}},
        {{{"<r", Result::Skip}}, Result::Skip, {}, {"<a", "f", ">r"}},
        {{{">r", Result::Skip}}, Result::Skip, {"z"}, {}},
        {{{"w", Result::Skip}}, Result::Continue, {">b", ">r"}, {}},
        {{{">c", Result::Skip}}, Result::Continue, {">a", ">r"}, {}},
        {{{"z", Result::Stop}}, Result::Stop, {}, {">c", ">a", ">r"}},
        {{{"<b", Result::Stop}}, Result::Stop, {}, {"w", ">r"}},
    };
    for (const Case& test : cases) {
        Recorder visitor;
        visitor.answers = test.answers;
        EXPECT_EQ(walk(tree(), visitor), test.result) << test.answers.begin()->first;
        for (const auto& event : test.seen)
            EXPECT_TRUE(visitor.saw(event)) << test.answers.begin()->first << " " << event;
        for (const auto& event : test.unseen)
            EXPECT_FALSE(visitor.saw(event)) << test.answers.begin()->first << " " << event;
        if (test.result != Result::Stop)
            continue;
        if (!parallel()) { // nothing after the Stop
            EXPECT_EQ(visitor.events().back(), test.answers.begin()->first);
        } else if (test.answers.contains("z")) { // siblings and their subtrees run on
            for (const std::string file : {"x", "y", "w", "f"})
                EXPECT_TRUE(visitor.saw(file)) << file;
        }
    }
}

TEST_P(FolderWalkTest, EmptyFolderVisitsTheRootOnly)
{
    Recorder visitor;
    visitor.answers[">c"] = Result::Skip;
    work.file(u"r/a/c/z").removeFile();
    EXPECT_EQ(walk(work.folder(u"r/a/c"), visitor), Result::Skip);
    EXPECT_EQ(visitor.events(), (std::vector<std::string>{"<c", ">c"}));
}

TEST_P(FolderWalkTest, FailuresAtEveryDepthGoToThatFolderWhenAbsorbed)
{
    for (const ustring folder : {u"r", u"r/a", u"r/a/c"}) {
        auto& faults = this->faults();
        const auto fault = faults.addFault({ProviderOperation::List, iri(folder), provider::ErrorCode::PermissionDenied});
        const std::string name = narrow(work.location(folder).getName());
        // A visitor that absorbs nothing gets the failure: the fault sweep's walks check that.
        Recorder absorbing;
        absorbing.absorbFailures = true;
        EXPECT_EQ(walk(tree(), absorbing), Result::Continue) << name;
        EXPECT_TRUE(absorbing.saw("!" + name));
        EXPECT_FALSE(absorbing.saw(">" + name)) << name;
        EXPECT_FALSE(absorbing.saw("z")) << name;
        EXPECT_EQ(absorbing.saw(">r"), name != "r") << name;
        faults.removeFault(fault);
    }
}

TEST_P(FolderWalkTest, VanishedFolderEndsThroughItsAfterVisit)
{
    Recorder visitor;
    visitor.onBefore = [](const vfs::Folder& folder) {
        if (folder.getName() == u"c")
            folder.removeFolder(vfs::FolderRemovalPolicy::Recursive);
    };
    EXPECT_EQ(walk(tree(), visitor), Result::Continue);
    EXPECT_TRUE(visitor.saw(">c"));
    EXPECT_FALSE(visitor.saw("z"));
    EXPECT_TRUE(visitor.saw(">a"));

    // So does one whose listing breaks off because it has gone.
    faults().addFault(
        {ProviderOperation::List, iri(u"r/b"), provider::ErrorCode::ResourceNotFound});
    Recorder again;
    EXPECT_EQ(walk(tree(), again), Result::Continue);
    EXPECT_TRUE(again.saw(">b"));
    EXPECT_FALSE(again.saw("w"));
}

// Many folders and files at once: run under ThreadSanitizer. Each folder's before-visit precedes all
// of its subtree and its after-visit follows it.
TEST(ParallelFolderWalkTest, ConcurrentVisitsAndCancellation)
{
    vfs_test::DecoratedStorage storage;
    vfs_test::WorkingFolder work{"mem", storage.ref};
    for (int folder = 0; folder < 16; ++folder) {
        const ustring deep = u"t/" + fl::i18n::utf8_to_ustring(std::to_string(folder)) + u"/deep/";
        work.folder(deep).createFolderRecursive();
        for (int file = 0; file < 16; ++file)
            work.file(deep + fl::i18n::utf8_to_ustring(std::to_string(file))).createFile();
    }

    // Logical times of every visit, by location.
    struct Counting : vfs::FolderVisitor {
        std::atomic<int> clock{0}, files{0};
        std::mutex mutex;
        std::map<ustring, int> before, after, fileTimes;
        Result note(std::map<ustring, int>& into, const ustring& location)
        {
            const int now = ++clock;
            std::lock_guard lock(mutex);
            into[location] = now;
            return Result::Continue;
        }
        Result visitBefore(const vfs::Folder& folder) override { return note(before, folder.getLocation().toString()); }
        Result visitAfter(const vfs::Folder& folder) override { return note(after, folder.getLocation().toString()); }
        Result visit(const vfs::File& file) override
        {
            ++files;
            return note(fileTimes, file.getLocation().toString());
        }
    } counting;
    EXPECT_EQ(vfs::walkFolderParallel(work.folder(u"t"), counting), Result::Continue);
    EXPECT_EQ(counting.files, 256);
    for (const auto& [file, time] : counting.fileTimes)
        for (const auto& [folder, start] : counting.before)
            if (file.starts_with(folder + u"/")) {
                EXPECT_LT(start, time);
                EXPECT_GT(counting.after[folder], time);
            }

    // A cancellation that comes true part way leaves the rest out.
    Counting cancelled;
    std::atomic<int> asked{0};
    EXPECT_EQ(vfs::walkFolderParallel(work.folder(u"t"), cancelled, [&] { return ++asked > 40; }), Result::Stop);
    EXPECT_LT(cancelled.files, 256);
    Counting never;
    EXPECT_EQ(vfs::walkFolderParallel(work.folder(u"t"), never, [] { return true; }), Result::Stop);
    EXPECT_EQ(never.clock, 0);
}

} // namespace
