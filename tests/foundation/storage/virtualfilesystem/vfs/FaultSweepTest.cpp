// Every library operation, with a fault injected at each provider call it makes in turn: the caller
// must get the library's exception for exactly that fault (or an outcome the operation documents),
// and the stored tree must hold, path by path, either what it held before or what a successful run
// leaves; never a half-written file nor an item lost by a move.

#include <Prelude.hpp>

#include <ErrorCodeTable.hpp>

namespace {

using Code = provider::ErrorCode;

// Relative path to content; "/" stands for a folder.
using Tree = std::map<ustring, std::string>;

// Thrown by a scenario when its standard stream reports a failure: the streams absorb failures of
// the buffer's reads, writes, seeks and flushes into the stream state rather than throwing.
struct StreamWentBad {};

Tree snapshot(const vfs::Folder& root)
{
    const std::size_t prefix = root.getLocation().toString().size() + 1;
    Tree tree;
    for (const auto& entry : root.listAllEntriesRecursive(u"")) {
        if (const auto* file = boost::get<vfs::FileEntry>(&entry))
            tree[file->getFile().getLocation().toString().substr(prefix)] = readAll(file->getFile());
        else
            tree[boost::get<vfs::FolderEntry>(entry).getFolder().getLocation().toString().substr(prefix)] = "/";
    }
    return tree;
}

std::string describe(const Tree& tree)
{
    std::string text;
    for (const auto& [path, content] : tree)
        text += fl::i18n::ustring_to_utf8(path) + "=" + content + " ";
    return text;
}

using Absorbs = std::function<bool(ProviderOperation, Code, std::uint64_t)>;
using Follows = std::function<bool(const vfs::Exception&)>;

struct Scenario {
    std::string name;
    std::function<void(const vfs::Folder& t)> run;
    // Faults after which the operation may still succeed, as the library documents for it:
    // (operation, provider code, index of the call among that operation's calls).
    Absorbs absorbs = [](ProviderOperation, Code, std::uint64_t) { return false; };
    // Library exceptions of the storage itself that may follow an absorbed fault (the state then
    // differs from what the operation expected).
    Follows follows = [](const vfs::Exception&) { return false; };
    // Files written by plain (non-transactional) streams: their content may stop short.
    std::set<ustring> partial = {};
    // Paths of which at least one must hold its content whatever happens (the two ends of a move).
    std::vector<std::pair<ustring, ustring>> oneOf = {};

    Scenario absorbing(Absorbs rule, Follows then = {}) &&
    {
        absorbs = std::move(rule);
        if (then)
            follows = std::move(then);
        return std::move(*this);
    }
    Scenario partialAt(std::set<ustring> paths) &&
    {
        partial = std::move(paths);
        return std::move(*this);
    }
    Scenario keepingOneOf(std::vector<std::pair<ustring, ustring>> pairs) &&
    {
        oneOf = std::move(pairs);
        return std::move(*this);
    }
};

Scenario scenario(std::string name, std::function<void(const vfs::Folder& t)> run)
{
    return Scenario{std::move(name), std::move(run)};
}

// Faults with `code` at any of `operations`.
Absorbs notFoundAt(std::set<ProviderOperation> operations)
{
    return [operations = std::move(operations)](ProviderOperation operation, Code code, std::uint64_t) {
        return code == Code::ResourceNotFound && operations.contains(operation);
    };
}

bool isStreamTransfer(ProviderOperation operation)
{
    return operation == ProviderOperation::StreamRead || operation == ProviderOperation::StreamWrite ||
           operation == ProviderOperation::StreamSeek || operation == ProviderOperation::StreamFlush;
}

// Scheme, and whether the providers' own recursive removal, recursive listing and wildcards are
// hidden so that the library's fallbacks run instead.
class FaultSweep : public testing::TestWithParam<std::tuple<std::string, bool>> {
protected:
    static std::set<ExtendedFeature> hidden()
    {
        if (!std::get<1>(GetParam()))
            return {};
        return {ExtendedFeature::RecursiveRemoval, ExtendedFeature::RecursiveListing,
                ExtendedFeature::FlatWildcardListing, ExtendedFeature::RecursiveWildcardListing};
    }

