
#include <Prelude.hpp>

#include <boost/container_hash/hash.hpp>

namespace {

using testing::StartsWith;
using vfs::InvalidIRIException;

// What an InvalidIRIException thrown by `call` carries; fails the test when `call` throws nothing or
// something else.
struct InvalidIRI {
    ustring invalidIRIString;
    boost::exception_ptr nested; // empty when no cause is attached
};

template <class Call>
std::optional<InvalidIRI> invalidIRIFrom(Call&& call)
{
    return vfs_test::inspectThrown<InvalidIRIException>(std::forward<Call>(call), [](const InvalidIRIException& error) {
        const auto* boostPart = dynamic_cast<const boost::exception*>(&error);
        EXPECT_NE(boostPart, nullptr) << "thrown without boost::throw_exception";
        const boost::exception_ptr* nested =
            boostPart ? boost::get_error_info<boost::errinfo_nested_exception>(*boostPart) : nullptr;
        return std::optional<InvalidIRI>(
            InvalidIRI{error.getInvalidIRIString(), nested ? *nested : boost::exception_ptr()});
    });
}

// The provider error held by `cause`; nullopt when it holds nothing.
std::optional<provider::Exception> providerCause(const boost::exception_ptr& cause)
{
    return vfs_test::thrown<provider::Exception>(vfs_test::rethrowing(cause));
}

ustring utf16(const std::filesystem::path& path) { return fl::i18n::utf8_to_ustring(path.native()); }

TEST(AbsoluteIRITest, TextThatDoesNotParseKeepsTheCallersTextAndNestsTheParserError)
{
    const std::vector<ustring> unparsable = {u"", u"no scheme here", u"1file:///a", ustring(u"file:///a\xD800" u"b")};
    for (const auto& text : unparsable) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8_lossy(text));
        const auto error = invalidIRIFrom([&] { AbsoluteIRI{text}; });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->invalidIRIString, text);
        ASSERT_TRUE(error->nested);
        const auto cause = providerCause(error->nested);
        ASSERT_TRUE(cause.has_value());
        EXPECT_EQ(cause->getErrorCode(), provider::ErrorCode::InvalidLocation);

        const auto canonical = invalidIRIFrom([&] { CanonicalAbsoluteIRI{text}; });
        ASSERT_TRUE(canonical.has_value());
        EXPECT_EQ(canonical->invalidIRIString, text);
        EXPECT_TRUE(canonical->nested);
    }
}

TEST(AbsoluteIRITest, TextWithoutAPathReportsTheParsedFormWithoutCause)
{
    // The scheme is lower-cased by the parser, so the reported text differs from the input.
    const std::vector<std::pair<ustring, ustring>> pathless = {
        {u"MEM://volume", u"mem://volume"},
        {u"mailto:someone@example.com", u"mailto:someone@example.com"},
    };
    for (const auto& [text, parsed] : pathless) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(text));
        const auto error = invalidIRIFrom([&] { AbsoluteIRI{text}; });
        ASSERT_TRUE(error.has_value());
        EXPECT_EQ(error->invalidIRIString, parsed);
        EXPECT_FALSE(error->nested);
    }
}

TEST(AbsoluteIRITest, InvalidIRIIsCatchableAsEveryInterfaceItPromises)
{
    EXPECT_THROW(AbsoluteIRI{u""}, foundation::core::except::IInternalException);
    EXPECT_THROW(AbsoluteIRI{u""}, boost::exception);
    EXPECT_THROW(AbsoluteIRI{u""}, std::exception);
    // Captured into an exception_ptr it keeps its type and text.
    const auto captured = vfs_test::boostCaptured([] { AbsoluteIRI{u"x"}; });
    vfs_test::inspectThrown<InvalidIRIException>(vfs_test::rethrowing(captured), [](const InvalidIRIException& error) {
        EXPECT_EQ(error.getInvalidIRIString(), u"x");
    });
}

TEST(AbsoluteIRITest, ComparesAndHashesAsItsStorageIRIButStringsExactly)
{
    const std::vector<ustring> texts = {u"file:///a", u"file:///a/b", u"file:///b", u"mem://v/a", u"mem://w/"};
    for (const auto& x : texts)
        for (const auto& y : texts) {
            const AbsoluteIRI a{x}, b{y};
            const provider::StorageIRI p{x}, q{y};
            EXPECT_EQ(a == b, p == q);
            EXPECT_EQ(a != b, p != q);
            EXPECT_EQ(a < b, p < q);
        }

    const AbsoluteIRI iri{u"file:///tmp/b%20c"};
    const AbsoluteIRI same{u"FILE://localhost/tmp/./b%20c"};
    ASSERT_EQ(iri, same);
    EXPECT_EQ(hash_value(iri), iri.hashValue());
    EXPECT_EQ(std::hash<AbsoluteIRI>{}(iri), iri.hashValue());
    EXPECT_EQ(boost::hash<AbsoluteIRI>{}(iri), iri.hashValue());
    EXPECT_EQ(same.hashValue(), provider::StorageIRI(u"file:///tmp/b%20c").hashValue());
    EXPECT_EQ(std::hash<CanonicalAbsoluteIRI>{}(CanonicalAbsoluteIRI{u"file:///tmp/b%20c"}), iri.hashValue());
    EXPECT_EQ((std::unordered_set<AbsoluteIRI>{iri, same, AbsoluteIRI{u"file:///tmp/y"}}).size(), 2u);

    // Against a string: equal only to the exact normalised text, in both argument orders.
    const ustring text = iri.toString();
    EXPECT_TRUE(iri == text && text == iri);
    EXPECT_FALSE(iri != text || text != iri);
    for (const ustring& other : {ustring(u"FILE:///tmp/b%20c"), ustring(u"file:///tmp//b%20c"), text.substr(0, text.size() - 1),
                                text + u"/"}) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(other));
        EXPECT_FALSE(iri == other || other == iri);
        EXPECT_TRUE(iri != other && other != iri);
    }

    std::ostringstream out;
    out << AbsoluteIRI{u"file:///tmp/\u00e4 b"};
    EXPECT_EQ(out.str(), "file:///tmp/\xC3\xA4%20b");
}