    // a.txt, b.dat, d/{x.txt, e/{y}}, empty/
    void resetTree()
    {
        m_changed = false;
        if (t.folderExists())
            t.removeFolder(vfs::FolderRemovalPolicy::Recursive);
        vfs::Folder(t, u"d/e").createFolderRecursive();
        vfs::Folder(t, u"empty").createFolder();
        writeAll(vfs::File(t, u"a.txt"), "alpha\n");
        writeAll(vfs::File(t, u"b.dat"), "bravo");
        writeAll(vfs::File(t, u"d/x.txt"), "x-ray");
        writeAll(vfs::File(t, u"d/e/y"), "yankee");
    }

    // The codes tried at the `index`-th call: the ones that operations interpret themselves at
    // every call, and the others in rotation, so that each code meets every operation at least
    // once; every code everywhere when VFS_FULL_FAULT_SWEEP is set.
    static std::vector<Code> codesAt(std::size_t index, std::size_t calls)
    {
        static const bool full = std::getenv("VFS_FULL_FAULT_SWEEP") != nullptr;
        static const std::vector<Code> interpreted{Code::FolderNotEmpty, Code::PermissionDenied,
                                                   Code::ResourceAlreadyExists, Code::ResourceNotFound,
                                                   Code::UnsupportedOperation};
        std::vector<Code> others;
        for (const auto& [value, library] : vfs_test::libraryCodeOfProviderCode())
            if (std::find(interpreted.begin(), interpreted.end(), static_cast<Code>(value)) == interpreted.end())
                others.push_back(static_cast<Code>(value));
        std::vector<Code> codes = interpreted;
        for (std::size_t i = 0; i < others.size(); ++i)
            if (full || i == index % others.size() || (index + 1 == calls && i >= calls))
                codes.push_back(others[i]);
        return codes;
    }

    void sweep(const std::vector<Scenario>& scenarios)
    {
        std::uint64_t injected = 0;
        for (const Scenario& scenario : scenarios) {
            SCOPED_TRACE(scenario.name);
            resetTree();
            const Tree before = snapshot(t);
            auto& counting = *storage.layers(scheme()).calls;
            counting.reset();
            scenario.run(t);
            std::vector<std::pair<ProviderOperation, std::uint64_t>> calls;
            for (std::size_t op = 0; op < provider::decorators::providerOperationCount; ++op)
                if (const auto n = counting.count(static_cast<ProviderOperation>(op)))
                    calls.emplace_back(static_cast<ProviderOperation>(op), n);
            const Tree after = snapshot(t);
            m_changed = true;
            std::size_t total = 0;
            for (const auto& [operation, n] : calls)
                total += n;
            ASSERT_GT(total, 0u);

            std::size_t index = 0;
            for (const auto& [operation, n] : calls)
                for (std::uint64_t k = 0; k < n; ++k, ++index)
                    for (Code code : codesAt(index, total)) {
                        inject(scenario, operation, k, code, before, after);
                        ++injected;
                        if (HasFatalFailure())
                            return;
                    }
        }
        RecordProperty("faults_injected", std::to_string(injected));
        std::printf("[ fault sweep ] %s: %llu faults injected\n",
                    testing::UnitTest::GetInstance()->current_test_info()->name(),
                    static_cast<unsigned long long>(injected));
    }

private:
    void inject(const Scenario& scenario, ProviderOperation operation, std::uint64_t k, Code code, const Tree& before,
                const Tree& success)
    {
        if (m_changed)
            resetTree();
        auto& faults = *storage.layers(scheme()).faults;
        const auto id = faults.addFault({.operation = operation, .code = code,
                                         .trigger = FaultInjectingProvider::Trigger::Nth, .calls = k});
        const std::string where = std::string(toString(operation)) + " call " + std::to_string(k) + " code " +
                                  std::to_string(static_cast<int>(code));
        const ustring contexts = u"fault-injection:" + fl::i18n::utf8_to_ustring(toString(operation));
        const vfs::ErrorCode expected = vfs_test::libraryCodeOfProviderCode().at(static_cast<std::size_t>(code)).second;
        const auto fired = [&] { return faults.failuresInjected(id) == 1; };
        bool absorbable = scenario.absorbs(operation, code, k);
        try {
            scenario.run(t);
            EXPECT_TRUE(fired()) << where << ": the fault was never reached";
            // A stream's flush with nothing pending (the chain flushes again while it closes) has
            // nothing to lose: passing it over is right when the run left what success leaves.
            if (operation == ProviderOperation::StreamFlush && snapshot(t) == success)
                absorbable = true;
            EXPECT_TRUE(absorbable) << where << ": the operation succeeded although a provider call failed";
        } catch (const vfs::Exception& error) {
            EXPECT_TRUE(fired()) << where;
            if (error.getExceptionContextsString() == contexts) {
                EXPECT_EQ(error.getErrorCode(), expected) << where;
                const auto location = faults.lastFailureLocation(id);
                EXPECT_TRUE(location && error.getLocation().toString() == location->toString())
                    << where << ": reported at " << error.getLocation();
            } else {
                EXPECT_TRUE(absorbable && scenario.follows(error))
                    << where << ": unexpected " << error.what();
            }
        } catch (const vfs::IOException& error) {
            EXPECT_TRUE(fired()) << where;
            EXPECT_EQ(error.getErrorCode(), expected) << where;
            EXPECT_EQ(error.getExceptionContextsString(), contexts) << where << ": " << error.what();
        } catch (const StreamWentBad&) {
            EXPECT_TRUE(fired() && isStreamTransfer(operation)) << where << ": the stream went bad";
        } catch (const provider::Exception& error) {
            ADD_FAILURE() << where << ": a provider exception reached the caller: " << error.what();
        } catch (const provider::ByteStreamFailure& error) {
            ADD_FAILURE() << where << ": a provider stream failure reached the caller: " << error.what();
        } catch (const std::exception& error) {
            ADD_FAILURE() << where << ": " << vfs_test::describeCurrentException();
        }
        faults.removeFault(id);
        const Tree now = snapshot(t);
        checkKept(scenario, before, success, now, where);
        // Times and permissions play no part in any scenario: an unchanged tree serves the next run.
        m_changed = now != before;
    }

    bool m_changed = true;

    static void checkKept(const Scenario& scenario, const Tree& before, const Tree& success, const Tree& now,
                          const std::string& where)
    {
        std::set<ustring> paths;
        for (const Tree* tree : {&before, &success, &now})
            for (const auto& entry : *tree)
                paths.insert(entry.first);
        const auto at = [](const Tree& tree, const ustring& path) {
            const auto found = tree.find(path);
            return found == tree.end() ? std::optional<std::string>() : std::optional(found->second);
        };
        for (const ustring& path : paths) {
            const auto state = at(now, path);
            if (state == at(before, path) || state == at(success, path))
                continue;
            const auto full = at(success, path);
            if (scenario.partial.contains(path) && state && full && full->starts_with(*state))
                continue;
            ADD_FAILURE() << where << ": " << fl::i18n::ustring_to_utf8(path) << " holds "
                          << (state ? "\"" + *state + "\"" : "nothing") << "\nbefore: " << describe(before)
                          << "\nsuccess: " << describe(success) << "\nnow: " << describe(now);
            return;
        }
        for (const auto& [first, second] : scenario.oneOf)
            EXPECT_TRUE(now.contains(first) || now.contains(second))
                << where << ": both " << fl::i18n::ustring_to_utf8(first) << " and "
                << fl::i18n::ustring_to_utf8(second) << " are gone";
    }

protected:
    ustring scheme() const { return fl::i18n::utf8_to_ustring(std::get<0>(GetParam())); }