TEST(AbsoluteIRITest, NestingAndBuildingMatchTheParser)
{
    const AbsoluteIRI nested{u"zip:file:///tmp/a.zip!/docs/./../x.txt"};
    EXPECT_EQ(nested.getResolvedIRI(), nested);
    EXPECT_EQ(nested.getInnerIRI(), AbsoluteIRI{u"file:///tmp/a.zip"});
    EXPECT_EQ(AbsoluteIRI(u"zip", AbsoluteIRI{u"file:///tmp/a.zip"}, u"x.txt"), nested);
    // A location without a container has no inner IRI with a path.
    const auto error = invalidIRIFrom([] { AbsoluteIRI{u"file:///a"}.getInnerIRI(); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->invalidIRIString, u"");
    EXPECT_FALSE(error->nested);
}

TEST(AbsoluteIRITest, BuildingConstructorsAndParentPassProviderErrorsUntranslated)
{
    const AbsoluteIRI base{u"file:///a"};
    EXPECT_EQ(AbsoluteIRI(base, u"b/c"), AbsoluteIRI{u"file:///a/b/c"});
    EXPECT_EQ(AbsoluteIRI(base, u"b/c").getParent(), AbsoluteIRI{u"file:///a/b"});
    EXPECT_THROW(AbsoluteIRI(base, ustring(u"\xDC00")), provider::Exception);
    EXPECT_THROW(AbsoluteIRI(u"bad scheme", base, u"/x"), provider::Exception);
}

TEST(AbsoluteIRITest, CanonicalAbsoluteIRIIsTheSameValueUnderAStricterType)
{
    static_assert(std::is_convertible_v<const CanonicalAbsoluteIRI&, const AbsoluteIRI&>);
    static_assert(!std::is_convertible_v<AbsoluteIRI, CanonicalAbsoluteIRI>);
    static_assert(!std::is_constructible_v<CanonicalAbsoluteIRI, AbsoluteIRI>);
    static_assert(std::is_same_v<decltype(std::declval<CanonicalAbsoluteIRI>().getParent()), CanonicalAbsoluteIRI>);

    const CanonicalAbsoluteIRI canonical{u"file:///a/../b/c"};
    const AbsoluteIRI& plain = canonical;
    EXPECT_EQ(plain, AbsoluteIRI{u"file:///b/c"});
    EXPECT_EQ(canonical.getParent(), AbsoluteIRI{u"file:///b"});
    EXPECT_EQ(CanonicalAbsoluteIRI(canonical, u"d"), AbsoluteIRI{u"file:///b/c/d"});
    EXPECT_TRUE(canonical == u"file:///b/c");
}

// The local-path helpers are the provider's; what is the library's is how their failures arrive.
TEST(LocalPathsTest, ResultsAndFailuresArriveAsTheLibrarysTypes)
{
    const vfs_test::TempDir dir;
    const auto target = dir.writeFile("target.txt", "x");
    const auto link = dir / "link.txt";
    std::filesystem::create_symlink(target, link);
    const AbsoluteIRI viaLink = vfs::toAbsoluteIRI(u"", link);
    EXPECT_EQ(viaLink.getPath(), utf16(link));
    EXPECT_EQ(vfs::toCanonicalAbsoluteIRI(u"file", link), vfs::toAbsoluteIRI(u"", std::filesystem::canonical(target)));
    EXPECT_EQ(vfs::fromAbsoluteIRI(viaLink), link);
    EXPECT_TRUE(vfs::locationsAreEquivalent(viaLink, vfs::toAbsoluteIRI(u"", target)));
    EXPECT_THROW(vfs::fromAbsoluteIRI(AbsoluteIRI{u"mem://volume/a"}), provider::Exception);

    // A missing path is an IRI that cannot be canonicalised: an Exception naming it.
    const AbsoluteIRI missing = vfs::toAbsoluteIRI(u"", dir / "missing.txt");
    vfs_test::inspectThrown<vfs::Exception>(
        [&] { vfs::toCanonicalAbsoluteIRI(u"", dir / "missing.txt"); }, [&](const vfs::Exception& error) {
            EXPECT_EQ(error.getErrorCode(), vfs::ErrorCode::ResourceNotFound);
            EXPECT_EQ(error.getLocation(), missing);
            EXPECT_THAT(fl::i18n::ustring_to_utf8(error.getExceptionContextsString()), StartsWith("realpath:"));
        });
    // A path that names no location is an InvalidIRIException nesting the provider's refusal.
    for (const auto& path : {std::filesystem::path(), std::filesystem::path(std::string("/tmp/a\0b.txt", 12))}) {
        for (const auto& error : {invalidIRIFrom([&] { vfs::toAbsoluteIRI(u"", path); }),
                                  invalidIRIFrom([&] { vfs::toCanonicalAbsoluteIRI(u"", path); })}) {
            ASSERT_TRUE(error.has_value());
            EXPECT_EQ(error->invalidIRIString, fl::i18n::utf8_to_ustring_lossy(path.native()));
            const auto cause = providerCause(error->nested);
            ASSERT_TRUE(cause.has_value());
            EXPECT_EQ(cause->getErrorCode(), provider::ErrorCode::InvalidLocation);
        }
    }
}

struct PrefixCase {
    ustring text;
    bool expected;
};

TEST(HasIRIPrefixTest, TellsIRIsFromLocalPaths)
{
    const std::vector<PrefixCase> cases = {
        {u"", false},
        {u"a:/", false},               // too short
        {u"ab:/", true},               // the shortest IRI prefix
        {u"c:/tmp/x", false},          // drive letter
        {u"file:///tmp/x", true},
        {u"a1+-.b:/x", true},          // every scheme character
        {u"1ab:/x", false},            // scheme starts with a digit
        {u"a_b:/x", false},            // not a scheme character
        {u"f\u00e9:/x", false},        // not ASCII
        {u"file:", false},             // nothing after the colon
        {u"zip:file:///a.zip!/x", true}, // an outer scheme followed by an IRI
        {u"zip:c:/x", false},          // an outer scheme followed by a drive letter
        {u"mailto:someone", false},    // opaque part
        {u"a:b:/x", false},
        {u"ab:cd:/x", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(fl::i18n::ustring_to_utf8(c.text));
        EXPECT_EQ(vfs::hasIRIPrefix(c.text), c.expected);
    }
}

TEST(HasIRIPrefixTest, LoneSurrogateAnswersFalseAndReportsTheExceptionOnlyToThoseListening)
{
    {
        vfs_test::RecordingListener silent(vfs::detail::logger(),
                                           foundation::log::category_all & ~foundation::log::category_exception);
        EXPECT_FALSE(vfs::hasIRIPrefix(ustring(u"file:///a\xD800")));
        EXPECT_THAT(silent.take(), testing::IsEmpty());
    }
    vfs_test::RecordingListener trace(vfs::detail::logger(), foundation::log::category_exception);
    // Valid prefixes: the whole text is converted first, so a bad unit anywhere decides.
    for (const ustring& text : {ustring(u"file:///a\xD800"), ustring(u"\xDC00" u"file:///a"), ustring(u"ab:/\xDBFF")})
        EXPECT_FALSE(vfs::hasIRIPrefix(text));
    const auto records = trace.take();
    ASSERT_EQ(records.size(), 3u);
    for (const auto& record : records)
        EXPECT_THAT(record.text, StartsWith("Exception caught: fl::i18n::conversion_error"));
}

} // namespace