    vfs_test::DecoratedStorage storage{hidden()};
    vfs_test::WorkingFolder work{std::get<0>(GetParam()), storage.ref};
    vfs::Folder t{work.root(), u"t"};
};

vfs::File at(const vfs::Folder& t, const ustring& path) { return vfs::File(t, path); }
vfs::Folder folderAt(const vfs::Folder& t, const ustring& path) { return vfs::Folder(t, path); }

TEST_P(FaultSweep, FileOperations)
{
    const boost::posix_time::ptime time(boost::gregorian::date(2001, 2, 3));
    sweep({
        scenario("create", [](const vfs::Folder& t) { at(t, u"n").createFile(); }),
        scenario("remove", [](const vfs::Folder& t) { at(t, u"a.txt").removeFile(); }),
        scenario("copy to a new name",
                 [](const vfs::Folder& t) { at(t, u"a.txt").copyFile(at(t, u"c.txt"), ReplacementPolicy::FailIfExists); }),
        scenario("copy over a file",
                 [](const vfs::Folder& t) { at(t, u"a.txt").copyFile(at(t, u"b.dat"), ReplacementPolicy::Replace); }),
        scenario("move to a new name",
                 [](const vfs::Folder& t) { at(t, u"a.txt").moveFile(at(t, u"m.txt"), ReplacementPolicy::FailIfExists); })
            .keepingOneOf({{u"a.txt", u"m.txt"}}),
        scenario("move over a file",
                 [](const vfs::Folder& t) { at(t, u"a.txt").moveFile(at(t, u"b.dat"), ReplacementPolicy::Replace); })
            .keepingOneOf({{u"a.txt", u"b.dat"}}),
        scenario("truncate", [](const vfs::Folder& t) { at(t, u"b.dat").truncateToSize(2); }),
        scenario("attributes",
                 [time](const vfs::Folder& t) {
                     const File file = at(t, u"a.txt");
                     file.getAttributes();
                     file.getExtendedAttributes();
                     file.setLastModified(time);
                     file.setWritable(true);
                 }),
        // Not found means "no such file" to fileExists, and makeFileOrFolder refuses what is not there.
        scenario("existence",
                 [](const vfs::Folder& t) {
                     at(t, u"a.txt").fileExists();
                     vfs::makeFileOrFolder(at(t, u"b.dat").getLocation(), t.getStorageSystem());
                 })
            .absorbing(notFoundAt({ProviderOperation::FileExists, ProviderOperation::Exists}),
                       [](const vfs::Exception& error) { return error.getErrorCode() == vfs::ErrorCode::ResourceNotFound; }),
    });
}

TEST_P(FaultSweep, FolderOperations)
{
    const boost::posix_time::ptime time(boost::gregorian::date(2001, 2, 3));
    // A folder move that the provider refuses for these reasons is done by copying and deleting.
    // Within the copy, what it takes for gone is left out, and what it has left out then keeps its
    // folder from being removed (or is found after all when created).
    const auto fallsBack = [](std::set<Code> codes) {
        return [codes](ProviderOperation operation, Code code, std::uint64_t) {
            return (operation == ProviderOperation::MoveFolder && codes.contains(code)) ||
                   (operation != ProviderOperation::MoveFolder && code == Code::ResourceNotFound) ||
                   (operation == ProviderOperation::CopyFile && code == Code::InvalidLocation) ||
                   (operation == ProviderOperation::SetLastModified && code == Code::InvalidLocation);
        };
    };
    const Follows leftOut = [](const vfs::Exception& error) {
        const auto code = error.getErrorCode();
        return code == vfs::ErrorCode::FolderNotEmpty || code == vfs::ErrorCode::ResourceAlreadyExists ||
               code == vfs::ErrorCode::InvalidLocation;
    };
    const auto moved = std::vector<std::pair<ustring, ustring>>{{u"d/x.txt", u"m/x.txt"}, {u"d/e/y", u"m/e/y"}};
    const auto merged =
        std::vector<std::pair<ustring, ustring>>{{u"d/x.txt", u"empty/x.txt"}, {u"d/e/y", u"empty/e/y"}};
    sweep({
        scenario("create", [](const vfs::Folder& t) { folderAt(t, u"n").createFolder(); }),
        scenario("create with ancestors", [](const vfs::Folder& t) { folderAt(t, u"n/o/p").createFolderRecursive(); }),
        scenario("remove an empty folder",
                 [](const vfs::Folder& t) { folderAt(t, u"empty").removeFolder(vfs::FolderRemovalPolicy::NonRecursive); }),
        scenario("attributes",
                 [time](const vfs::Folder& t) {
                     folderAt(t, u"d").getAttributes();
                     folderAt(t, u"d").setLastModified(time);
                     folderAt(t, u"d").folderExists();
                 })
            .absorbing(notFoundAt({ProviderOperation::FolderExists})),
        scenario("move",
                 [](const vfs::Folder& t) { folderAt(t, u"d").moveFolder(folderAt(t, u"m"), ReplacementPolicy::FailIfExists); })
            .absorbing(fallsBack({Code::UnsupportedOperation}), leftOut)
            .keepingOneOf(moved),
        scenario("move merging",
                 [](const vfs::Folder& t) {
                     folderAt(t, u"d").moveFolder(folderAt(t, u"empty"), ReplacementPolicy::MergeFolders);
                 })
            .absorbing(fallsBack({Code::UnsupportedOperation, Code::FolderNotEmpty, Code::PermissionDenied,
                                  Code::ResourceAlreadyExists}),
                       leftOut)
            .keepingOneOf(merged),
    });
}

// Drains a listing, forcing the attributes of entries that carry them.
template <class T>
void drain(const vfs::FolderListing<T>& listing)
{
    for (const T& element : listing) {
        if constexpr (std::is_same_v<T, vfs::FolderEntry> || std::is_same_v<T, vfs::FileEntry>)
            element.getAttributes();
        if constexpr (std::is_same_v<T, boost::variant<vfs::FileEntry, vfs::FolderEntry>>)
            boost::apply_visitor([](const auto& entry) { entry.getAttributes(); }, element);
    }
}

TEST_P(FaultSweep, Listings)
{
    // A recursive listing skips what it cannot open or what has gone, below the root; the names-only
    // one takes an item that has gone for a file.
    const auto belowRoot = [](ProviderOperation operation, Code code, std::uint64_t k) {
        return (code == Code::ResourceNotFound || code == Code::PermissionDenied) &&
               !(operation == ProviderOperation::List && k == 0);
    };
    sweep({
        scenario("flat", [](const vfs::Folder& t) { drain(t.listAll(u"")); }),
        scenario("flat files, wildcard", [](const vfs::Folder& t) { drain(t.listFiles(u"*.txt")); }),
        scenario("flat folder entries", [](const vfs::Folder& t) { drain(t.listFolderEntries(u"")); }),
        scenario("flat entries, wildcard", [](const vfs::Folder& t) { drain(t.listAllEntries(u"*.*")); }),
        scenario("recursive", [](const vfs::Folder& t) { drain(t.listAllRecursive(u"")); }).absorbing(belowRoot),
        scenario("recursive entries, wildcard", [](const vfs::Folder& t) { drain(t.listAllEntriesRecursive(u"*")); })
            .absorbing(belowRoot),
    });
}

TEST_P(FaultSweep, RecursiveCopyAndDelete)
{
    // The walk takes a folder that has gone for finished; the copy skips a source that has gone
    // and a target it may not name (a file copy also sets the copy's time), the deletion a file or
    // subfolder that is already gone.
    const auto copyAbsorbs = [](ProviderOperation operation, Code code, std::uint64_t) {
        return code == Code::ResourceNotFound ||
               (code == Code::InvalidLocation &&
                (operation == ProviderOperation::CopyFile || operation == ProviderOperation::SetLastModified));
    };
    // A target folder that has gone is reported as a location the copy cannot use; a target folder
    // taken for missing is found when created.
    const Follows copyFollows = [](const vfs::Exception& error) {
        return error.getErrorCode() == vfs::ErrorCode::InvalidLocation ||
               error.getErrorCode() == vfs::ErrorCode::ResourceAlreadyExists;
    };
    const auto deleteAbsorbs = [](ProviderOperation, Code code, std::uint64_t) { return code == Code::ResourceNotFound; };
    // A folder whose listing was taken for gone is then not empty when it is removed.
    const auto notEmpty = [](const vfs::Exception& error) { return error.getErrorCode() == vfs::ErrorCode::FolderNotEmpty; };
    sweep({
        scenario("copy",
                 [](const vfs::Folder& t) { folderAt(t, u"d").copyFolder(folderAt(t, u"c"), ReplacementPolicy::FailIfExists); })
            .absorbing(copyAbsorbs, copyFollows),
        scenario("copy into, merging",
                 [](const vfs::Folder& t) {
                     folderAt(t, u"d").copyFolderInto(folderAt(t, u"empty"), ReplacementPolicy::MergeFolders);
                 })
            .absorbing(copyAbsorbs, copyFollows),
        scenario("copy collecting failures",
                 [](const vfs::Folder& t) {
                     folderAt(t, u"d").copyFolder(folderAt(t, u"c"), ReplacementPolicy::MergeCollectingFailures);
                 })
            .absorbing(copyAbsorbs, copyFollows),
        scenario("delete", [](const vfs::Folder& t) { folderAt(t, u"d").removeFolder(vfs::FolderRemovalPolicy::Recursive); })
            .absorbing(deleteAbsorbs, notEmpty),
    });
}

TEST_P(FaultSweep, Streams)
{
    const auto throwIfFailed = [](const std::ios& stream) {
        if (stream.fail())
            throw StreamWentBad();
    };
    sweep({
        scenario("ifstream",
         [throwIfFailed](const vfs::Folder& t) {
             vfs::ifstream in(at(t, u"a.txt"), std::ios::binary);
             std::string line;
             std::getline(in, line);
             throwIfFailed(in);
             in.close();
             throwIfFailed(in);
         }),
        scenario("ofstream, text",
         [throwIfFailed](const vfs::Folder& t) {
             vfs::ofstream out(at(t, u"n.txt"), 0);
             out << "one\ntwo\n" << std::flush;
             throwIfFailed(out);
             out.close();
             throwIfFailed(out);
         }).partialAt({u"n.txt"}),
        scenario("fstream, appending",
         [throwIfFailed](const vfs::Folder& t) {
             vfs::fstream io(at(t, u"a.txt"), std::ios::in | std::ios::out | std::ios::app | std::ios::binary);
             io << "more";
             io.seekg(0);
             std::string line;
             std::getline(io, line);
             throwIfFailed(io);
             io.close();
             throwIfFailed(io);
         }).partialAt({u"a.txt"}),
        scenario("device",
         [](const vfs::Folder& t) {
             vfs::IODevice device(at(t, u"b.dat"), provider::ByteStreamOpenOptions{.access = provider::ByteStreamAccess::ReadWrite});
             char two[2];
             device.read(two, 2);
             device.seek(1, std::ios::cur);
             device.write("XY", 2);
             device.close();
         }),
        scenario("buffered device",
         [](const vfs::Folder& t) {
             vfs::BufferedIODevice device(at(t, u"n.dat"), provider::ByteStreamOpenOptions{});
             device.write("buffered", 8);
             device.flush();
             device.seek(0, std::ios::beg);
             device.close();
         }).partialAt({u"n.dat"}),
        scenario("transactional device",
         [](const vfs::Folder& t) {
             vfs::TransactionalIODevice device(at(t, u"a.txt"), provider::ByteStreamAccess::Write);
             device.write("replaced", 8);
             device.close(provider::StreamClosePolicy::Commit);
         }),
    });
}

// Counts what it meets and reads each file's attributes; safe for the parallel walk.
class TouchingVisitor : public vfs::FolderVisitor {
public:
    vfs::FolderVisitResult visitEntry(const vfs::FileEntry& entry) override
    {
        entry.getAttributes();
        count();
        return vfs::FolderVisitResult::Continue;
    }
    vfs::FolderVisitResult visitEntryAfter(const vfs::FolderEntry&) override
    {
        count();
        return vfs::FolderVisitResult::Continue;
    }

private:
    void count()
    {
        std::lock_guard lock(m_mutex);
        ++m_seen;
    }
    std::mutex m_mutex;
    int m_seen = 0;
};

TEST_P(FaultSweep, Walks)
{
    // A folder that has gone ends its own visit; anything else reaches the caller.
    const auto gone = [](ProviderOperation, Code code, std::uint64_t) { return code == Code::ResourceNotFound; };
    sweep({
        scenario("sequential", [](const vfs::Folder& t) { TouchingVisitor visitor; vfs::walkFolder(t, visitor); })
            .absorbing(gone),
        scenario("parallel", [](const vfs::Folder& t) { TouchingVisitor visitor; vfs::walkFolderParallel(t, visitor); })
            .absorbing(gone),
    });
}

std::string sweepName(const testing::TestParamInfo<std::tuple<std::string, bool>>& info)
{
    return std::get<0>(info.param) + (std::get<1>(info.param) ? "_libraryPaths" : "_providerPaths");
}

// The library's own fallbacks do not depend on the storage below them: they run in memory only, which
// keeps the sweep quick; the local disk runs its provider's own paths.
INSTANTIATE_TEST_SUITE_P(Schemes, FaultSweep,
                         testing::Values(std::tuple("mem", false), std::tuple("mem", true), std::tuple("file", false)),
                         sweepName);

} // namespace
